// SPDX-License-Identifier: GPL-3.0-or-later
// `make run` for a newcomer: scripts/run with a temporary home makes an account on the notes
// service it starts, logs in with it and makes the download note; a second run reuses both.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include "platform/KCKeychainItem.h"
#include "tests/support/AgentEnvironment.h"
#include "tests/support/NotesServerProcess.h"
#include "tests/support/PrivateKeyring.h"

namespace {

struct ScriptRun {
    int exitCode = -1;
    QString err;
};

class QuickStartTest : public ::testing::TestWithParam<bool> {
protected:
    bool keyring() const { return GetParam(); }

    ScriptRun run() {
        QProcessEnvironment env = testsupport::agentEnvironment(home_.path(), QString());
        env.insert("FERRYBOX_NOTES_LISTEN", listen_);
        env.insert("FERRYBOX_NOTES_HASH_ITERATIONS", "1000");
        env.insert("USER", "newcomer");
        if (!keyring())
            env.remove("DBUS_SESSION_BUS_ADDRESS");
        QProcess script;
        script.setProcessEnvironment(env);
        script.start(QStringLiteral(FERRYBOX_SOURCE_DIR "/scripts/run"), {"--headless", "--once"});
        EXPECT_TRUE(script.waitForFinished(60000)) << "scripts/run did not finish";
        script.readAllStandardOutput();
        return {script.exitCode(), QString::fromUtf8(script.readAllStandardError())};
    }

    QString configFile(const char* name) const {
        return home_.path() + "/.config/Ferrybox/" + name;
    }

    QTemporaryDir home_;
    QString listen_ =
        QStringLiteral("127.0.0.1:%1").arg(testsupport::NotesServerProcess::freePort());
};

TEST_P(QuickStartTest, FirstRunMakesEverythingSecondRunReusesIt) {
    if (keyring()) {
        ASSERT_TRUE(testsupport::PrivateKeyring::shared().isRunning());
        testsupport::PrivateKeyring::shared().clear();
    }
    const ScriptRun first = run();
    ASSERT_EQ(first.exitCode, 0) << first.err.toStdString();
    const QString webPage = QStringLiteral("http://%1/").arg(listen_);
    EXPECT_TRUE(first.err.contains("Ferrybox made a notes account for you"))
        << first.err.toStdString();
    EXPECT_TRUE(first.err.contains(webPage));
    EXPECT_TRUE(first.err.contains("newcomer@localhost"));
    const QRegularExpressionMatch shown =
        QRegularExpression("Password:  (\\S+)\n").match(first.err);
    ASSERT_TRUE(shown.hasMatch());
    const QString password = shown.captured(1);
    EXPECT_TRUE(first.err.contains("POST /api/login 200"));
    EXPECT_TRUE(first.err.contains("Note Created"));

    // The password is where the message says, and only there.
    const QString passwordFile = configFile("quick-start-password");
    if (keyring()) {
        EXPECT_FALSE(QFile::exists(passwordFile));
        const auto item =
            KCGenericKeychainItem::genericKeychainItemForService("Ferrybox", "newcomer@localhost");
        ASSERT_NE(item, nullptr);
        EXPECT_EQ(item->password(), password);
    } else {
        struct stat info {};
        ASSERT_EQ(::stat(passwordFile.toUtf8().constData(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777, 0600u);
        QFile file(passwordFile);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        EXPECT_EQ(QString::fromUtf8(file.readAll()), password + "\n");
    }
    QFile settings(configFile("Ferrybox.conf"));
    ASSERT_TRUE(settings.open(QIODevice::ReadOnly));
    EXPECT_TRUE(settings.readAll().contains("email=\"newcomer@localhost\""));

    const ScriptRun second = run();
    ASSERT_EQ(second.exitCode, 0) << second.err.toStdString();
    EXPECT_TRUE(second.err.contains("POST /api/login 200")) << second.err.toStdString();
    EXPECT_FALSE(second.err.contains("made a notes account"));
    EXPECT_FALSE(second.err.contains("Note Created")) << "the download note is found again";
}

INSTANTIATE_TEST_SUITE_P(Keyring, QuickStartTest, ::testing::Values(true, false),
                         [](const auto& info) { return info.param ? "Reachable" : "Absent"; });

}  // namespace
