// SPDX-License-Identifier: GPL-3.0-or-later
// The whole job, end to end: the real `ferrybox --headless --once` against the real
// ferrybox-notes, fetching files from nginx and from a scripted server for the odd answers.
#include <gtest/gtest.h>

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include "tests/support/AgentEnvironment.h"
#include "tests/support/FixtureServer.h"
#include "tests/support/NginxProcess.h"
#include "tests/support/NotesAccount.h"
#include "tests/support/NotesServerProcess.h"

namespace {

using testsupport::FixtureServer;

const QString kEmail = QStringLiteral("me@example.org");
const QString kPassword = QStringLiteral("secret words");

QByteArray sha(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QCryptographicHash hash(QCryptographicHash::Sha256);
    hash.addData(&file);
    return hash.result().toHex();
}

class DownloadTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(service_.isRunning());
        ASSERT_TRUE(service_.addUser(kEmail, kPassword));
        ASSERT_TRUE(nginx_.isRunning());
        account_ = std::make_unique<testsupport::NotesAccount>(service_, kEmail, kPassword);
        QFile file(home_.path() + "/password");
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(kPassword.toUtf8() + "\n");
        file.setPermissions(QFile::ReadOwner | QFile::WriteOwner);
    }

    // Runs one check; its exit code, and standard error. A transfer that gets nowhere for
    // `patience` seconds fails.
    int runOnce(QString* err = nullptr, int patience = 600) {
        QProcess ferrybox;
        QProcessEnvironment env = testsupport::agentEnvironment(home_.path(), service_.apiUrl());
        env.insert("FERRYBOX_DOWNLOAD_PATIENCE", QString::number(patience));
        ferrybox.setProcessEnvironment(env);
        ferrybox.start(qEnvironmentVariable("FERRYBOX_BUILD_DIR") + "/app/ferrybox",
                       {"--headless", "--once", "--email", kEmail, "--password-file",
                        home_.path() + "/password"});
        EXPECT_TRUE(ferrybox.waitForFinished(60000));
        if (err)
            *err = QString::fromUtf8(ferrybox.readAllStandardError());
        return ferrybox.exitCode();
    }
    QString downloads() const { return home_.path() + "/Downloads/Ferrybox"; }
    QStringList downloadedFiles() const {
        return QDir(downloads()).entryList(QDir::Files | QDir::Hidden, QDir::Name);
    }

    QTemporaryDir home_;
    testsupport::NotesServerProcess service_;
    testsupport::NginxProcess nginx_;
    FixtureServer odd_;
    std::unique_ptr<testsupport::NotesAccount> account_;
};

TEST_F(DownloadTest, LinksBecomeFilesAndLeaveTheNote) {
    const QString big = nginx_.addFile("big.bin", 3 * 1024 * 1024 + 5);
    const QString small = nginx_.addFile("small.txt", 100);
    const std::string key = account_->create(
        QStringLiteral(
            "Ferrybox_Downloads\n# from my phone\n%1/big.bin\n\n%1/small.txt\n# keep me too")
            .arg(nginx_.baseUrl()));
    QString err;
    EXPECT_EQ(runOnce(&err), 0) << err.toStdString();
    EXPECT_EQ(account_->text(key), "Ferrybox_Downloads\n\n# from my phone\n# keep me too");
    EXPECT_EQ(downloadedFiles(), (QStringList{"big.bin", "small.txt"}));
    EXPECT_EQ(sha(downloads() + "/big.bin"), sha(big));
    EXPECT_EQ(sha(downloads() + "/small.txt"), sha(small));
    EXPECT_TRUE(err.contains("download begins: " + nginx_.baseUrl() + "/big.bin"))
        << err.toStdString();
    EXPECT_TRUE(err.contains("download finished: " + downloads() + "/big.bin (3145733 bytes, "));
}

// What servers may answer besides a plain file. A link that fails comes back into the note saying
// why, and the run says so in its exit status.
TEST_F(DownloadTest, OddAnswers) {
    nginx_.addFile("target.bin", 2000);
    odd_.on("GET", "/evil",
            FixtureServer::respond(
                200, "evil", {{"Content-Disposition", "attachment; filename=\"../../evil.sh\""}}));
    odd_.on("GET", "/moved",
            FixtureServer::redirectTo(nginx_.baseUrl().toStdString() + "/target.bin"));
    odd_.on("GET", "/passwd",
            FixtureServer::respond(200, "p",
                                   {{"Content-Disposition", "attachment; filename=/etc/passwd"}}));
    odd_.on("GET", "/missing", FixtureServer::respond(404, "no"));
    odd_.on("GET", "/failing", FixtureServer::respond(500, "oops"));
    odd_.on("GET", "/broken", odd_.stallMidBody(100000, 100, true));
    const QString o = odd_.baseUrl();
    const QString closed = QStringLiteral("http://127.0.0.1:%1/x").arg(FixtureServer::closedPort());
    const std::string key = account_->create(
        QStringLiteral("Ferrybox_Downloads\n%1/evil\n%1/moved\n%1/passwd\n%1/missing\n"
                       "%1/failing\n%1/broken\n%2\nftp://x/y\nfile:///etc/passwd\nnot a link")
            .arg(o, closed));
    QString err;
    EXPECT_EQ(runOnce(&err, 1), 1) << err.toStdString();
    EXPECT_EQ(downloadedFiles(), (QStringList{"evil.sh", "passwd", "target.bin"}));
    EXPECT_FALSE(QFile::exists(home_.path() + "/evil.sh"));
    QStringList lines = account_->text(key).split('\n');
    EXPECT_EQ(lines.takeFirst(), "Ferrybox_Downloads");
    lines.sort();
    // Why a line that closes mid-body fails at last depends on how far each attempt got.
    const qsizetype broken = lines.indexOf(
        QRegularExpression("^# failed: .+: " + QRegularExpression::escape(o) + "/broken$"));
    EXPECT_GE(broken, 0) << lines.join('\n').toStdString();
    if (broken >= 0)
        lines.removeAt(broken);
    EXPECT_EQ(lines,
              (QStringList{"# failed: 404 not found: " + o + "/missing",
                           "# failed: 500 internal server error: " + o + "/failing",
                           "# failed: connection refused: " + closed,
                           "# failed: not a link: file:///etc/passwd",
                           "# failed: not a link: ftp://x/y", "# failed: not a link: not a link"}));
}

