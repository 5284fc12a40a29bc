// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/HttpServer.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QString>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <mutex>
#include <optional>
#include <vector>

#include "foundation/Log.h"
#include "service/RequestDeadlines.h"

namespace notes {

namespace {

using Clock = std::chrono::steady_clock;

// One request on its way through the server.
struct Exchange {
    HttpRequest request;
    const HttpRoute* route = nullptr;
    bool seenHeaders = false;
    bool answered = false;
    // Sent once the body, read and dropped, is in.
    std::optional<HttpResponse> refusal;
    Clock::time_point began = Clock::now();
};

std::string numericAddress(const sockaddr* address) {
    char text[INET6_ADDRSTRLEN] = "";
    if (address && address->sa_family == AF_INET) {
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text,
                  sizeof text);
    } else if (address && address->sa_family == AF_INET6) {
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr, text,
                  sizeof text);
    }
    return text;
}

// A refused request's body up to this size is read and dropped before the refusal is sent, so
// that a client which writes its whole body before it reads (most do) sees the answer and keeps
// its connection. A larger or unannounced body is not read: the refusal goes at once and the
// connection closes, which such a client may see only as a reset.
constexpr std::size_t kDrainBytes = 4 * 1024 * 1024;

// The announced body length: 0 without a body, SIZE_MAX for a chunked one.
std::size_t announcedLength(MHD_Connection* connection) {
    const char* text =
        MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
    if (!text) {
        return MHD_lookup_connection_value(connection, MHD_HEADER_KIND,
                                           MHD_HTTP_HEADER_TRANSFER_ENCODING)
                   ? SIZE_MAX
                   : 0;
    }
    // The library refuses a malformed length before we are asked.
    errno = 0;
    const unsigned long long n = std::strtoull(text, nullptr, 10);
    return errno == ERANGE ? SIZE_MAX - 1 : static_cast<std::size_t>(n);
}

// A listening socket with the system's full backlog, so that a burst of clients is queued by
// the kernel rather than turned away.
int listenOn(const std::string& host, int port, std::string& error) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* found = nullptr;
    const std::string service = std::to_string(port);
    if (const int rc = getaddrinfo(host.c_str(), service.c_str(), &hints, &found); rc != 0) {
        error = "cannot resolve " + host + ": " + gai_strerror(rc);
        return -1;
    }
    int socket = -1;
    for (addrinfo* a = found; a && socket < 0; a = a->ai_next) {
        socket =
            ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, a->ai_protocol);
        if (socket < 0)
            continue;
        int yes = 1;
        ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        if (::bind(socket, a->ai_addr, a->ai_addrlen) != 0 || ::listen(socket, SOMAXCONN) != 0) {
            error = std::strerror(errno);
            ::close(socket);
            socket = -1;
        }
    }
    freeaddrinfo(found);
    return socket;
}

// The library's own messages: worth seeing, but an attacker must not be able to fill the
// log with them, so at most a few a second get through.
void logLibraryMessage(void*, const char* format, va_list arguments) {
    static std::mutex mutex;
    static Clock::time_point second;
    static int shown = 0;
    {
        std::lock_guard lock(mutex);
        const Clock::time_point now = Clock::now();
        if (now - second >= std::chrono::seconds(1)) {
            second = now;
            shown = 0;
        }
        if (++shown > 5)
            return;
    }
    char text[512];
    std::vsnprintf(text, sizeof text, format, arguments);
    foundation::log(QStringLiteral("http: %1").arg(QString::fromUtf8(text).trimmed()));
}

MHD_Result collectHeader(void* into, MHD_ValueKind, const char* name, const char* value) {
    std::string lower = name ? name : "";
    for (char& c : lower)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    static_cast<HttpRequest*>(into)->headers.emplace_back(std::move(lower), value ? value : "");
    return MHD_YES;
}

}  // namespace

const std::string* HttpRequest::header(std::string_view lowerCaseName) const {
    for (const auto& [name, value] : headers) {
        if (name == lowerCaseName)
            return &value;
    }
    return nullptr;
}

struct HttpServer::Impl {
    explicit Impl(const HttpLimits& l) : limits(l), deadlines(l.requestTimeout) {}

