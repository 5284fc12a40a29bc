// SPDX-License-Identifier: GPL-3.0-or-later
// A transfer as its delegate sees it: one begin, one response, one destination, data, and one
// end, however many attempts and connections it took underneath. Also the waits between
// attempts, and the journal that lets a later process go on with it.
#include "foundation/URLDownload.h"

#include <unistd.h>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QHostAddress>
#include <QNetworkInformation>
#include <QRandomGenerator>
#include <QScopeGuard>
#include <QSet>
#include <QThreadPool>
#include <cstdio>

#include "foundation/PartialFiles.h"
#include "foundation/RunLoop.h"
#include "foundation/URLDownloadPrivate.h"

namespace foundation {

const QString URLDownloadErrorDomain = QStringLiteral("URLDownloadErrorDomain");

namespace {

int gInFlight = 0;
// Transfers from their start until their last event or their cancel.
QSet<URLDownload*>& running() {
    static QSet<URLDownload*> set;
    return set;
}

std::optional<RetryTimings>& chosenTimings() {
    static std::optional<RetryTimings> timings;
    return timings;
}

// The journal's progress is written after this much progress or this long, whichever comes
// first; the partial file is synced at most this often.
constexpr qint64 kJournalEveryBytes = 4 * 1024 * 1024;
constexpr int kJournalEveryMs = 500;
constexpr int kSyncEveryMs = 2000;

// The request's time-out as a QTimer interval; one that makes no sense is the usual minute.
int silenceMilliseconds(double seconds) {
    if (!(seconds > 0.0))
        return 60000;
    return static_cast<int>(std::min(seconds, 2e6) * 1000.0);
}

}  // namespace

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
                             for (URLDownload* download : running())
                                 download->d_->networkChanged(down);
                         });
        return info;
    }();
    return information &&
           information->reachability() == QNetworkInformation::Reachability::Disconnected;
}

URLDownload::Private::Private(URLDownload* owner) : q(owner) {
    readDelay.setSingleShot(true);
    retryTimer.setSingleShot(true);
    QObject::connect(&readDelay, &QTimer::timeout, &guard, [this] { readAll(); });
    QObject::connect(&retryTimer, &QTimer::timeout, &guard, [this] { retryNow(); });
    timings = chosenTimings().value_or(RetryTimings::standard());
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
    forgetJournal();
    deliver([error](URLDownloadDelegate& d,
                    URLDownload* download) { d.downloadDidFailWithError(download, error); },
            true);
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
        networkChanged(true);
        return;
    }
    retryTimer.stop();
    waitingForNetwork = false;
    stage = responseDelivered ? Stage::Receiving : Stage::AwaitingResponse;
    deliver(
        [](URLDownloadDelegate& d, URLDownload* download) { d.downloadWaitDidChange(download); });
    if (stage == Stage::AwaitingResponse) {
        const std::optional<std::pair<qint64, qint64>> gap = onDisk.firstGap(0, length);
        open(gap ? gap->first : 0, gap ? gap->second : -1);
    } else {
        takeMoreConnections();
    }
}

// While the network is down the wait has no end and costs no patience; once it is back the
// transfer tries at once.
void URLDownload::Private::networkChanged(bool down) {
    if (stage != Stage::Waiting)
        return;
    if (down && !waitingForNetwork) {
        waitingForNetwork = true;
        networkDownSince.start();
        retryTimer.stop();
        deliver([](URLDownloadDelegate& d, URLDownload* download) {
            d.downloadWaitDidChange(download);
        });
    } else if (!down && waitingForNetwork) {
        networkDownMs += networkDownSince.elapsed();
        waitingForNetwork = false;
        retryNow();
    }
}

// Writes what the next process needs: often enough that a process killed at any moment leaves
// little to fetch twice. Bytes count as being on the disk itself only once the partial file is
// synced, which another thread does every few seconds; until then they survive the process but
// not the machine, and the journal tells the two apart.
void URLDownload::Private::journal(bool now) {
    DownloadJournal* journal = DownloadJournal::shared();
    if (!journalId || !journal)
        return;
    const qint64 total = onDisk.total();
    if (!now && sinceJournal.isValid() &&
        (total == journaledBytes || (total - journaledBytes < kJournalEveryBytes &&
                                     sinceJournal.elapsed() < kJournalEveryMs))) {
        return;
    }
    sinceJournal.start();
    journaledBytes = total;
    DownloadJournal::Entry entry;
    entry.id = journalId;
    entry.url = q->request_.url;
    entry.timeoutInterval = q->request_.timeoutInterval;
    entry.destination = destination;
    entry.allowOverwrite = allowOverwrite;
    entry.part = part.fileName();
    entry.validator = validator;
    entry.length = length;
    entry.onDisk = onDisk;
    entry.rangesBroken = rangesBroken;
    if (part.isOpen())
        part.flush();
    journal->update(entry);
    if (part.isOpen() && !syncing && (!sinceSync.isValid() || sinceSync.elapsed() >= kSyncEveryMs))
        syncInBackground();
}

