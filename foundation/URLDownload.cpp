// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/URLDownload.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QScopeGuard>
#include <QSet>
#include <QTimer>
#include <algorithm>
#include <cstdio>
#include <deque>

#include "foundation/PartialFiles.h"
#include "foundation/RunLoop.h"

namespace foundation {

const QString URLDownloadErrorDomain = QStringLiteral("URLDownloadErrorDomain");

namespace {

constexpr int kMaxRedirects = 16;
// The reply keeps at most this much unread; beyond it the server is made to wait.
constexpr qint64 kReadBufferBytes = 1024 * 1024;
// A read takes half a mebibyte, or after a tenth of a second whatever has come: few data events
// for a fast transfer, steady progress for a slow one.
constexpr qint64 kReadChunkBytes = 512 * 1024;
constexpr int kReadDelayMs = 100;
// A network access manager opens at most six connections to one host; transfers are spread
// over several, so that many files from one server really run side by side.
constexpr std::size_t kManagers = 8;

int gInFlight = 0;
// Transfers from their start until their last event or their cancel.
QSet<URLDownload*>& running() {
    static QSet<URLDownload*> set;
    return set;
}

struct Manager {
    QNetworkAccessManager* manager;
    int transfers = 0;
};

// A deque: the transfers hold pointers to its elements, which adding one must not move. Like
// the managers, it lasts as long as the process.
std::deque<Manager>& managers() {
    static auto* pool = new std::deque<Manager>();
    return *pool;
}

// The least busy manager, made on first need.
Manager& leastBusyManager() {
    auto& pool = managers();
    Manager* best = nullptr;
    for (Manager& m : pool) {
        if (!best || m.transfers < best->transfers)
            best = &m;
    }
    if ((!best || best->transfers > 0) && pool.size() < kManagers) {
        pool.push_back(Manager{new QNetworkAccessManager()});
        return pool.back();
    }
    return *best;
}

// The request's time-out as a QTimer interval; one that makes no sense is the usual minute.
int silenceMilliseconds(double seconds) {
    if (!(seconds > 0.0))
        return 60000;
    return static_cast<int>(std::min(seconds, 2e6) * 1000.0);
}

Error networkError(QNetworkReply* reply) {
    return Error(QStringLiteral("QNetworkReplyErrorDomain"), reply->error(), reply->errorString());
}

}  // namespace

struct URLDownload::Private {
    using Event = std::function<void(URLDownloadDelegate&, URLDownload*)>;
    enum class Stage { AwaitingResponse, AwaitingDestination, Receiving, Over };

    URLDownload* q;
    URLDownloadDelegate* delegate = nullptr;
    QPointer<QObject> delegateObject;  // set when the delegate is a QObject
    bool delegateIsObject = false;
    std::shared_ptr<URLDownload> self;  // alive from the start until the last event
    QObject guard;                      // queued events die with the download
    Manager* manager = nullptr;
    QPointer<QNetworkReply> reply;
    Stage stage = Stage::AwaitingResponse;
    bool replyFinished = false;
    bool lastEventQueued = false;
    bool cancelled = false;
    QString destination;
    bool allowOverwrite = false;
    QFile part;
    QTimer silence;    // the longest time without a byte
    QTimer readDelay;  // reads what a slow transfer has brought

    explicit Private(URLDownload* owner) : q(owner) {
        silence.setSingleShot(true);
        readDelay.setSingleShot(true);
        readDelay.setInterval(kReadDelayMs);
        QObject::connect(&silence, &QTimer::timeout, &guard, [this] { timedOut(); });
        QObject::connect(&readDelay, &QTimer::timeout, &guard, [this] { readAvailable(); });
    }
    ~Private() { dropReply(); }

