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

#include "tests/support/FaultFileServer.h"
#include "tests/support/Wait.h"
#include "tests/system/HeadlessAgentTest.h"

namespace {

using testsupport::FaultFileServer;

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

class VideoPageTest : public systemtest::HeadlessAgentTest {
protected:
    void SetUp() override {
        HeadlessAgentTest::SetUp();
        clip_ = makeClip(home_.path());
        ASSERT_FALSE(clip_.isEmpty());
    }
    void serve(qint64 bytesPerSecond) {
        files_.addFile(
            "clip.mp4",
            {.content = clip_, .contentType = "video/mp4", .bytesPerSecond = bytesPerSecond});
        files_.addFile("watch", {.content = "<html><head><title>Holiday</title></head><body>"
                                            "<video src=\"clip.mp4\"></video></body></html>",
                                 .contentType = "text/html"});
    }
    QByteArray video() const {
        const QStringList names = downloadedFiles().filter(QRegularExpression("^Holiday.*\\.mp4$"));
        return names.size() == 1 ? downloaded(names.first()) : QByteArray();
    }

    FaultFileServer files_;
    QByteArray clip_;
};

TEST_F(VideoPageTest, ASharedPageGivesTheVideo) {
    serve(0);
    const std::string key =
        account_->create(QStringLiteral("Ferrybox_Downloads\n%1").arg(files_.url("watch")));
    QProcess agent;
    startAgent(agent, true);
    ASSERT_TRUE(agent.waitForFinished(60000));
    const QString err = QString::fromUtf8(agent.readAllStandardError());
    EXPECT_EQ(agent.exitCode(), 0) << err.toStdString();
    EXPECT_TRUE(video() == clip_) << downloadedFiles().join(", ").toStdString();
    EXPECT_EQ(downloadedFiles().size(), 1) << downloadedFiles().join(", ").toStdString();
    EXPECT_EQ(account_->text(key), "Ferrybox_Downloads");
    EXPECT_TRUE(err.contains("download finished: " + downloads() + "/Holiday"))
        << err.toStdString();
}

TEST_F(VideoPageTest, AKilledAgentsVideoGoesOnAtTheNextStart) {
    serve(clip_.size() / 6);
    account_->create(QStringLiteral("Ferrybox_Downloads\n%1").arg(files_.url("watch")));
    QProcess first;
    startAgent(first, false);
    ASSERT_TRUE(testsupport::waitUntil(
        [&] { return files_.bodyBytesSent("clip.mp4") > clip_.size() / 3; }, 30000));
    ::kill(static_cast<pid_t>(first.processId()), SIGKILL);
    ASSERT_TRUE(first.waitForFinished(10000));
    const qint64 before = files_.bodyBytesSent("clip.mp4");

    QProcess second;
    startAgent(second, true);
    ASSERT_TRUE(second.waitForFinished(60000));
    EXPECT_EQ(second.exitCode(), 0) << second.readAllStandardError().toStdString();
    EXPECT_TRUE(video() == clip_) << downloadedFiles().join(", ").toStdString();
    EXPECT_EQ(downloadedFiles().size(), 1) << downloadedFiles().join(", ").toStdString();
    EXPECT_LT(files_.bodyBytesSent("clip.mp4") - before, clip_.size()) << "went on, not over";
}

}  // namespace