void URLDownload::Private::syncInBackground() {
    const int fd = ::dup(part.handle());
    if (fd < 0)
        return;
    syncing = true;
    sinceSync.start();
    QThreadPool::globalInstance()->start(
        [this, fd, ranges = onDisk, alive = std::weak_ptr<int>(lifetime)] {
            const bool synced = ::fdatasync(fd) == 0;
            ::close(fd);
            QMetaObject::invokeMethod(
                QCoreApplication::instance(),
                [this, synced, ranges, alive] {
                    if (alive.expired())
                        return;
                    syncing = false;
                    if (synced && journalId && DownloadJournal::shared())
                        DownloadJournal::shared()->recordSynced(journalId, ranges);
                },
                Qt::QueuedConnection);
        });
}

// At once and on the disk itself: the process is about to end.
void URLDownload::Private::journalAndSync() {
    journal(true);
    if (part.isOpen() && ::fdatasync(part.handle()) == 0 && journalId && DownloadJournal::shared())
        DownloadJournal::shared()->recordSynced(journalId, onDisk);
}

void URLDownload::Private::forgetJournal() {
    if (journalId && DownloadJournal::shared())
        DownloadJournal::shared()->remove(journalId);
    journalId = 0;
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
                running().remove(q);
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
    running().remove(this);
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
    running().insert(this);
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

void URLDownload::resumeTransfer(const DownloadJournal::Entry& entry,
                                 URLDownloadDelegate* delegate) {
    d_->journalId = entry.id;
    URLRequest request;
    request.url = entry.url;
    request.timeoutInterval = entry.timeoutInterval;
    if (!adopt(request, delegate))
        return;
    d_->journaledPart = entry.part;
    d_->validator = entry.validator;
    d_->length = entry.length;
    d_->onDisk = entry.part.isEmpty() ? ByteRanges() : entry.onDisk;
    d_->rangesBroken = entry.rangesBroken;
    if (d_->rangesBroken || d_->validator.isEmpty())
        d_->onDisk.clear();
    // A file that was whole but not yet in place: its last byte is asked for again, so that the
    // server's answer gives the response and the name as for any other.
    if (d_->length > 0 && d_->onDisk.covers(d_->length)) {
        d_->onDisk.clear();
        d_->onDisk.add(0, d_->length - 1);
    }
    d_->begin();
}

void URLDownload::setDestination(const QString& path, bool allowOverwrite) {
    d_->destination = path;
    d_->allowOverwrite = allowOverwrite;
}

QString URLDownload::destination() const {
    return d_->destination;
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

void URLDownload::cancel() {
    if (d_->cancelled || !d_->self)
        return;
    d_->cancelled = true;
    d_->stopEverything();
    d_->removePart();
    d_->forgetJournal();
    --gInFlight;
    running().remove(this);
    std::shared_ptr<URLDownload> keep = std::move(d_->self);
}

// Like cancel, but what the journal keeps stays for the next process.
void URLDownload::suspend() {
    if (d_->cancelled || !d_->self)
        return;
    if (!d_->journalId || !DownloadJournal::shared()) {
        cancel();
        return;
    }
    d_->stage = Private::Stage::Over;
    d_->retryTimer.stop();
    d_->readDelay.stop();
    d_->closeAll();
    d_->journalAndSync();
    if (d_->part.isOpen())
        d_->part.close();
    d_->part.setFileName(QString());  // kept
    d_->cancelled = true;
    --gInFlight;
    running().remove(this);
    std::shared_ptr<URLDownload> keep = std::move(d_->self);
}

void URLDownload::cancelAll() {
    const QSet<URLDownload*> all = running();
    for (URLDownload* download : all)
        download->cancel();
}

void URLDownload::suspendAll() {
    const QSet<URLDownload*> all = running();
    for (URLDownload* download : all)
        download->suspend();
}

void URLDownload::setRetryTimings(const RetryTimings& timings) {
    chosenTimings() = timings;
}

int URLDownload::inFlightCount() {
    return gInFlight;
}

}  // namespace foundation
