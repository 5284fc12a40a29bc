// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QString>
#include <condition_variable>
#include <deque>
#include <list>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace testsupport {

struct HttpRequestHead;

// A file server on a free loopback port that misbehaves on demand, for downloads that must
// survive it: it drops or resets a connection mid-body, stalls, answers an error status with
// Retry-After, changes a file between two requests, ignores ranges or answers the wrong one,
// and caps each connection's rate. Every byte is written by hand on plain sockets, one thread
// per connection, so a fault happens exactly where it is asked for.
//
// It speaks HTTP/1.1 with keep-alive (GET and HEAD; a single range per request; If-Range by
// ETag or Last-Modified text). A connection is closed after a fault, after a status fault's
// answer and when the client asks for it; otherwise it waits for the next request.
class FaultFileServer {
public:
    struct File {
        QByteArray content{};
        QByteArray contentType = "application/octet-stream";
        bool acceptRanges = true;   // "Accept-Ranges: bytes", and ranges are honoured
        bool etag = true;           // an ETag, new whenever the content is replaced
        bool lastModified = true;   // a Last-Modified, later whenever the content is replaced
        QString dispositionName{};  // Content-Disposition: attachment; filename="..." if set
        qint64 bytesPerSecond = 0;  // each connection's body rate cap; 0 for none
        bool ignoreRange = false;   // 200 and the whole body to every Range request
        // 206 to a Range request with a consistent Content-Range and body, but for bytes that
        // start elsewhere than asked (a tenth of the file off, at most 1000 bytes).
        bool wrongContentRange = false;
    };

    // One fault for one request to a path. Every member has an initialiser, so that designated
    // initialisers may name only the ones that matter: {.kind = Fault::DropAfter, .bytes = 1000}.
    struct Fault {
        enum Kind { DropAfter, ResetAfter, StallAfter, Status, ReplaceThenServe };
        Kind kind = DropAfter;
        // DropAfter (FIN), ResetAfter (RST), StallAfter: body bytes sent first; past the body's
        // end the fault comes after the whole body.
        qint64 bytes = 0;
        int status = 503;         // Status: answered with a short body, then the connection closes
        QByteArray retryAfter{};  // Status: the Retry-After value, if not empty
        QByteArray newContent{};  // ReplaceThenServe: the file's new content, then served normally
    };

    struct RequestSeen {
        QString path{};
        QByteArray method{};
        QByteArray range{};    // the Range header as sent, empty if none
        QByteArray ifRange{};  // the If-Range header as sent, empty if none
        int status = 0;
        qint64 bodyBytesSent = 0;  // of the file, as they are written; a status text counts none
    };

    FaultFileServer();  // listens on 127.0.0.1, port 0, at once
    ~FaultFileServer();
    FaultFileServer(const FaultFileServer&) = delete;
    FaultFileServer& operator=(const FaultFileServer&) = delete;

    int port() const { return port_; }
    QString url(const QString& path) const;  // "http://127.0.0.1:PORT/path"

    // A server going down: no more listening and every connection closed at once, stalled and
    // paced ones included. start() listens again on the same port, with the same files, faults
    // and records.
    void stop();
    void start();

    // Paths are matched after percent-decoding; a missing leading "/" is implied.
    void addFile(const QString& path, File file);
    // The new content, with a new ETag and a later Last-Modified, from the next request on.
    void replaceContent(const QString& path, const QByteArray& content);

    // Each request to the path takes the next fault, in arrival order; once none is left the
    // file is served as it should be.
    void queueFaults(const QString& path, std::vector<Fault> faults);
    // Lets every StallAfter queued so far go on with its body, whether it has reached its stall
    // yet or not (so a test never races the server to it); stalls queued later hold again.
    void releaseStalls();

    std::vector<RequestSeen> requests() const;
    int requestCount(const QString& path) const;
    qint64 bodyBytesSent(const QString& path) const;  // over all its requests
    // The most requests for the path that were being answered at one time (each connection
    // answers one request at a time, so: connections).
    int maxConcurrentConnections(const QString& path) const;
    // Runs the Qt event loop until n requests for the path have arrived.
    bool waitForRequests(const QString& path, int n, int timeoutMs = 10000) const;

private:
    struct Entry {
        File file;
        QByteArray etag;
        QByteArray lastModified;
        qint64 modifiedSecs = 0;  // since the epoch
    };
    struct QueuedFault {
        Fault fault;
        quint64 stallTicket = 0;
    };
    struct Connection {
        int fd = -1;
        bool finished = false;
        std::thread thread;
    };
    enum class After { KeepOpen, Close, Reset };

    void acceptConnections();
    void serve(Connection& connection);
    After answer(int fd, const HttpRequestHead& head);
    After respond(int fd, const HttpRequestHead& head, const Entry* entry, const QueuedFault* fault,
                  std::size_t record);
    After sendBody(int fd, const QByteArray& content, qint64 first, qint64 length,
                   qint64 bytesPerSecond, const QueuedFault* fault, std::size_t record);
    void setContent(Entry& entry, const QByteArray& content);

    int port_ = 0;
    int listener_ = -1;
    std::thread acceptor_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    bool running_ = false;
    std::list<Connection> connections_;
    std::map<QString, Entry> files_;
    std::map<QString, std::deque<QueuedFault>> faults_;
    quint64 stallsQueued_ = 0;
    quint64 stallsReleased_ = 0;
    std::vector<RequestSeen> requests_;
    std::map<QString, int> serving_;
    std::map<QString, int> mostServing_;
};

}  // namespace testsupport