    void send();
    void onMetaData();
    void onReadyRead();
    void onFinished();
    void destinationDecided();
    void readAvailable();
    void complete();
    void fail(const Error& error);
    void timedOut();
    void deliver(Event event, bool last = false);
    void dropReply();
    void removePart();
};

void URLDownload::Private::send() {
    QNetworkRequest request(q->request_.url);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setMaximumRedirectsAllowed(kMaxRedirects);
    // The bytes as the server sends them: no decompression on the way.
    request.setRawHeader("Accept-Encoding", "identity");
    manager = &leastBusyManager();
    ++manager->transfers;
    reply = manager->manager->get(request);
    reply->setReadBufferSize(kReadBufferBytes);
    QObject::connect(reply, &QNetworkReply::metaDataChanged, &guard, [this] { onMetaData(); });
    QObject::connect(reply, &QIODevice::readyRead, &guard, [this] { onReadyRead(); });
    QObject::connect(reply, &QNetworkReply::downloadProgress, &guard, [this] {
        if (stage != Stage::AwaitingDestination)
            silence.start();
    });
    QObject::connect(reply, &QNetworkReply::finished, &guard, [this] { onFinished(); });
    silence.start();
}

void URLDownload::Private::onMetaData() {
    if (stage != Stage::AwaitingResponse || !reply)
        return;
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!status.isValid())
        return;
    const int code = status.toInt();
    if ((code == 301 || code == 302 || code == 303 || code == 307 || code == 308) &&
        reply->hasRawHeader("Location")) {
        return;  // the manager follows it; the answer that counts comes later
    }
    if (code >= 400) {
        fail(Error(URLDownloadErrorDomain, code,
                   QStringLiteral("The server answered %1 (%2)")
                       .arg(code)
                       .arg(HTTPURLResponse::localizedStringForStatusCode(code))));
        return;
    }
    HTTPURLResponse response;
    response.url = reply->url();
    response.statusCode = code;
    response.headers = reply->rawHeaderPairs();
    const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
    response.expectedContentLength = length.isValid() ? length.toLongLong() : -1;
    const QString filename = response.suggestedFilename();
    stage = Stage::AwaitingDestination;
    silence.stop();  // nothing is read until the delegate answers, however long that takes
    deliver([response](URLDownloadDelegate& d, URLDownload* download) {
        d.downloadDidReceiveResponse(download, response);
    });
    deliver([this, filename](URLDownloadDelegate& d, URLDownload* download) {
        // Even a delegate that throws has decided: without a destination the transfer fails.
        const auto decided = qScopeGuard([this] { destinationDecided(); });
        d.downloadDecideDestinationWithSuggestedFilename(download, filename);
    });
}

void URLDownload::Private::onReadyRead() {
    if (stage != Stage::Receiving || !reply)
        return;
    if (reply->bytesAvailable() >= kReadChunkBytes) {
        readAvailable();
    } else if (!readDelay.isActive()) {
        readDelay.start();
    }
}

void URLDownload::Private::onFinished() {
    if (!reply)
        return;
    replyFinished = true;
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (stage == Stage::AwaitingResponse && status.isValid())
        onMetaData();
    if (stage == Stage::Over)
        return;
    if (reply->error() != QNetworkReply::NoError || stage == Stage::AwaitingResponse) {
        fail(networkError(reply));
        return;
    }
    if (stage == Stage::Receiving) {
        readAvailable();
        complete();
    }
    // Awaiting the destination: the rest is read once it is known.
}