    const HttpRoute* find(const std::string& method, const std::string& path) const {
        for (const HttpRoute& r : routes) {
            if (r.method == method && r.path == path)
                return &r;
        }
        return nullptr;
    }

    void answer(MHD_Connection* connection, Exchange& exchange, const HttpResponse& response) {
        exchange.answered = true;
        deadlines.disarm(connection);
        MHD_Response* reply = MHD_create_response_from_buffer(
            response.body.size(), const_cast<char*>(response.body.data()), MHD_RESPMEM_MUST_COPY);
        MHD_add_response_header(reply, MHD_HTTP_HEADER_CONTENT_TYPE, response.contentType.c_str());
        // Note text must never be taken for markup or script, whatever a browser guesses.
        MHD_add_response_header(reply, "X-Content-Type-Options", "nosniff");
        for (const auto& [name, value] : response.headers)
            MHD_add_response_header(reply, name.c_str(), value.c_str());
        MHD_queue_response(connection, static_cast<unsigned>(response.status), reply);
        MHD_destroy_response(reply);
        logAnswer(exchange, response.status);
    }

    static void logAnswer(const Exchange& exchange, int status) {
        const double ms =
            std::chrono::duration<double, std::milli>(Clock::now() - exchange.began).count();
        foundation::log(QStringLiteral("%1 %2 %3 %4 ms")
                            .arg(QString::fromStdString(exchange.request.method),
                                 QString::fromStdString(exchange.request.path))
                            .arg(status)
                            .arg(ms, 0, 'f', 2));
    }

    // Headers are in: find the route and decide whether the body is worth reading.
    void admit(MHD_Connection* connection, Exchange& exchange, const char* url,
               const char* method) {
        HttpRequest& request = exchange.request;
        request.method = method;
        request.path = url;
        if (request.target.empty())
            request.target = url;
        const char* type =
            MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_TYPE);
        request.contentType = type ? type : "";
        const MHD_ConnectionInfo* info =
            MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
        request.clientAddress = numericAddress(info ? info->client_addr : nullptr);
        request.secure = !certificate.empty();
        MHD_get_connection_values(connection, MHD_HEADER_KIND, &collectHeader, &request);

        exchange.route = find(request.method, request.path);
        const std::size_t length = announcedLength(connection);
        HttpResponse refusal;
        if (!exchange.route) {
            refusal.status = 404;
        } else if (length != SIZE_MAX && length > exchange.route->bodyLimit) {
            refusal.status = 413;
        } else if (!exchange.route->admit || exchange.route->admit(request, refusal)) {
            return;
        }
        if (length <= kDrainBytes) {
            exchange.refusal = std::move(refusal);
        } else {
            answer(connection, exchange, refusal);
        }
    }

    void handle(MHD_Connection* connection, Exchange& exchange) {
        HttpResponse response;
        try {
            exchange.route->handle(exchange.request, response);
        } catch (const std::exception& e) {
            foundation::log(QStringLiteral("internal error: %1").arg(QString::fromUtf8(e.what())));
            response = HttpResponse();
            response.status = 500;
        }
        answer(connection, exchange, response);
    }

    static void* began(void*, const char* uri, MHD_Connection*) {
        auto* exchange = new Exchange;
        exchange->request.target = uri;
        return exchange;
    }

    static MHD_Result access(void* self, MHD_Connection* connection, const char* url,
                             const char* method, const char*, const char* data, size_t* size,
                             void** context) {
        Impl& impl = *static_cast<Impl*>(self);
        if (!*context)
            *context = new Exchange;
        Exchange& exchange = *static_cast<Exchange*>(*context);
        if (!exchange.seenHeaders) {
            exchange.seenHeaders = true;
            impl.admit(connection, exchange, url, method);
            return MHD_YES;
        }
        if (*size > 0 && (exchange.answered || exchange.refusal)) {
            *size = 0;  // a refused request's body, bounded by kDrainBytes
            return MHD_YES;
        }
        if (*size > 0) {
            std::string& body = exchange.request.body;
            // An announced length over the limit was refused before the body; a chunked body
            // can only be cut off, as no answer can be queued while a body is arriving.
            if (*size > exchange.route->bodyLimit - body.size()) {
                impl.logAnswer(exchange, 413);
                return MHD_NO;
            }
            body.append(data, *size);
            *size = 0;
            return MHD_YES;
        }
        if (exchange.refusal) {
            impl.answer(connection, exchange, *exchange.refusal);
        } else {
            impl.handle(connection, exchange);
        }
        return MHD_YES;
    }

    static void completed(void* self, MHD_Connection* connection, void** context,
                          MHD_RequestTerminationCode) {
        delete static_cast<Exchange*>(*context);
        *context = nullptr;
        // A kept-alive connection now waits for its next request.
        static_cast<Impl*>(self)->deadlines.arm(connection);
    }

    static void connectionEvent(void* self, MHD_Connection* connection, void**,
                                MHD_ConnectionNotificationCode code) {
        Impl& impl = *static_cast<Impl*>(self);
        if (code == MHD_CONNECTION_NOTIFY_STARTED) {
            const MHD_ConnectionInfo* info =
                MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
            if (info)
                impl.deadlines.opened(connection, info->connect_fd);
        } else {
            impl.deadlines.closed(connection);
        }
    }

    HttpLimits limits;
    std::vector<HttpRoute> routes;
    RequestDeadlines deadlines;
    std::string certificate;
    std::string key;
    MHD_Daemon* daemon = nullptr;
};

