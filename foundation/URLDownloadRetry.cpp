// SPDX-License-Identifier: GPL-3.0-or-later
// Between two attempts of a transfer: how long it waits, what for, and when it gives up.
#include <QHostAddress>
#include <QNetworkInformation>
#include <QRandomGenerator>

#include "foundation/URLDownloadPrivate.h"

namespace foundation {

std::optional<RetryTimings>& chosenRetryTimings() {
    static std::optional<RetryTimings> timings;
    return timings;
}

// Whether the network this host is reached over is down. A loopback host never is; without a
// way to tell (no backend for it here), the network is taken to be up.
bool URLDownload::Private::networkDown(const QUrl& url) {
    const QHostAddress address(url.host());
    if (url.host() == QLatin1String("localhost") || address.isLoopback())
        return false;
    static QNetworkInformation* information = [] {
        if (!QNetworkInformation::loadBackendByFeatures(
                QNetworkInformation::Feature::Reachability)) {
            return static_cast<QNetworkInformation*>(nullptr);
        }
        QNetworkInformation* info = QNetworkInformation::instance();
        QObject::connect(info, &QNetworkInformation::reachabilityChanged, info,
                         [](QNetworkInformation::Reachability reachability) {
                             const bool down =
                                 reachability == QNetworkInformation::Reachability::Disconnected;
                             for (URLDownload* download : runningDownloads())
                                 download->d_->networkChanged(down);
                         });
        return info;
    }();
    return information &&
           information->reachability() == QNetworkInformation::Reachability::Disconnected;
}

void URLDownload::Private::madeProgress() {
    sinceProgress.restart();
    networkDownMs = 0;
    attempt = 0;
}

double URLDownload::Private::secondsWithoutProgress() const {
    qint64 down = networkDownMs;
    if (waitingForNetwork)
        down += networkDownSince.elapsed();
    return double(sinceProgress.elapsed() - down) / 1000.0;
}

// No connection is left and the last one did not bring everything: try again after a wait,
// unless the transfer has got nowhere for too long.
void URLDownload::Private::attemptFailed(const Error& error, std::optional<double> retryAfter) {
    lastError = error;
    const double patienceLeft = timings.giveUpSeconds - secondsWithoutProgress();
    if (patienceLeft <= 0) {
        fail(error);
        return;
    }
    ++attempt;
    double wait = retryAfter
                      ? *retryAfter
                      : timings.waitBefore(attempt, QRandomGenerator::global()->generateDouble());
    wait = std::clamp(wait, 0.0, patienceLeft);
    stage = Stage::Waiting;
    readDelay.stop();
    if (networkDown(q->request_.url)) {
        networkChanged(true);
    } else {
        retryTimer.start(static_cast<int>(wait * 1000.0));
    }
    deliver(
        [](URLDownloadDelegate& d, URLDownload* download) { d.downloadWaitDidChange(download); });
}

void URLDownload::Private::retryNow() {
    if (stage != Stage::Waiting)
        return;
    if (networkDown(q->request_.url)) {
        if (waitingForNetwork)
            retryTimer.start(static_cast<int>(timings.longestWaitSeconds * 1000.0));
        else
            networkChanged(true);
        return;
    }
    if (waitingForNetwork)
        networkDownMs += networkDownSince.elapsed();
    retryTimer.stop();
    waitingForNetwork = false;
    // The connections failed one by one as the server went away, each lowering the limit: the
    // server that is back gets the full number again.
    connectionLimit = kMostConnections;
    stage = responseDelivered ? Stage::Receiving : Stage::AwaitingResponse;
    deliver(
        [](URLDownloadDelegate& d, URLDownload* download) { d.downloadWaitDidChange(download); });
    if (stage == Stage::AwaitingResponse) {
        const std::optional<std::pair<qint64, qint64>> gap = onDisk.firstGap(0, length);
        open(gap ? gap->first : 0, gap ? gap->second : -1);
    } else if (usesVideoTool) {
        downloadVideo();
    } else {
        takeMoreConnections();
    }
}

// While the network is down the wait costs no patience; once it is back the transfer tries at
// once. A look now and then does not rely on being told.
void URLDownload::Private::networkChanged(bool down) {
    if (stage != Stage::Waiting)
        return;
    if (down && !waitingForNetwork) {
        waitingForNetwork = true;
        networkDownSince.start();
        retryTimer.start(static_cast<int>(timings.longestWaitSeconds * 1000.0));
        deliver([](URLDownloadDelegate& d, URLDownload* download) {
            d.downloadWaitDidChange(download);
        });
    } else if (!down && waitingForNetwork) {
        retryNow();
    }
}

std::optional<URLDownload::Wait> URLDownload::waiting() const {
    if (d_->stage != Private::Stage::Waiting)
        return std::nullopt;
    Wait wait;
    wait.forNetwork = d_->waitingForNetwork;
    wait.secondsLeft =
        d_->waitingForNetwork ? 0.0 : std::max(0, d_->retryTimer.remainingTime()) / 1000.0;
    wait.reason = d_->lastError.localizedDescription;
    return wait;
}

void URLDownload::setRetryTimings(const RetryTimings& timings) {
    chosenRetryTimings() = timings;
}

}  // namespace foundation
