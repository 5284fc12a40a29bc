// SPDX-License-Identifier: GPL-3.0-or-later
// The connections of a transfer: each asks for the whole body or for one range of it, checks that
// the answer is what it asked for, and writes what it reads at its place in the partial file.
#include <QHash>
#include <QNetworkAccessManager>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <algorithm>
#include <deque>

#include "foundation/URLDownloadPrivate.h"

namespace foundation {

namespace {

constexpr int kMaxRedirects = 16;
// A reply keeps at most this much unread; beyond it the server is made to wait. Eight connections
// of a transfer at loopback speed hold eight of these, so it is kept small enough for memory to
// stay flat.
constexpr qint64 kReadBufferBytes = 256 * 1024;
// A read takes half of that, before the buffer is full, or after a tenth of a second whatever has
// come: few data events for a fast transfer, steady progress for a slow one.
constexpr qint64 kReadChunkBytes = 128 * 1024;
constexpr int kReadDelayMs = 100;
// A network access manager opens at most six connections to one host; connections are spread
// over several, so that many really run side by side.
constexpr std::size_t kManagers = 8;
// Once the body flows, a connection silent this long is taken for dead and made again.
constexpr int kLongestStallMs = 30000;

struct Manager {
    QNetworkAccessManager* manager;
    int connections = 0;
};

// A deque: connections point at its elements, which adding one must not move. Like the
// managers, it lasts as long as the process.
std::deque<Manager>& managers() {
    static auto* pool = new std::deque<Manager>();
    return *pool;
}

Manager& leastBusyManager() {
    auto& pool = managers();
    Manager* best = nullptr;
    for (Manager& m : pool) {
        if (!best || m.connections < best->connections)
            best = &m;
    }
    if ((!best || best->connections > 0) && pool.size() < kManagers) {
        pool.push_back(Manager{new QNetworkAccessManager()});
        return pool.back();
    }
    return *best;
}

Manager* managerOf(const QNetworkAccessManager* manager) {
    for (Manager& m : managers()) {
        if (m.manager == manager)
            return &m;
    }
    return nullptr;
}

QHash<QString, int>& hostLoad() {
    static QHash<QString, int> load;
    return load;
}

Error transportError(QNetworkReply::NetworkError code, const QString& description) {
    return Error(QStringLiteral("QNetworkReplyErrorDomain"), code, description);
}

Error networkError(QNetworkReply* reply) {
    return transportError(reply->error(), reply->errorString());
}

// Errors that no later attempt mends: what was asked makes no sense, or the server is not the
// one it claims to be.
bool isLastingError(QNetworkReply::NetworkError error) {
    switch (error) {
        case QNetworkReply::SslHandshakeFailedError:
        case QNetworkReply::TooManyRedirectsError:
        case QNetworkReply::InsecureRedirectError:
        case QNetworkReply::ProtocolUnknownError:
        case QNetworkReply::ProtocolInvalidOperationError:
            return true;
        default:
            return false;
    }
}

struct ContentRange {
    qint64 first = -1;
    qint64 last = -1;
    qint64 total = -1;  // -1 when the server wrote "*"
};

std::optional<ContentRange> parseContentRange(const QByteArray& value) {
    static const QRegularExpression form(
        QStringLiteral("^\\s*bytes\\s+([0-9]+)-([0-9]+)/([0-9]+|\\*)\\s*$"));
    const QRegularExpressionMatch match = form.match(QString::fromLatin1(value));
    if (!match.hasMatch())
        return std::nullopt;
    ContentRange range;
    range.first = match.captured(1).toLongLong();
    range.last = match.captured(2).toLongLong();
    if (match.captured(3) != QLatin1String("*"))
        range.total = match.captured(3).toLongLong();
    if (range.last < range.first || (range.total >= 0 && range.last >= range.total))
        return std::nullopt;
    return range;
}

// What names the file as it is now for If-Range: a strong ETag, else the Last-Modified date.
QByteArray validatorOf(const QNetworkReply* reply) {
    const QByteArray etag = reply->rawHeader("ETag").trimmed();
    if (!etag.isEmpty() && !etag.startsWith("W/"))
        return etag;
    return reply->rawHeader("Last-Modified").trimmed();
}

}  // namespace

int connectionsTo(const QString& host) {
    return hostLoad().value(host);
}

qint64 URLDownload::Private::endOf(const DownloadConnection* c) const {
    return c->end >= 0 ? c->end : length;
}

DownloadConnection* URLDownload::Private::open(qint64 offset, qint64 end) {
    auto owned = std::make_unique<DownloadConnection>();
    DownloadConnection* c = owned.get();
    const QUrl url = resolvedUrl.isValid() ? resolvedUrl : q->request_.url;
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setMaximumRedirectsAllowed(kMaxRedirects);
    // The bytes as the server keeps them: no decompression on the way, so that ranges count
    // the same bytes on both sides.
    request.setRawHeader("Accept-Encoding", "identity");
    for (const auto& [name, value] : q->request_.headers)
        request.setRawHeader(name, value);
    c->offset = offset;
    c->end = end;
    c->ranged = offset > 0 || (end >= 0 && end != length);
    if (c->ranged) {
        QByteArray range = "bytes=" + QByteArray::number(offset) + '-';
        if (end >= 0 && end != length) {
            range += QByteArray::number(end - 1);
            c->askedEnd = end;
        }
        request.setRawHeader("Range", range);
        if (!validator.isEmpty())
            request.setRawHeader("If-Range", validator);
    }
    Manager& manager = leastBusyManager();
    ++manager.connections;
    c->manager = manager.manager;
    // A server is a host and a port: two servers on one machine each get their own share.
    c->host = url.host() + QLatin1Char(':') +
              QString::number(url.port(url.scheme() == QLatin1String("https") ? 443 : 80));
    ++hostLoad()[c->host];
    c->reply = manager.manager->get(request);
    c->reply->setReadBufferSize(kReadBufferBytes);
    QObject::connect(c->reply, &QNetworkReply::metaDataChanged, &guard,
                     [this, c] { onMetaData(c); });
    QObject::connect(c->reply, &QIODevice::readyRead, &guard, [this, c] {
        if (stage != Stage::Receiving || !c->answered)
            return;
        if (c->reply->bytesAvailable() >= kReadChunkBytes) {
            read(c);
            afterRead();
        } else if (!readDelay.isActive()) {
            readDelay.start(kReadDelayMs);
        }
    });
    QObject::connect(c->reply, &QNetworkReply::downloadProgress, &guard, [this, c] {
        if (stage != Stage::AwaitingDestination)
            c->silence.start();
    });
    QObject::connect(c->reply, &QNetworkReply::finished, &guard, [this, c] { onFinished(c); });
    c->silence.setSingleShot(true);
    c->silence.setInterval(silenceMs);
    QObject::connect(&c->silence, &QTimer::timeout, &guard, [this, c] {
        connectionFailed(c,
                         transportError(QNetworkReply::TimeoutError,
                                        QStringLiteral("No data received for %1 seconds")
                                            .arg(c->silence.interval() / 1000.0)),
                         std::nullopt);
    });
    c->silence.start();
    connections.push_back(std::move(owned));
    return c;
}

std::vector<DownloadConnection*> URLDownload::Private::openConnections() const {
    std::vector<DownloadConnection*> open;
    for (const auto& c : connections)
        open.push_back(c.get());
    return open;
}

bool URLDownload::Private::isOpen(const DownloadConnection* c) const {
    return std::any_of(connections.begin(), connections.end(),
                       [c](const auto& open) { return open.get() == c; });
}

void URLDownload::Private::onMetaData(DownloadConnection* c) {
    if (c->answered || !c->reply || stage == Stage::Over)
        return;
    QNetworkReply* reply = c->reply;
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!status.isValid())
        return;
    const int code = status.toInt();
    if ((code == 301 || code == 302 || code == 303 || code == 307 || code == 308) &&
        reply->hasRawHeader("Location")) {
        return;  // the manager follows it; the answer that counts comes later
    }
    if (code >= 400) {
        const Error error(URLDownloadErrorDomain, code,
                          QStringLiteral("The server answered %1 (%2)")
                              .arg(code)
                              .arg(HTTPURLResponse::localizedStringForStatusCode(code)));
        if (code == 416 && c->ranged) {
            // The file is shorter than what is on disk: it changed, so it is fetched anew.
            close(c);
            startOver(nullptr);
        } else if (isTransientStatus(code) || (responseDelivered && code >= 500)) {
            connectionFailed(c, error,
                             retryAfterSeconds(reply->rawHeader("Retry-After"),
                                               QDateTime::currentDateTimeUtc()));
        } else {
            fail(error);
        }
        return;
    }
    const QVariant contentLength = reply->header(QNetworkRequest::ContentLengthHeader);
    const QByteArray answerValidator = validatorOf(reply);
    if (c->ranged && code == 206) {
        const std::optional<ContentRange> range =
            parseContentRange(reply->rawHeader("Content-Range"));
        // Its end may have moved closer since it asked (another took over the rest): the answer
        // is measured against the question.
        const qint64 asked = c->askedEnd >= 0 ? c->askedEnd : length;
        if (!range || range->first != c->offset || (asked >= 0 && range->last >= asked) ||
            (length >= 0 && range->total >= 0 && range->total != length) ||
            (length < 0 && range->total < 0)) {
            useOneConnection();
            return;
        }
        if (length < 0)
            length = range->total;
        if (c->end < 0 || range->last + 1 < c->end)
            c->end = range->last + 1;
    } else if (c->ranged && reply->hasRawHeader("Content-Range")) {
        useOneConnection();  // a part of the file that says it is the whole
        return;
    } else if (c->ranged) {
        // The whole file from its first byte: either the server ignores ranges, or the file is
        // not the one the bytes on disk came from. Both ways this answer starts it over.
        if (answerValidator == validator)
            rangesBroken = true;
        validator = answerValidator;
        length = contentLength.isValid() ? contentLength.toLongLong() : -1;
        startOver(c);
    } else {
        length = contentLength.isValid() ? contentLength.toLongLong() : -1;
        validator = answerValidator;
    }
    if (!responseDelivered && handsOverToVideoTool(c)) {
        handOverToVideoTool();
        return;
    }
    c->answered = true;
    c->silence.setInterval(std::min(silenceMs, kLongestStallMs));
    if (!responseDelivered) {
        resolvedUrl = reply->url();
        acceptsRanges = code == 206 || reply->rawHeader("Accept-Ranges").contains("bytes");
        HTTPURLResponse response;
        response.url = reply->url();
        response.statusCode = code;
        response.headers = reply->rawHeaderPairs();
        response.expectedContentLength = length;
        responseArrived(response);
    }
}