void URLDownload::Private::destinationDecided() {
    if (stage != Stage::AwaitingDestination || cancelled)
        return;
    if (destination.isEmpty()) {
        fail(Error(URLDownloadErrorDomain, URLDownloadErrorNoDestination,
                   QStringLiteral("There is no destination for the file")));
        return;
    }
    // A name of our own beside the destination: transfers aiming at one path never share it.
    const QFileInfo target(destination);
    static int serial = 0;
    for (int attempt = 0; attempt < 100 && !part.isOpen(); ++attempt) {
        part.setFileName(target.dir().filePath(PartialFiles::nameFor(
            target.fileName(), QCoreApplication::applicationPid(), ++serial)));
        if (part.open(QIODevice::WriteOnly | QIODevice::NewOnly)) {
            PartialFiles::track(part.fileName());
            break;
        }
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
    stage = Stage::Receiving;
    silence.start();
    readAvailable();
    if (replyFinished && stage == Stage::Receiving)
        complete();
}

// One read: everything the reply holds now, written at once and announced as one data event.
void URLDownload::Private::readAvailable() {
    readDelay.stop();
    if (stage != Stage::Receiving || !reply)
        return;
    const QByteArray data = reply->readAll();
    if (data.isEmpty())
        return;
    if (part.write(data) != data.size()) {
        fail(Error(URLDownloadErrorDomain, URLDownloadErrorCannotWrite,
                   QStringLiteral("Cannot write %1: %2").arg(destination, part.errorString())));
        return;
    }
    silence.start();
    const quint64 length = static_cast<quint64>(data.size());
    deliver([length](URLDownloadDelegate& d, URLDownload* download) {
        d.downloadDidReceiveDataOfLength(download, length);
    });
}

void URLDownload::Private::complete() {
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
    stage = Stage::Over;
    silence.stop();
    dropReply();
    deliver([](URLDownloadDelegate& d, URLDownload* download) { d.downloadDidFinish(download); },
            true);
}

void URLDownload::Private::fail(const Error& error) {
    stage = Stage::Over;
    silence.stop();
    readDelay.stop();
    dropReply();
    removePart();
    deliver([error](URLDownloadDelegate& d,
                    URLDownload* download) { d.downloadDidFailWithError(download, error); },
            true);
}

void URLDownload::Private::timedOut() {
    if (stage == Stage::Over || stage == Stage::AwaitingDestination)
        return;
    fail(Error(QStringLiteral("QNetworkReplyErrorDomain"), QNetworkReply::TimeoutError,
               QStringLiteral("No data received for %1 seconds").arg(silence.interval() / 1000.0)));
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

void URLDownload::Private::dropReply() {
    if (manager) {
        --manager->transfers;
        manager = nullptr;
    }
    if (!reply)
        return;
    QNetworkReply* r = reply;
    reply = nullptr;
    QObject::disconnect(r, nullptr, &guard, nullptr);
    // Not from inside one of the reply's own signals, which may be running now.
    QMetaObject::invokeMethod(
        r,
        [r] {
            if (r->isRunning())
                r->abort();
            r->deleteLater();
        },
        Qt::QueuedConnection);
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

void URLDownload::startTransfer(const URLRequest& request, URLDownloadDelegate* delegate) {
    request_ = request;
    d_->delegate = delegate;
    d_->delegateObject = dynamic_cast<QObject*>(delegate);
    d_->delegateIsObject = d_->delegateObject != nullptr;
    d_->self = shared_from_this();
    d_->silence.setInterval(silenceMilliseconds(request.timeoutInterval));
    ++gInFlight;
    running().insert(this);
    const QString scheme = request.url.scheme().toLower();
    if (!request.url.isValid() || request.url.host().isEmpty() ||
        (scheme != QLatin1String("http") && scheme != QLatin1String("https"))) {
        d_->fail(Error(URLDownloadErrorDomain, URLDownloadErrorUnsupportedURL,
                       QStringLiteral("unsupported URL")));
        return;
    }
    d_->deliver(
        [](URLDownloadDelegate& d, URLDownload* download) { d.downloadDidBegin(download); });
    d_->send();
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
    d_->stage = Private::Stage::Over;
    d_->silence.stop();
    d_->readDelay.stop();
    d_->dropReply();
    d_->removePart();
    --gInFlight;
    running().remove(this);
    std::shared_ptr<URLDownload> keep = std::move(d_->self);
}

void URLDownload::cancelAll() {
    const QSet<URLDownload*> all = running();
    for (URLDownload* download : all)
        download->cancel();
}

int URLDownload::inFlightCount() {
    return gInFlight;
}

}  // namespace foundation
