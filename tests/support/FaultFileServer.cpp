// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/support/FaultFileServer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QDateTime>
#include <QUrl>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <optional>

#include "tests/support/HttpMessages.h"
#include "tests/support/Wait.h"

namespace testsupport {

namespace {

using Clock = std::chrono::steady_clock;

QString normalised(const QString& path) {
    return path.startsWith(QLatin1Char('/')) ? path : QLatin1Char('/') + path;
}

// How many of the bytes went out: all of them unless the connection ended.
qint64 sendAll(int fd, const char* data, qint64 size) {
    qint64 written = 0;
    while (written < size) {
        const ssize_t n = ::send(fd, data + written, std::size_t(size - written), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        written += n;
    }
    return written;
}

bool sendAll(int fd, const QByteArray& bytes) {
    return sendAll(fd, bytes.constData(), bytes.size()) == bytes.size();
}

// Unique across every server of the test process, so no two contents ever share an ETag.
std::atomic<quint64> contentVersions{0};

}  // namespace

FaultFileServer::FaultFileServer() {
    start();
}

FaultFileServer::~FaultFileServer() {
    stop();
}

QString FaultFileServer::url(const QString& path) const {
    return QStringLiteral("http://127.0.0.1:%1%2").arg(port_).arg(normalised(path));
}

void FaultFileServer::start() {
    if (listener_ >= 0)
        return;
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port_));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener_, 128) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        ADD_FAILURE() << "FaultFileServer cannot listen on port " << port_ << ": "
                      << std::strerror(errno);
        if (listener_ >= 0)
            ::close(listener_);
        listener_ = -1;
        return;
    }
    port_ = ntohs(address.sin_port);
    std::lock_guard lock(mutex_);
    running_ = true;
    acceptor_ = std::thread([this] { acceptConnections(); });
}

void FaultFileServer::stop() {
    if (listener_ < 0)
        return;
    {
        std::lock_guard lock(mutex_);
        running_ = false;
        // Wakes the blocked accept() and every recv() or send() in the connections' threads.
        ::shutdown(listener_, SHUT_RDWR);
        for (Connection& connection : connections_) {
            if (connection.fd >= 0)
                ::shutdown(connection.fd, SHUT_RDWR);
        }
    }
    wake_.notify_all();
    acceptor_.join();
    // Only the acceptor adds or removes connections, and it has ended.
    for (Connection& connection : connections_)
        connection.thread.join();
    connections_.clear();
    ::close(listener_);
    listener_ = -1;
}

void FaultFileServer::acceptConnections() {
    for (;;) {
        const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        std::lock_guard lock(mutex_);
        if (!running_) {
            if (fd >= 0)
                ::close(fd);
            return;
        }
        // A finished connection's thread has let go of the lock for good: joining it is quick.
        connections_.remove_if([](Connection& connection) {
            if (connection.finished)
                connection.thread.join();
            return connection.finished;
        });
        if (fd >= 0) {
            Connection& connection = connections_.emplace_back();
            connection.fd = fd;
            connection.thread = std::thread([this, &connection] { serve(connection); });
        }
    }
}

