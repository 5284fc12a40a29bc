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

struct HttpRequest {
    std::string method;
    std::string path;    // percent-decoded, without the query
    std::string target;  // path and query exactly as the client sent them
    std::string contentType;
    std::string clientAddress;  // numeric, "127.0.0.1" or "::1"
    bool secure = false;        // came over TLS
    // Every header as sent, names in lower case, in the order they came.
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;

    // The first header of that name (lower case), or nullptr.
    const std::string* header(std::string_view lowerCaseName) const;
};

struct HttpResponse {
    int status = 200;
    std::string body;
    std::string contentType = "text/plain; charset=utf-8";
    std::vector<std::pair<std::string, std::string>> headers;
};

// What a stranger who can open a socket may make the server spend. Connections do not hold a
// thread while they wait: a few event threads serve them all, so idle and slow clients cost
// only their connection slot and its memory, both bounded here.
struct HttpLimits {
    unsigned maxConnections = 1000;
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

    void addRoute(HttpRoute route);

    // Binds host:port (a name, an IPv4 or an IPv6 address) and starts serving, over TLS when
    // both PEM texts are given. Returns what went wrong, or an empty string.
    std::string start(const std::string& host, int port, const std::string& certificatePem = {},
                      const std::string& keyPem = {});
    void stop();

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace notes
