// SPDX-License-Identifier: GPL-3.0-or-later
// A link to a web page with a video gives the video, through the real yt-dlp (and a clip that
// the real ffmpeg makes): the same events as any transfer, and the page itself when there is no
// video, no tool, or the tool is off. Nothing in a link ever becomes an option of the tool.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include "foundation/URLDownload.h"
#include "tests/foundation/RecordingDelegate.h"
#include "tests/support/FaultFileServer.h"
#include "tests/support/Wait.h"

namespace {

using foundation::URLDownload;
using foundationtest::Recorder;
using testsupport::FaultFileServer;
using testsupport::waitUntil;

// A two-second clip with picture and sound, made once for the whole run.
const QByteArray& clip() {
    static const QByteArray bytes = [] {
        QTemporaryDir dir;
        const QString path = dir.filePath("clip.mp4");
        QProcess ffmpeg;
        ffmpeg.start("ffmpeg",
                     {"-loglevel", "error", "-f", "lavfi", "-i",
                      "testsrc=duration=2:size=160x120:rate=10", "-f", "lavfi", "-i",
                      "sine=duration=2", "-c:v", "libx264", "-c:a", "aac", "-shortest", path});
        ffmpeg.waitForFinished(60000);
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }();
    return bytes;
}

QByteArray page(const QByteArray& body) {
    return "<html><head><title>My Clip</title></head><body>" + body + "</body></html>";
}

struct VideoCase {
    const char* name;
    QString path;                    // of the page on the server, percent-encoded as in the link
    QByteArray body;                 // of the page
    std::optional<QString> program;  // the tool; none for no tool set
    bool givesVideo;
};

void PrintTo(const VideoCase& c, std::ostream* os) {
    *os << c.name;
}

class VideoPageTest : public ::testing::TestWithParam<VideoCase> {
protected:
    void SetUp() override {
        ASSERT_FALSE(clip().isEmpty()) << "ffmpeg made no clip";
        URLDownload::setRetryTimings({.giveUpSeconds = 0});
    }
    void TearDown() override { URLDownload::setVideoPageTool(std::nullopt); }
};

TEST_P(VideoPageTest, GivesTheVideoOrThePage) {
    const VideoCase& c = GetParam();
    FaultFileServer server;
    server.addFile("clip.mp4", {.content = clip(), .contentType = "video/mp4"});
    server.addFile(QUrl::fromPercentEncoding(c.path.section(QLatin1Char('?'), 0, 0).toUtf8()),
                   {.content = page(c.body), .contentType = "text/html; charset=utf-8"});
    QTemporaryDir dir;
    Recorder recorder;
    recorder.folder = dir.path();
    if (c.program) {
        foundation::VideoPageTool tool;
        tool.program = *c.program;
        URLDownload::setVideoPageTool(tool);
    }
    foundation::URLRequest request;
    request.url = QUrl(server.url(c.path), QUrl::StrictMode);
    URLDownload::start(request, &recorder);
    ASSERT_TRUE(waitUntil([&] { return recorder.over(); }, 60000))
        << recorder.events.join(" | ").toStdString();

    const QStringList files = QDir(dir.path()).entryList(QDir::Files | QDir::Hidden);
    ASSERT_EQ(files.size(), 1) << files.join(", ").toStdString();
    QFile file(dir.filePath(files.first()));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray expected = c.givesVideo ? clip() : page(c.body);
    EXPECT_TRUE(file.readAll() == expected) << files.first().toStdString();
    EXPECT_EQ(recorder.events.last(), QStringLiteral("finish %1").arg(expected.size()));
    if (c.givesVideo) {
        EXPECT_TRUE(files.first().startsWith("My Clip") && files.first().endsWith(".mp4"))
            << files.first().toStdString();
        // A page's video is of unknown size until it comes (the page does not say).
        EXPECT_EQ(recorder.events.mid(0, 3),
                  (QStringList{"begin", "response 200 -1", "destination " + files.first()}));
    }
    // No option hidden in a link ran anything.
    EXPECT_FALSE(QFile::exists(dir.filePath("OWNED")));
    EXPECT_FALSE(QFile::exists(QDir::current().filePath("OWNED")));
}

const QByteArray kVideo = "<video src=\"clip.mp4\" controls></video>";

INSTANTIATE_TEST_SUITE_P(
    Foundation, VideoPageTest,
    ::testing::Values(
        VideoCase{"PageWithAVideo", "watch.html", kVideo, "yt-dlp", true},
        VideoCase{"PageWithoutMedia", "article.html", "<p>Just words.</p>", "yt-dlp", false},
        VideoCase{"NoToolSet", "watch.html", kVideo, std::nullopt, false},
        VideoCase{"ToolNotInstalled", "watch.html", kVideo, "/nonexistent/yt-dlp", false},
        VideoCase{"LinkThatLooksLikeOptions", "-x%20--exec%20touch%20OWNED", kVideo, "yt-dlp",
                  true},
        VideoCase{"LinkWithOptionsUnencoded", "--exec?-x=touch+OWNED", kVideo, "yt-dlp", true}),
    [](const auto& info) { return std::string(info.param.name); });

// Stopped in the middle, a video leaves nothing behind: not the tool's own partial files either.
TEST(VideoPageTransferTest, CancelLeavesNoFile) {
    ASSERT_FALSE(clip().isEmpty());
    FaultFileServer server;
    server.addFile("clip.mp4",
                   {.content = clip(), .contentType = "video/mp4", .bytesPerSecond = 4000});
    server.addFile("watch.html", {.content = page(kVideo), .contentType = "text/html"});
    QTemporaryDir dir;
    Recorder recorder;
    recorder.folder = dir.path();
    URLDownload::setVideoPageTool(foundation::VideoPageTool{});
    foundation::URLRequest request;
    request.url = QUrl(server.url("watch.html"));
    auto download = URLDownload::start(request, &recorder);
    ASSERT_TRUE(waitUntil([&] { return recorder.bytes > 0; }, 60000))
        << recorder.events.join(" | ").toStdString();
    EXPECT_FALSE(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden).isEmpty());
    download->cancel();
    URLDownload::setVideoPageTool(std::nullopt);
    EXPECT_TRUE(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden).isEmpty())
        << QDir(dir.path()).entryList(QDir::Files | QDir::Hidden).join(", ").toStdString();
}

}  // namespace
