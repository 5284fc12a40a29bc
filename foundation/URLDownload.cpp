// SPDX-License-Identifier: GPL-3.0-or-later
// A transfer as its delegate sees it: one begin, one response, one destination, data, and one
// end, however many attempts and connections it took underneath.
#include "foundation/URLDownload.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QScopeGuard>
#include <algorithm>
#include <cstdio>

#include "foundation/PartialFiles.h"
#include "foundation/RunLoop.h"
#include "foundation/URLDownloadPrivate.h"

namespace foundation {

const QString URLDownloadErrorDomain = QStringLiteral("URLDownloadErrorDomain");

namespace {

int gInFlight = 0;

// The request's time-out as a QTimer interval; one that makes no sense is the usual minute.
int silenceMilliseconds(double seconds) {
    if (!(seconds > 0.0))
        return 60000;
    return static_cast<int>(std::min(seconds, 2e6) * 1000.0);
}

}  // namespace

QSet<URLDownload*>& runningDownloads() {
    static QSet<URLDownload*> set;
    return set;
}

int& downloadsInFlight() {
    return gInFlight;
}

URLDownload::Private::Private(URLDownload* owner) : q(owner) {
    readDelay.setSingleShot(true);
    retryTimer.setSingleShot(true);
    QObject::connect(&readDelay, &QTimer::timeout, &guard, [this] { readAll(); });
    QObject::connect(&retryTimer, &QTimer::timeout, &guard, [this] { retryNow(); });
    timings = chosenRetryTimings().value_or(RetryTimings::standard());
    sinceProgress.start();
}

URLDownload::Private::~Private() {
    closeAll();
}

void URLDownload::Private::begin() {
    deliver([](URLDownloadDelegate& d, URLDownload* download) { d.downloadDidBegin(download); });
    const std::optional<std::pair<qint64, qint64>> gap = onDisk.firstGap(0, length);
    open(gap ? gap->first : 0, gap ? gap->second : -1);
}

void URLDownload::Private::responseArrived(const HTTPURLResponse& response) {
    responseDelivered = true;
    stage = Stage::AwaitingDestination;
    // Nothing is read until the delegate answers, however long that takes.
    for (const auto& c : connections)
        c->silence.stop();
    const QString filename = response.suggestedFilename();
    deliver([response](URLDownloadDelegate& d, URLDownload* download) {
        d.downloadDidReceiveResponse(download, response);
    });
    deliver([this, filename](URLDownloadDelegate& d, URLDownload* download) {
        // Even a delegate that throws has decided: without a destination the transfer fails.
        const auto decided = qScopeGuard([this] { destinationDecided(); });
        d.downloadDecideDestinationWithSuggestedFilename(download, filename);
    });
}

void URLDownload::Private::destinationDecided() {
    if (stage != Stage::AwaitingDestination || cancelled)
        return;
    if (destination.isEmpty()) {
        fail(Error(URLDownloadErrorDomain, URLDownloadErrorNoDestination,
                   QStringLiteral("There is no destination for the file")));
        return;
    }
    if (usesVideoTool) {
        journal(true);
        downloadVideo();
        return;
    }
    const QFileInfo target(destination);
    // A transfer taken up from the journal goes on in its partial file while that is where the
    // destination now is; else what it had is of no use.
    if (!journaledPart.isEmpty()) {
        const QFileInfo earlier(journaledPart);
        part.setFileName(journaledPart);
        if (earlier.absoluteDir() != target.absoluteDir() || !earlier.isFile() ||
            earlier.size() < onDisk.extent() || !part.open(QIODevice::ReadWrite)) {
            part.setFileName(QString());
            QFile::remove(journaledPart);
            onDisk.clear();
        } else if (onDisk.total() == 0) {
            part.resize(0);
        }
        journaledPart.clear();
    }
    // A name of our own beside the destination: transfers aiming at one path never share it.
    static int serial = 0;
    for (int attempt = 0; attempt < 100 && !part.isOpen(); ++attempt) {
        part.setFileName(target.dir().filePath(PartialFiles::nameFor(
            target.fileName(), QCoreApplication::applicationPid(), ++serial)));
        if (part.open(QIODevice::ReadWrite | QIODevice::NewOnly))
            break;
        const bool taken = target.dir().exists() && QFileInfo::exists(part.fileName());
        part.setFileName(QString());  // not ours: never to be removed
        if (!taken)
            break;
    }
    if (!part.isOpen()) {
        fail(Error(URLDownloadErrorDomain, URLDownloadErrorCannotWrite,
                   QStringLiteral("Cannot write to the folder %1").arg(target.dir().path())));
        return;
    }
    // Only a transfer that no journal keeps loses its partial file when the process ends.
    if (!journalId)
        PartialFiles::track(part.fileName());
    stage = Stage::Receiving;
    journal(true);
    // The first connection asked for what the journal said was missing: when that is gone, the
    // file starts over.
    if (onDisk.total() == 0 && !connections.empty() && connections.front()->offset > 0)
        startOver(nullptr);
    for (DownloadConnection* c : openConnections())
        c->silence.start();
    for (DownloadConnection* c : openConnections()) {
        if (!isOpen(c))
            continue;
        if (c->finished)
            settle(c);
        else
            read(c);
    }
    afterRead();
    takeMoreConnections();
}

// Tells the delegate of the bytes that are new on disk; a file that started over says nothing
// until it is past what was told before, so the delegate's count only grows.
void URLDownload::Private::afterRead() {
    if (stage != Stage::Receiving)
        return;
    announce();
    journal(false);
    if (length >= 0 && onDisk.covers(length))
        complete();
}

void URLDownload::Private::announce() {
    const qint64 total = onDisk.total();
    if (total <= reported)
        return;
    const auto length = static_cast<quint64>(total - reported);
    reported = total;
    deliver([length](URLDownloadDelegate& d, URLDownload* download) {
        d.downloadDidReceiveDataOfLength(download, length);
    });
}

void URLDownload::Private::complete() {
    if (stage == Stage::Over)
        return;
    announce();
    closeAll();
    if (length >= 0 && part.size() > length)
        part.resize(length);
    if (!part.flush()) {
        fail(Error(URLDownloadErrorDomain, URLDownloadErrorCannotWrite,
                   QStringLiteral("Cannot write %1: %2").arg(destination, part.errorString())));
        return;
    }
    part.close();
    if (!allowOverwrite && QFileInfo::exists(destination)) {
        fail(Error(URLDownloadErrorDomain, URLDownloadErrorDestinationExists,
                   QStringLiteral("A file already exists at %1").arg(destination)));
        return;
    }
    // Replaces a file of that name in one step: no moment without a whole file there.
    if (std::rename(QFile::encodeName(part.fileName()).constData(),
                    QFile::encodeName(destination).constData()) != 0) {
        fail(Error(URLDownloadErrorDomain, URLDownloadErrorCannotWrite,
                   QStringLiteral("Cannot write %1").arg(destination)));
        return;
    }
    PartialFiles::untrack(part.fileName());
    part.setFileName(QString());
    forgetJournal();
    stopEverything();
    deliver([](URLDownloadDelegate& d, URLDownload* download) { d.downloadDidFinish(download); },
            true);
}

void URLDownload::Private::fail(const Error& error) {
    stopEverything();
    removePart();
    removeVideoWork();
    forgetJournal();
    deliver([error](URLDownloadDelegate& d,
                    URLDownload* download) { d.downloadDidFailWithError(download, error); },
            true);
}

void URLDownload::Private::deliver(Event event, bool last) {
    if (lastEventQueued)
        return;
    lastEventQueued = last;
    RunLoop::main().performInDefaultMode(
        [this, event = std::move(event), last] {
            if (cancelled)
                return;
            std::shared_ptr<URLDownload> keep = self;
            if (last) {
                --gInFlight;
                runningDownloads().remove(q);
                self.reset();
            }
            if (delegateIsObject && !delegateObject) {
                q->cancel();  // nobody listens any more
                return;
            }
            event(*delegate, q);
        },
        &guard);
}

void URLDownload::Private::stopEverything() {
    stage = Stage::Over;
    retryTimer.stop();
    readDelay.stop();
    closeAll();
    dropVideoRun();
}

void URLDownload::Private::removePart() {
    if (part.fileName().isEmpty())
        return;
    part.close();
    part.remove();
    PartialFiles::untrack(part.fileName());
    part.setFileName(QString());
}

URLDownload::URLDownload() : d_(std::make_unique<Private>(this)) {}

URLDownload::~URLDownload() {
    runningDownloads().remove(this);
    d_->removePart();
}

// Checks the link, then begins; a link that cannot be fetched fails alone.
bool URLDownload::adopt(const URLRequest& request, URLDownloadDelegate* delegate) {
    request_ = request;
    d_->delegate = delegate;
    d_->delegateObject = dynamic_cast<QObject*>(delegate);
    d_->delegateIsObject = d_->delegateObject != nullptr;
    d_->self = shared_from_this();
    d_->silenceMs = silenceMilliseconds(request.timeoutInterval);
    ++gInFlight;
    runningDownloads().insert(this);
    const QString scheme = request.url.scheme().toLower();
    if (!request.url.isValid() || request.url.host().isEmpty() ||
        (scheme != QLatin1String("http") && scheme != QLatin1String("https"))) {
        d_->forgetJournal();
        d_->fail(Error(URLDownloadErrorDomain, URLDownloadErrorUnsupportedURL,
                       QStringLiteral("unsupported URL")));
        return false;
    }
    return true;
}

void URLDownload::startTransfer(const URLRequest& request, URLDownloadDelegate* delegate) {
    if (!adopt(request, delegate))
        return;
    // Before the caller goes on (a check stores its note next): from here a crash loses nothing.
    if (DownloadJournal* journal = DownloadJournal::shared())
        d_->journalId = journal->add(request.url, request.timeoutInterval);
    d_->begin();
}

void URLDownload::setDestination(const QString& path, bool allowOverwrite) {
    d_->destination = path;
    d_->allowOverwrite = allowOverwrite;
}

QString URLDownload::destination() const {
    return d_->destination;
}

void URLDownload::cancel() {
    if (d_->cancelled || !d_->self)
        return;
    d_->cancelled = true;
    d_->stopEverything();
    d_->removePart();
    d_->removeVideoWork();
    d_->forgetJournal();
    --gInFlight;
    runningDownloads().remove(this);
    std::shared_ptr<URLDownload> keep = std::move(d_->self);
}

void URLDownload::cancelAll() {
    const QSet<URLDownload*> all = runningDownloads();
    for (URLDownload* download : all)
        download->cancel();
}

int URLDownload::inFlightCount() {
    return gInFlight;
}

}  // namespace foundation