void URLDownload::Private::onFinished(DownloadConnection* c) {
    if (!c->reply || stage == Stage::Over)
        return;
    c->finished = true;
    if (!c->answered)
        onMetaData(c);
    if (!isOpen(c) || stage == Stage::Over || stage == Stage::AwaitingDestination)
        return;  // awaiting the destination: what it brought is read once that is known
    settle(c);
}

// A connection whose reply is over: what it still holds is read, then it either brought all it
// was to bring or it failed.
void URLDownload::Private::settle(DownloadConnection* c) {
    if (!c->answered) {
        const QNetworkReply::NetworkError code = c->reply->error();
        const Error error = networkError(c->reply);
        if (isLastingError(code))
            fail(error);
        else
            connectionFailed(c, error, std::nullopt);
        return;
    }
    while (isOpen(c) && read(c)) {
    }
    afterRead();
    if (!isOpen(c) || stage != Stage::Receiving)
        return;
    const qint64 end = endOf(c);
    if (c->reply->error() != QNetworkReply::NoError) {
        connectionFailed(c, networkError(c->reply), std::nullopt);
    } else if (end >= 0 && c->offset < end) {
        connectionFailed(
            c,
            transportError(QNetworkReply::RemoteHostClosedError,
                           QStringLiteral("The connection closed before the end of the file")),
            std::nullopt);
    } else {
        connectionDone(c);
    }
}