HttpServer::HttpServer(const HttpLimits& limits) : impl_(std::make_unique<Impl>(limits)) {}

HttpServer::~HttpServer() {
    stop();
}

void HttpServer::addRoute(HttpRoute route) {
    impl_->routes.push_back(std::move(route));
}

std::string HttpServer::start(const std::string& host, int port, const std::string& certificatePem,
                              const std::string& keyPem) {
    const bool tls = !certificatePem.empty() && !keyPem.empty();
    if (tls && !MHD_is_feature_supported(MHD_FEATURE_TLS))
        return "this build of libmicrohttpd has no TLS";
    std::string error;
    const int socket = listenOn(host, port, error);
    if (socket < 0)
        return error;
    impl_->certificate = certificatePem;
    impl_->key = keyPem;
    Impl* impl = impl_.get();
    const HttpLimits& l = impl->limits;
    unsigned flags = MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_ERROR_LOG;
    if (tls)
        flags |= MHD_USE_TLS;
    // The logger comes first, so that no message of the library escapes it.
    std::vector<MHD_OptionItem> options = {
        {MHD_OPTION_EXTERNAL_LOGGER, reinterpret_cast<intptr_t>(&logLibraryMessage), nullptr},
        {MHD_OPTION_LISTEN_SOCKET, socket, nullptr},
        {MHD_OPTION_THREAD_POOL_SIZE, l.threads, nullptr},
        {MHD_OPTION_CONNECTION_LIMIT, l.maxConnections, nullptr},
        {MHD_OPTION_PER_IP_CONNECTION_LIMIT, l.maxConnectionsPerAddress, nullptr},
        {MHD_OPTION_CONNECTION_TIMEOUT, static_cast<intptr_t>(l.idleTimeout.count()), nullptr},
        {MHD_OPTION_CONNECTION_MEMORY_LIMIT, static_cast<intptr_t>(l.connectionMemory), nullptr},
        {MHD_OPTION_URI_LOG_CALLBACK, reinterpret_cast<intptr_t>(&Impl::began), impl},
        {MHD_OPTION_NOTIFY_COMPLETED, reinterpret_cast<intptr_t>(&Impl::completed), impl},
        {MHD_OPTION_NOTIFY_CONNECTION, reinterpret_cast<intptr_t>(&Impl::connectionEvent), impl},
    };
    if (tls) {
        options.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, impl->certificate.data()});
        options.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, impl->key.data()});
    }
    options.push_back({MHD_OPTION_END, 0, nullptr});
    impl->daemon = MHD_start_daemon(flags, 0, nullptr, nullptr, &Impl::access, impl,
                                    MHD_OPTION_ARRAY, options.data(), MHD_OPTION_END);
    if (!impl->daemon) {
        ::close(socket);
        return tls ? "cannot start: the TLS certificate or key is not usable"
                   : "cannot start the HTTP server";
    }
    return {};
}

void HttpServer::stop() {
    if (impl_->daemon) {
        MHD_stop_daemon(impl_->daemon);
        impl_->daemon = nullptr;
    }
}

}  // namespace notes
