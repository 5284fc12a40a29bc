// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace notes {

// The canonical text of a numeric IPv4 or IPv6 address ("127.0.0.1", "::1"; an IPv4 address
// mapped into IPv6 is given as IPv4), or an empty string when text is no such address.
std::string canonicalAddress(std::string_view text);

struct HttpRequest {
    std::string method;
    std::string path;    // percent-decoded, without the query
    std::string target;  // path and query exactly as the client sent them
    std::string contentType;
    // Numeric, "127.0.0.1" or "::1": the peer's, or for a request that came through a trusted
    // proxy, the address that proxy put last in X-Forwarded-For.
    std::string clientAddress;
    // Came over TLS, or through a trusted proxy that says (X-Forwarded-Proto) it did.
    bool secure = false;
    // Every header as sent, names in lower case, in the order they came.
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;

    // The first header of that name (lower case), or nullptr.
    const std::string* header(std::string_view lowerCaseName) const;
};

// A long-lived answer: what is sent goes out to the client at once, for as long as the stream
// lasts. The connection of a live stream is neither closed for idleness nor held to the
// request deadline; a client that has gone is found when a write to it fails. Safe to use
// from any thread.
class HttpStream {
public:
    virtual ~HttpStream() = default;
    // Queues text after what was sent before; false once the stream has ended (the client
    // went away or fell too far behind, close() was called, or the server is stopping).
    virtual bool send(std::string_view text) = 0;
    // Ends the answer once what was queued has gone out.
    virtual void close() = 0;
    virtual bool ended() const = 0;
};

struct HttpResponse;

// An answer that comes later, from another thread (a password checked on a pool of its own):
// until it comes, the connection is suspended, holding no worker of the server. Safe to use
// from any thread; only the first answer counts. A server that stops answers 503 in its place.
class HttpDeferred {
public:
    virtual ~HttpDeferred() = default;
    virtual void answer(HttpResponse response) = 0;
};

struct HttpResponse {
    int status = 200;
    std::string body;
    std::string contentType = "text/plain; charset=utf-8";
    std::vector<std::pair<std::string, std::string>> headers;

    // Makes this answer a stream (status, content type and headers as set, the body unused).
    // `ended` is called once, from a server thread and with no lock of the stream held, when
    // the stream ends for whatever reason; also when it never started (the handler threw).
    std::shared_ptr<HttpStream> openStream(std::function<void()> ended = {});
    std::shared_ptr<HttpStream> stream;  // set by openStream

    // Makes this answer one that the returned object gives later (this one's content unused).
    std::shared_ptr<HttpDeferred> defer();
    std::shared_ptr<HttpDeferred> deferred;  // set by defer
};

// What a stranger who can open a socket may make the server spend. Connections do not hold a
// thread while they wait: a few event threads serve them all, so idle and slow clients cost
// only their connection slot and its memory, both bounded here.
struct HttpLimits {
    unsigned maxConnections = 1000;
    // When an address has this many open and another comes, the one of them that has waited
    // longest for its next request is closed to make room; only when none of them is waiting
    // is the newcomer refused. A trusted proxy's own connections are exempt; the clients
    // behind it may have this many requests (streams included) under way at once.
    unsigned maxConnectionsPerAddress = 128;
    // A connection silent this long is closed.
    std::chrono::seconds idleTimeout{15};
    // The request line, headers and body of one request must all arrive within this, counted
    // from the moment the connection starts waiting for that request; a client that trickles
    // bytes to stay clear of the idle time-out is cut off here.
    std::chrono::seconds requestTimeout{30};
    // One connection's buffers: request line and headers must fit, else 431.
    std::size_t connectionMemory = 32 * 1024;
    unsigned threads = 4;
    // Numeric addresses of reverse proxies whose X-Forwarded-For and X-Forwarded-Proto are
    // believed; from anyone else those headers are ignored.
    std::vector<std::string> trustedProxies;
};

// One path and method. The body is read only after admit (if any) has seen the headers and
// agreed; a body over bodyLimit, announced or chunked, is answered 413 as soon as the limit is
// passed and the connection closed, the rest left unread.
struct HttpRoute {
    std::string method;
    std::string path;
    std::size_t bodyLimit = 0;
    // Sees the request without its body; returning false sends the response it filled in.
    std::function<bool(const HttpRequest&, HttpResponse&)> admit;
    std::function<void(const HttpRequest&, HttpResponse&)> handle;
};

// An HTTP/1.1 server (keep-alive, pipelining, optional TLS) on libmicrohttpd. A request with no
// route is 404; a handler that throws is 500. Every answered request is logged as method, path
// without query, status and time taken, and nothing else about it.
class HttpServer {
public:
    explicit HttpServer(const HttpLimits& limits);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // Must come before start().
    void addRoute(HttpRoute route);

    // Binds host:port (a name, an IPv4 or an IPv6 address) and starts serving, over TLS when
    // both PEM texts are given. Returns what went wrong, or an empty string.
    std::string start(const std::string& host, int port, const std::string& certificatePem = {},
                      const std::string& keyPem = {});
    // Ends every stream (each client gets the end of its answer), waits a moment for them to
    // go out, then closes every connection.
    void stop();

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace notes