void FaultFileServer::serve(Connection& connection) {
    const int fd = connection.fd;
    QByteArray received;
    After after = After::KeepOpen;
    while (after == After::KeepOpen) {
        qsizetype headEnd;
        while ((headEnd = received.indexOf("\r\n\r\n")) < 0 && received.size() < 64 * 1024) {
            char chunk[16 * 1024];
            const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                break;
            received.append(chunk, n);
        }
        if (headEnd < 0)
            break;
        const auto head = HttpRequestHead::parse(received.left(headEnd));
        received.remove(0, headEnd + 4);
        if (!head) {
            sendAll(fd, responseHead(400, {}, 0, false));
            break;
        }
        after = answer(fd, *head);
    }
    std::lock_guard lock(mutex_);
    if (after == After::Reset) {
        // Closing with a zero linger time sends RST instead of FIN.
        const linger abort{1, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    }
    ::close(fd);
    connection.fd = -1;
    connection.finished = true;
}

FaultFileServer::After FaultFileServer::answer(int fd, const HttpRequestHead& head) {
    const QString path = normalised(QUrl::fromPercentEncoding(head.path));
    const bool readsFile = head.method == "GET" || head.method == "HEAD";
    std::optional<QueuedFault> fault;
    std::optional<Entry> entry;  // a copy shares the content's bytes, it does not copy them
    std::size_t record;
    {
        std::lock_guard lock(mutex_);
        requests_.push_back({path, head.method, head.field("Range"), head.field("If-Range")});
        record = requests_.size() - 1;
        auto& queue = faults_[path];
        if (readsFile && !queue.empty()) {
            fault = std::move(queue.front());
            queue.pop_front();
        }
        const auto file = files_.find(path);
        if (file != files_.end()) {
            if (fault && fault->fault.kind == Fault::ReplaceThenServe)
                setContent(file->second, fault->fault.newContent);
            entry = file->second;
        }
        const int serving = ++serving_[path];
        mostServing_[path] = std::max(mostServing_[path], serving);
    }
    const After after =
        respond(fd, head, entry ? &*entry : nullptr, fault ? &*fault : nullptr, record);
    std::lock_guard lock(mutex_);
    --serving_[path];
    return after;
}

FaultFileServer::After FaultFileServer::respond(int fd, const HttpRequestHead& head,
                                                const Entry* entry, const QueuedFault* fault,
                                                std::size_t record) {
    const auto sendHead = [&](int status, const QByteArrayList& fields, qint64 length,
                              bool keepAlive, const QByteArray& body = {}) {
        {
            std::lock_guard lock(mutex_);
            requests_[record].status = status;
        }
        return sendAll(fd, responseHead(status, fields, length, keepAlive) +
                               (head.method == "HEAD" ? QByteArray() : body));
    };
    const auto answerStatus = [&](int status, const QByteArrayList& fields, const QByteArray& body,
                                  bool keepAlive) {
        const bool sent = sendHead(status, fields, body.size(), keepAlive, body);
        return sent && keepAlive ? After::KeepOpen : After::Close;
    };
    if (head.method != "GET" && head.method != "HEAD")
        return answerStatus(405, {"Allow: GET, HEAD"}, {}, false);
    if (fault && fault->fault.kind == Fault::Status) {
        QByteArrayList fields{"Content-Type: text/plain"};
        if (!fault->fault.retryAfter.isEmpty())
            fields << "Retry-After: " + fault->fault.retryAfter;
        return answerStatus(fault->fault.status, fields,
                            reasonPhrase(fault->fault.status).toLower() + '\n', false);
    }
    if (!entry)
        return answerStatus(404, {"Content-Type: text/plain"}, "not found\n", head.keepAlive());

    const File& file = entry->file;
    const qint64 total = file.content.size();
    const QByteArray ifRange = head.field("If-Range");
    const bool validatorHolds = ifRange.isEmpty() || (file.etag && ifRange == entry->etag) ||
                                (file.lastModified && ifRange == entry->lastModified);
    ByteRange range;
    if (file.acceptRanges && !file.ignoreRange && validatorHolds)
        range = ByteRange::resolve(head.field("Range"), total);

    QByteArrayList fields{"Content-Type: " + entry->file.contentType};
    if (file.acceptRanges)
        fields << "Accept-Ranges: bytes";
    if (file.etag)
        fields << "ETag: " + entry->etag;
    if (file.lastModified)
        fields << "Last-Modified: " + entry->lastModified;
    if (!file.dispositionName.isEmpty())
        fields << dispositionField(file.dispositionName);

    int status = 200;
    qint64 first = 0;
    qint64 length = total;
    if (range.outcome == ByteRange::Unsatisfiable) {
        status = 416;
        length = 0;
        fields << "Content-Range: bytes */" + QByteArray::number(total);
    } else if (range.outcome == ByteRange::Partial) {
        status = 206;
        first = range.first;
        length = range.last - range.first + 1;
        if (file.wrongContentRange) {
            // A server that miscounts: a consistent answer, but for other bytes than asked.
            const qint64 shift = std::clamp<qint64>(total / 10, 1, 1000);
            first = first >= shift ? first - shift : std::min(first + shift, total - 1);
            length = std::min(length, total - first);
        }
        fields << "Content-Range: bytes " + QByteArray::number(first) + '-' +
                      QByteArray::number(first + length - 1) + '/' + QByteArray::number(total);
    }
    if (!sendHead(status, fields, length, head.keepAlive()))
        return After::Close;
    const bool bodyFault = fault && fault->fault.kind != Fault::ReplaceThenServe;
    const After after = sendBody(fd, file.content, first, head.method == "HEAD" ? 0 : length,
                                 file.bytesPerSecond, bodyFault ? fault : nullptr, record);
    return after == After::KeepOpen && !head.keepAlive() ? After::Close : after;
}

FaultFileServer::After FaultFileServer::sendBody(int fd, const QByteArray& content, qint64 first,
                                                 qint64 length, qint64 bytesPerSecond,
                                                 const QueuedFault* fault, std::size_t record) {
    const qint64 faultAt = fault ? std::min(fault->fault.bytes, length) : -1;
    // Small slices under a rate cap keep the pace even; without one, large ones keep it quick.
    const qint64 slice =
        bytesPerSecond > 0 ? std::clamp<qint64>(bytesPerSecond / 20, 1, 16 * 1024) : 256 * 1024;
    Clock::time_point paceStart = Clock::now();
    qint64 pacedFrom = 0;
    for (qint64 sent = 0;;) {
        if (sent == faultAt) {
            if (fault->fault.kind == Fault::DropAfter)
                return After::Close;
            if (fault->fault.kind == Fault::ResetAfter)
                return After::Reset;
            std::unique_lock lock(mutex_);
            wake_.wait(lock, [&] { return !running_ || stallsReleased_ >= fault->stallTicket; });
            if (!running_)
                return After::Close;
            paceStart = Clock::now();  // the stall is no credit for a burst afterwards
            pacedFrom = sent;
        }
        if (sent == length)
            return After::KeepOpen;
        if (bytesPerSecond > 0) {
            const auto due = paceStart + std::chrono::microseconds((sent - pacedFrom) * 1000000 /
                                                                   bytesPerSecond);
            std::unique_lock lock(mutex_);
            if (wake_.wait_until(lock, due, [this] { return !running_; }))
                return After::Close;
        }
        qint64 n = std::min(slice, length - sent);
        if (faultAt > sent)
            n = std::min(n, faultAt - sent);
        {
            // Counted before they go, so that a client that has them finds them counted.
            std::lock_guard lock(mutex_);
            requests_[record].bodyBytesSent = sent + n;
        }
        const qint64 written = sendAll(fd, content.constData() + first + sent, n);
        sent += written;
        if (written < n) {
            std::lock_guard lock(mutex_);
            requests_[record].bodyBytesSent = sent;
            return After::Close;
        }
    }
}

void FaultFileServer::setContent(Entry& entry, const QByteArray& content) {
    entry.file.content = content;
    entry.etag = '"' + QByteArray::number(++contentVersions, 16) + '"';
    // A new file looks an hour old, so that replacing it soon after stays in the past.
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    entry.modifiedSecs =
        entry.modifiedSecs == 0 ? now - 3600 : std::max(now, entry.modifiedSecs + 1);
    entry.lastModified = httpDate(entry.modifiedSecs);
}

void FaultFileServer::addFile(const QString& path, File file) {
    std::lock_guard lock(mutex_);
    Entry& entry = files_[normalised(path)];
    entry.file = std::move(file);
    setContent(entry, entry.file.content);
}

void FaultFileServer::replaceContent(const QString& path, const QByteArray& content) {
    std::lock_guard lock(mutex_);
    setContent(files_.at(normalised(path)), content);
}

void FaultFileServer::queueFaults(const QString& path, std::vector<Fault> faults) {
    std::lock_guard lock(mutex_);
    auto& queue = faults_[normalised(path)];
    for (Fault& fault : faults) {
        const bool stalls = fault.kind == Fault::StallAfter;
        queue.push_back({std::move(fault), stalls ? ++stallsQueued_ : 0});
    }
}

void FaultFileServer::releaseStalls() {
    {
        std::lock_guard lock(mutex_);
        stallsReleased_ = stallsQueued_;
    }
    wake_.notify_all();
}

std::vector<FaultFileServer::RequestSeen> FaultFileServer::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

int FaultFileServer::requestCount(const QString& path) const {
    std::lock_guard lock(mutex_);
    return int(std::ranges::count(requests_, normalised(path), &RequestSeen::path));
}

qint64 FaultFileServer::bodyBytesSent(const QString& path) const {
    std::lock_guard lock(mutex_);
    qint64 sum = 0;
    for (const RequestSeen& seen : requests_) {
        if (seen.path == normalised(path))
            sum += seen.bodyBytesSent;
    }
    return sum;
}

int FaultFileServer::maxConcurrentConnections(const QString& path) const {
    std::lock_guard lock(mutex_);
    const auto it = mostServing_.find(normalised(path));
    return it == mostServing_.end() ? 0 : it->second;
}

bool FaultFileServer::waitForRequests(const QString& path, int n, int timeoutMs) const {
    return waitUntil([&] { return requestCount(path) >= n; }, timeoutMs);
}

}  // namespace testsupport