// One read of a connection: what it holds, up to the end of its range, written at its place.
// Answers whether it read anything.
bool URLDownload::Private::read(DownloadConnection* c) {
    if (!c->reply || !c->answered || stage != Stage::Receiving)
        return false;
    qint64 want = c->reply->bytesAvailable();
    const qint64 end = endOf(c);
    if (end >= 0)
        want = std::min(want, end - c->offset);
    if (want <= 0)
        return false;
    const QByteArray data = c->reply->read(want);
    if (data.isEmpty())
        return false;
    if (!writeAt(c->offset, data)) {
        fail(Error(URLDownloadErrorDomain, URLDownloadErrorCannotWrite,
                   QStringLiteral("Cannot write %1: %2").arg(destination, part.errorString())));
        return false;
    }
    onDisk.add(c->offset, c->offset + data.size());
    c->offset += data.size();
    madeProgress();
    c->silence.start();
    // Its range is done while the server may still be sending: the rest is another's.
    if (end >= 0 && c->offset >= end && !c->finished) {
        connectionDone(c);
        return false;
    }
    return true;
}

void URLDownload::Private::readAll() {
    readDelay.stop();
    for (DownloadConnection* c : openConnections()) {
        if (isOpen(c))
            read(c);
    }
    afterRead();
}

bool URLDownload::Private::writeAt(qint64 offset, const QByteArray& data) {
    if (part.pos() != offset && !part.seek(offset))
        return false;
    return part.write(data) == data.size();
}

void URLDownload::Private::close(DownloadConnection* c) {
    const auto it = std::find_if(connections.begin(), connections.end(),
                                 [c](const auto& open) { return open.get() == c; });
    if (it == connections.end())
        return;
    std::unique_ptr<DownloadConnection> owned = std::move(*it);
    connections.erase(it);
    c->silence.stop();
    QObject::disconnect(&c->silence, nullptr, &guard, nullptr);
    if (Manager* m = managerOf(c->manager))
        --m->connections;
    if (--hostLoad()[c->host] <= 0)
        hostLoad().remove(c->host);
    if (QNetworkReply* r = c->reply) {
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
    // Its timer may be the one whose signal runs now: it goes once that is over, or with the
    // transfer.
    closed.push_back(std::move(owned));
    if (closed.size() == 1) {
        QMetaObject::invokeMethod(
            &guard, [this] { closed.clear(); }, Qt::QueuedConnection);
    }
}

void URLDownload::Private::closeAll() {
    while (!connections.empty())
        close(connections.back().get());
}

}  // namespace foundation
