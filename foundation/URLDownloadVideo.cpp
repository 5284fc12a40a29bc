// SPDX-License-Identifier: GPL-3.0-or-later
// A transfer whose answer is a web page, while a video page tool is set: the tool looks at the
// page, and when it finds a video the transfer becomes the video's, with the same events as any
// other (the response with the video's size when known, the destination named after it, data as
// the tool reports progress, the end). A page without a video is saved as the page.
#include <QDir>
#include <QFileInfo>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QUrl>

#include "foundation/URLDownloadPrivate.h"
#include "foundation/VideoPageRun.h"

namespace foundation {

namespace {

bool isWebPage(const QNetworkReply* reply) {
    const QString type = reply->header(QNetworkRequest::ContentTypeHeader)
                             .toString()
                             .section(QLatin1Char(';'), 0, 0)
                             .trimmed()
                             .toLower();
    return type == QLatin1String("text/html") || type == QLatin1String("application/xhtml+xml");
}

// A failure that no later run mends: the server refused the video for good.
bool isLastingVideoFailure(const QString& errorTail) {
    static const QRegularExpression status(QStringLiteral("HTTP Error (\\d{3})"));
    const QRegularExpressionMatch match = status.match(errorTail);
    if (!match.hasMatch())
        return false;
    const int code = match.captured(1).toInt();
    return code >= 400 && code < 500 && !isTransientStatus(code);
}

}  // namespace

bool URLDownload::Private::handsOverToVideoTool(const DownloadConnection* c) const {
    return !videoTried && URLDownload::videoPageTool() && !c->ranged && onDisk.total() == 0 &&
           isWebPage(c->reply);
}

void URLDownload::Private::handOverToVideoTool() {
    videoTried = true;
    closeAll();
    const QString link = q->request_.url.toString(QUrl::FullyEncoded);
    video = std::make_unique<VideoPageRun>(*URLDownload::videoPageTool(), silenceMs);
    video->look(link, [this](const VideoPageRun::Outcome& outcome) {
        const VideoPageRun::Look look = VideoPageRun::lookFrom(outcome);
        dropVideoRun();
        if (!outcome.ok || look.fileName.isEmpty()) {
            open(0, -1);  // no video here: the page itself, as for any other answer
            return;
        }
        usesVideoTool = true;
        length = look.size;
        HTTPURLResponse response;
        response.url = q->request_.url;
        response.statusCode = 200;
        response.headers = {{"Content-Disposition", "attachment; filename*=UTF-8''" +
                                                        QUrl::toPercentEncoding(look.fileName)}};
        response.expectedContentLength = length;
        responseArrived(response);
    });
}

// The run's own signal may be the one that runs now: it goes from the event loop.
void URLDownload::Private::dropVideoRun() {
    if (!video)
        return;
    video->stop();
    video.release()->deleteLater();
}

void URLDownload::Private::downloadVideo() {
    if (!allowOverwrite && QFileInfo::exists(destination)) {
        fail(Error(URLDownloadErrorDomain, URLDownloadErrorDestinationExists,
                   QStringLiteral("A file already exists at %1").arg(destination)));
        return;
    }
    stage = Stage::Receiving;
    const QString link = q->request_.url.toString(QUrl::FullyEncoded);
    video =
        std::make_unique<VideoPageRun>(*URLDownload::videoPageTool(), std::min(silenceMs, 30000));
    video->download(
        link, destination,
        [this](qint64 done, qint64) {
            if (done <= reported)
                return;
            const auto more = static_cast<quint64>(done - reported);
            reported = done;
            madeProgress();
            deliver([more](URLDownloadDelegate& d, URLDownload* download) {
                d.downloadDidReceiveDataOfLength(download, more);
            });
        },
        [this](const VideoPageRun::Outcome& outcome) { videoDone(outcome); });
}

void URLDownload::Private::videoDone(const VideoPageRun::Outcome& outcome) {
    dropVideoRun();
    if (outcome.ok) {
        // The tool names the file it made last; it may have another extension than asked for
        // (streams put together), never another folder.
        const QString made = outcome.output.section(QLatin1Char('\n'), -1).trimmed();
        if (!made.isEmpty() &&
            QFileInfo(made).absoluteDir() == QFileInfo(destination).absoluteDir())
            destination = made;
        forgetJournal();
        stopEverything();
        deliver(
            [](URLDownloadDelegate& d, URLDownload* download) { d.downloadDidFinish(download); },
            true);
        return;
    }
    QString reason = outcome.silent ? QStringLiteral("No output from %1 for %2 seconds")
                                          .arg(URLDownload::videoPageTool()->program)
                                          .arg(std::min(silenceMs, 30000) / 1000)
                                    : outcome.errorTail;
    reason.remove(QRegularExpression(QStringLiteral("^ERROR:\\s*")));
    const Error error(URLDownloadErrorDomain, URLDownloadErrorVideoPageTool, reason);
    if (isLastingVideoFailure(outcome.errorTail))
        fail(error);
    else
        attemptFailed(error, std::nullopt);
}

namespace {
std::optional<VideoPageTool>& chosenVideoPageTool() {
    static std::optional<VideoPageTool> tool;
    return tool;
}
}  // namespace

void URLDownload::setVideoPageTool(std::optional<VideoPageTool> tool) {
    chosenVideoPageTool() = std::move(tool);
}

const std::optional<VideoPageTool>& URLDownload::videoPageTool() {
    return chosenVideoPageTool();
}

bool URLDownload::fromVideoPage() const {
    return d_->usesVideoTool;
}

void URLDownload::Private::removeVideoWork() {
    if (!usesVideoTool || destination.isEmpty())
        return;
    for (const QString& file : VideoPageRun::workFiles(destination))
        QFile::remove(file);
}

}  // namespace foundation
