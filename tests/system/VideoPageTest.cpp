// SPDX-License-Identifier: GPL-3.0-or-later
// A video page written into the note ends as the video in the download folder, through the real
// yt-dlp, with the headless agent as it runs at a user's: the first check waits for it, and a
// killed agent's video goes on at the next start.
#include <gtest/gtest.h>

#include <signal.h>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include "tests/support/AgentEnvironment.h"
#include "tests/support/FaultFileServer.h"
#include "tests/support/NotesAccount.h"
#include "tests/support/NotesServerProcess.h"
#include "tests/support/Wait.h"

namespace {

using testsupport::FaultFileServer;

const QString kEmail = QStringLiteral("me@example.org");
const QString kPassword = QStringLiteral("secret words");

QByteArray makeClip(const QString& folder) {
    const QString path = folder + "/clip.mp4";
    QProcess ffmpeg;
    ffmpeg.start(
        "ffmpeg",
        {"-loglevel", "error", "-f", "lavfi", "-i", "testsrc=duration=4:size=320x240:rate=25", "-f",
         "lavfi", "-i", "sine=duration=4", "-c:v", "libx264", "-c:a", "aac", "-shortest", path});
    ffmpeg.waitForFinished(60000);
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

class VideoPageTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(service_.isRunning());
        ASSERT_TRUE(service_.addUser(kEmail, kPassword));
        account_ = std::make_unique<testsupport::NotesAccount>(service_, kEmail, kPassword);
        QFile file(home_.path() + "/password");
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(kPassword.toUtf8() + "\n");
        file.setPermissions(QFile::ReadOwner | QFile::WriteOwner);
        clip_ = makeClip(home_.path());
        ASSERT_FALSE(clip_.isEmpty());
    }
    void start(QProcess& agent, bool once) {
        agent.setProcessEnvironment(testsupport::agentEnvironment(home_.path(), service_.apiUrl()));
        QStringList arguments{"--headless", "--email", kEmail, "--password-file",
                              home_.path() + "/password"};
        if (once)
            arguments << "--once";
        agent.start(qEnvironmentVariable("FERRYBOX_BUILD_DIR") + "/app/ferrybox", arguments);
        ASSERT_TRUE(agent.waitForStarted());
    }
    void serve(qint64 bytesPerSecond) {
        files_.addFile(
            "clip.mp4",
            {.content = clip_, .contentType = "video/mp4", .bytesPerSecond = bytesPerSecond});
        files_.addFile("watch", {.content = "<html><head><title>Holiday</title></head><body>"
                                            "<video src=\"clip.mp4\"></video></body></html>",
                                 .contentType = "text/html"});
    }
    QStringList downloads() const {
        return QDir(home_.path() + "/Downloads/Ferrybox").entryList(QDir::Files | QDir::Hidden);
    }
    QByteArray video() const {
        const QStringList names = downloads().filter(QRegularExpression("^Holiday.*\\.mp4$"));
        QFile file(home_.path() + "/Downloads/Ferrybox/" + names.value(0));
        return names.size() == 1 && file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    QTemporaryDir home_;
    // Bound before the service looks for a free port, so that the two never meet on one.
    FaultFileServer files_;
    testsupport::NotesServerProcess service_;
    std::unique_ptr<testsupport::NotesAccount> account_;
    QByteArray clip_;
};

TEST_F(VideoPageTest, ASharedPageGivesTheVideo) {
    serve(0);
    const std::string key =
        account_->create(QStringLiteral("Ferrybox_Downloads\n%1").arg(files_.url("watch")));
    QProcess agent;
    start(agent, true);
    ASSERT_TRUE(agent.waitForFinished(60000));
    const QString err = QString::fromUtf8(agent.readAllStandardError());
    EXPECT_EQ(agent.exitCode(), 0) << err.toStdString();
    EXPECT_TRUE(video() == clip_) << downloads().join(", ").toStdString();
    EXPECT_EQ(downloads().size(), 1) << downloads().join(", ").toStdString();
    EXPECT_EQ(account_->text(key), "Ferrybox_Downloads");
    EXPECT_TRUE(err.contains("download finished: " + home_.path() + "/Downloads/Ferrybox/Holiday"))
        << err.toStdString();
}

TEST_F(VideoPageTest, AKilledAgentsVideoGoesOnAtTheNextStart) {
    serve(clip_.size() / 6);
    account_->create(QStringLiteral("Ferrybox_Downloads\n%1").arg(files_.url("watch")));
    QProcess first;
    start(first, false);
    ASSERT_TRUE(testsupport::waitUntil(
        [&] { return files_.bodyBytesSent("clip.mp4") > clip_.size() / 3; }, 30000));
    ::kill(static_cast<pid_t>(first.processId()), SIGKILL);
    ASSERT_TRUE(first.waitForFinished(10000));
    const qint64 before = files_.bodyBytesSent("clip.mp4");

    QProcess second;
    start(second, true);
    ASSERT_TRUE(second.waitForFinished(60000));
    EXPECT_EQ(second.exitCode(), 0) << second.readAllStandardError().toStdString();
    EXPECT_TRUE(video() == clip_) << downloads().join(", ").toStdString();
    EXPECT_EQ(downloads().size(), 1) << downloads().join(", ").toStdString();
    EXPECT_LT(files_.bodyBytesSent("clip.mp4") - before, clip_.size()) << "went on, not over";
}

}  // namespace
