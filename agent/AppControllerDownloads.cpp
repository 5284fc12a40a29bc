// SPDX-License-Identifier: GPL-3.0-or-later
// The controller as the receiver of every transfer's events: it keeps the list of running
// downloads, decides where each file goes, counts progress and tells the user.
#include <QTimer>
#include <algorithm>

#include "agent/AppController.h"
#include "foundation/Log.h"
#include "foundation/Paths.h"

namespace {

// Every transfer the controller receives events of was made as a record.
FXDownload* record(foundation::URLDownload* download) {
    return static_cast<FXDownload*>(download);
}

}  // namespace

void AppController::downloadDidBegin(foundation::URLDownload* download) {
    downloadList_.push_back(std::static_pointer_cast<FXDownload>(download->shared_from_this()));
    sendGrowlNotification(QStringLiteral("downloading"), record(download)->displayName());
    updateMenu();
    if (downloadReporter_)
        downloadReporter_->downloadBegan(*record(download));
}

void AppController::downloadDidReceiveResponse(foundation::URLDownload* download,
                                               const foundation::HTTPURLResponse& response) {
    record(download)->setSize(response.expectedContentLength);
}

// A file of the same name is replaced, on purpose: the same link written into the note again
// means "fetch it again". Only a "videoplayback.mp4" stream goes to the path in its title, and
// never over an existing file; the check cycle gives no record a title, so such a stream fails.
void AppController::downloadDecideDestinationWithSuggestedFilename(
    foundation::URLDownload* download, const QString& filename) {
    if (filename != QLatin1String("videoplayback.mp4")) {
        const QString path = QStringLiteral("%1/%2").arg(
            foundation::expandingTildeInPath(downloadDirectory_), filename);
        download->setDestination(path, true);
        // A video page's transfer is shown and notified by the video's name, not the page's link.
        if (download->fromVideoPage())
            record(download)->setTitle(path);
    } else {
        download->setDestination(record(download)->title(), false);
    }
}

void AppController::downloadDidReceiveDataOfLength(foundation::URLDownload* download,
                                                   quint64 length) {
    FXDownload* fx = record(download);
    fx->setDone(fx->done() + static_cast<qint64>(length));
    updateMenu();
    if (downloadReporter_)
        downloadReporter_->downloadProgressed(*fx);
}

void AppController::downloadDidFinish(foundation::URLDownload* download) {
    // The video may have ended up under another extension than first named.
    if (download->fromVideoPage())
        record(download)->setTitle(download->destination());
    removeFromDownloadList(record(download));
    sendGrowlNotification(QStringLiteral("download complete"), record(download)->displayName());
    updateMenu();
    if (downloadReporter_)
        downloadReporter_->downloadFinished(*record(download));
}

void AppController::downloadDidFailWithError(foundation::URLDownload* download,
                                             const foundation::Error& error) {
    FXDownload* fx = record(download);
    foundation::log(QStringLiteral("download %1 failed with error %2")
                        .arg(fx->description(), error.description()));
    removeFromDownloadList(fx);
    sendGrowlNotification(QStringLiteral("error"),
                          QStringLiteral("Couldn't download %1").arg(fx->absoluteURLString()));
    updateMenu();
    if (downloadReporter_)
        downloadReporter_->downloadFailed(*fx, error);
    putFailedLinkBack(*fx, error);
}

void AppController::downloadWaitDidChange(foundation::URLDownload* download) {
    updateMenu();
    tickWhileWaiting();
    if (downloadReporter_)
        downloadReporter_->downloadWaitChanged(*record(download));
}

// The menu counts a wait down by the second while any listed transfer waits.
void AppController::tickWhileWaiting() {
    const bool anyWaits = std::any_of(downloadList_.begin(), downloadList_.end(),
                                      [](const auto& d) { return d->waiting().has_value(); });
    if (!anyWaits) {
        if (waitTicker_)
            waitTicker_->stop();
        return;
    }
    if (!waitTicker_) {
        waitTicker_ = new QTimer(this);
        waitTicker_->setInterval(1000);
        QObject::connect(waitTicker_, &QTimer::timeout, this, [this] {
            updateMenu();
            tickWhileWaiting();
        });
    }
    if (!waitTicker_->isActive())
        waitTicker_->start();
}

// An agent that ended between starting a transfer and storing the note leaves the link in the
// note too: the first check takes it from there without starting it a second time.
void AppController::resumeUnfinishedDownloads() {
    for (const auto& download : FXDownload::resumeJournaled<FXDownload>(this))
        resumedLinks_.insert(download->request().url.toString(QUrl::FullyEncoded));
}

// By identity: two records of the same link are two downloads.
void AppController::removeFromDownloadList(const FXDownload* download) {
    std::erase_if(downloadList_, [download](const std::shared_ptr<FXDownload>& listed) {
        return listed.get() == download;
    });
}