// On a terminal a line shows the progress, rewritten in place.
TEST_F(DownloadTest, ProgressLineOnATerminal) {
    nginx_.addFile("film.bin", 4 * 1024 * 1024);
    account_->create(QStringLiteral("Ferrybox_Downloads\n%1/film.bin").arg(nginx_.baseUrl()));
    QProcess terminal;  // script(1) runs the agent on a terminal of its own
    terminal.setProcessEnvironment(testsupport::agentEnvironment(home_.path(), service_.apiUrl()));
    terminal.start("script",
                   {"-qec",
                    QStringLiteral("'%1' --headless --once --email '%2' --password-file '%3'")
                        .arg(qEnvironmentVariable("FERRYBOX_BUILD_DIR") + "/app/ferrybox", kEmail,
                             home_.path() + "/password"),
                    "/dev/null"});
    ASSERT_TRUE(terminal.waitForFinished(60000));
    const QString out = QString::fromUtf8(terminal.readAllStandardOutput());
    EXPECT_EQ(terminal.exitCode(), 0) << out.toStdString();
    EXPECT_TRUE(out.contains("\r\033[K" + nginx_.baseUrl() + "/film.bin: ")) << out.toStdString();
    EXPECT_TRUE(out.contains(" MiB of 4 MiB"));
    EXPECT_TRUE(out.contains("\r\033[Kdownload finished: "));
}

TEST_F(DownloadTest, FirstCheckCreatesTheNote) {
    QString err;
    EXPECT_EQ(runOnce(&err), 0) << err.toStdString();
    EXPECT_TRUE(
        err.contains("alert: Note Created: I've just created a new note called "
                     "\"Ferrybox_Downloads\""))
        << err.toStdString();
    EXPECT_EQ(account_->find("Ferrybox_Downloads"), QStringList{"Ferrybox_Downloads"});
}

// A failed link comes back into the note, unless the person chose otherwise.
class VanishedFolderTest : public DownloadTest, public ::testing::WithParamInterface<bool> {};

TEST_P(VanishedFolderTest, FailsEveryLinkAndPutsItBackIfChosen) {
    const bool putBack = GetParam();
    nginx_.addFile("a.bin", 10);
    QDir().mkpath(home_.path() + "/.config/Ferrybox");
    QFile settings(home_.path() + "/.config/Ferrybox/Ferrybox.conf");
    ASSERT_TRUE(settings.open(QIODevice::WriteOnly));
    settings.write("downloadDirectory=\"~/gone\"\n");
    if (!putBack)
        settings.write("putFailedLinksBack=no\n");
    settings.close();
    const std::string key =
        account_->create(QStringLiteral("Ferrybox_Downloads\n%1/a.bin").arg(nginx_.baseUrl()));
    QString err;
    EXPECT_EQ(runOnce(&err), 1);
    EXPECT_TRUE(err.contains("download failed: " + nginx_.baseUrl() + "/a.bin: Cannot write"))
        << err.toStdString();
    EXPECT_EQ(account_->text(key),
              putBack ? "Ferrybox_Downloads\n# failed: cannot write to the download folder: " +
                            nginx_.baseUrl() + "/a.bin"
                      : QString("Ferrybox_Downloads"));
    EXPECT_FALSE(QDir(home_.path() + "/gone").exists());
}

INSTANTIATE_TEST_SUITE_P(DownloadTest, VanishedFolderTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "PutBack" : "NotPutBack"; });

TEST_F(DownloadTest, NoteThatIsNotTheDownloadNoteIsLeftAlone) {
    // Found by the search (it holds the term), but it does not begin with it.
    const QString text =
        QStringLiteral("Shopping list, see Ferrybox_Downloads\n%1/a.bin").arg(nginx_.baseUrl());
    const std::string key = account_->create(text);
    QString err;
    EXPECT_EQ(runOnce(&err), 1);
    EXPECT_TRUE(
        err.contains("Note doesn't start with \"Ferrybox_Downloads\" -- aborting note check"))
        << err.toStdString();
    EXPECT_EQ(account_->text(key), text);
    EXPECT_TRUE(downloadedFiles().isEmpty());
}

}  // namespace
