// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/HttpServer.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QString>
#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <vector>

#include "foundation/Log.h"
#include "service/ConnectionAcceptor.h"
#include "service/NotesStore.h"
#include "service/RequestDeadlines.h"

namespace notes {

namespace {

using Clock = std::chrono::steady_clock;

class Stream;
class Deferred;

// One request on its way through the server.
struct Exchange {
    HttpRequest request;
    const HttpRoute* route = nullptr;
    bool seenHeaders = false;
    bool answered = false;
    // Sent once the body, read and dropped, is in.
    std::optional<HttpResponse> refusal;
    Clock::time_point began = Clock::now();
    std::shared_ptr<Stream> stream;
    std::shared_ptr<Deferred> deferred;
    // The proxied client whose share of requests this one counts against.
    std::string forwardedFor;
};

std::string textOf(const in6_addr& address) {
    char text[INET6_ADDRSTRLEN] = "";
    if (IN6_IS_ADDR_V4MAPPED(&address)) {
        // A dual-stack socket's IPv4 client: the same client as over IPv4.
        in_addr v4{};
        std::memcpy(&v4, address.s6_addr + 12, sizeof v4);
        inet_ntop(AF_INET, &v4, text, sizeof text);
    } else {
        inet_ntop(AF_INET6, &address, text, sizeof text);
    }
    return text;
}

std::string numericAddress(const sockaddr* address) {
    char text[INET6_ADDRSTRLEN] = "";
    if (address && address->sa_family == AF_INET) {
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text,
                  sizeof text);
    } else if (address && address->sa_family == AF_INET6) {
        return textOf(reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr);
    }
    return text;
}

// Text from a client as it may go into the log: a control character (a decoded "%0a" in a path
// would start a forged line) is written as its %XX escape again.
void appendEscaped(std::string& line, std::string_view text) {
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) {
            char escaped[4];
            std::snprintf(escaped, sizeof escaped, "%%%02X", byte);
            line.append(escaped, 3);
        } else {
            line.push_back(c);
        }
    }
}

// A header's value after its last comma, without the blanks around it: what the nearest hop
// appended to a list.
std::string lastElement(const std::string& value) {
    const std::size_t comma = value.rfind(',');
    std::string element = comma == std::string::npos ? value : value.substr(comma + 1);
    const std::size_t first = element.find_first_not_of(" \t");
    const std::size_t last = element.find_last_not_of(" \t");
    return first == std::string::npos ? std::string() : element.substr(first, last - first + 1);
}

// The last header of that name (lower case), or nullptr: a proxy that adds a header of its own
// beside one the client sent puts its own last.
const std::string* lastHeader(const HttpRequest& request, std::string_view name) {
    const std::string* found = nullptr;
    for (const auto& [n, value] : request.headers) {
        if (n == name)
            found = &value;
    }
    return found;
}

// What a stream may have queued for a client that does not take it. Events are a few dozen
// bytes; a client this far behind has stopped reading, and its stream is cut.
constexpr std::size_t kMaxStreamBacklog = 64 * 1024;
// How much of a stream the library asks for at once.
constexpr std::size_t kStreamBlock = 4096;

// The server's live streams, so that stopping can end them all. The library must never be
// stopped while it holds a suspended connection.
struct StreamRegistry {
    std::mutex mutex;
    std::condition_variable changed;
    bool stopping = false;
    std::unordered_map<const Stream*, std::shared_ptr<Stream>> live;
    // Answers that will come later, whose connections are (or are about to be) suspended.
    std::unordered_map<const Deferred*, std::shared_ptr<Deferred>> waiting;
    // Connections decided to be resumed whose resumption the library has not been told yet.
    std::atomic<unsigned> resuming{0};
};

// Tells the library to resume a connection that a stream or a deferred answer had suspended,
// which registry counted as resuming when that was decided; stopping waits for the count.
void resume(MHD_Connection* connection, StreamRegistry& registry) {
    MHD_resume_connection(connection);
    std::lock_guard lock(registry.mutex);
    --registry.resuming;
    registry.changed.notify_all();
}

// A deferred answer. The connection is suspended from the request's callback when the answer
// has not come by then, and resumed when it comes; the library then asks the request's callback
// again, which queues it. Resuming a connection that is not suspended is not allowed, so
// `suspended_` says which, under the lock.
class Deferred final : public HttpDeferred, public std::enable_shared_from_this<Deferred> {
public:
    void answer(HttpResponse response) override {
        MHD_Connection* resume = nullptr;
        std::shared_ptr<StreamRegistry> registry;
        {
            std::lock_guard lock(mutex_);
            if (response_ || gone_)
                return;
            response_ = std::move(response);
            if (suspended_) {
                suspended_ = false;
                resume = connection_;
                registry = registry_;
                ++registry->resuming;
            }
        }
        if (resume)
            notes::resume(resume, *registry);
    }

    // From the request's callback, once the handler has returned: true when the answer is
    // there already; else the connection is suspended until it comes. A server that is
    // stopping takes no more: its 503 is the answer.
    bool wait(MHD_Connection* connection, const std::shared_ptr<StreamRegistry>& registry) {
        bool stopping = false;
        {
            std::lock_guard lock(registry->mutex);
            stopping = registry->stopping;
            if (!stopping)
                registry->waiting.emplace(this, shared_from_this());
        }
        std::lock_guard lock(mutex_);
        registry_ = registry;
        if (stopping && !response_)
            response_ = unavailable();
        if (response_)
            return true;
        connection_ = connection;
        MHD_suspend_connection(connection);
        suspended_ = true;
        return false;
    }

    // The answer, once it has come; the connection no longer waits for it.
    HttpResponse take() {
        std::lock_guard lock(mutex_);
        forget();
        if (response_)
            return std::move(*response_);
        HttpResponse missing;
        missing.status = 500;
        return missing;
    }

    // The request ended without its answer (the server stops it): a later answer goes nowhere.
    void abandon() {
        std::lock_guard lock(mutex_);
        gone_ = true;
        forget();
    }

    static HttpResponse unavailable() {
        HttpResponse busy;
        busy.status = 503;
        busy.headers.emplace_back("Retry-After", "2");
        return busy;
    }

private:
    void forget() {
        if (!registry_)
            return;
        std::lock_guard lock(registry_->mutex);
        registry_->waiting.erase(this);
        registry_->changed.notify_all();
    }

    std::mutex mutex_;
    std::optional<HttpResponse> response_;
    bool suspended_ = false;
    bool gone_ = false;
    MHD_Connection* connection_ = nullptr;
    std::shared_ptr<StreamRegistry> registry_;
};

// A stream is a response whose content the library asks for piece by piece. When nothing is
// queued, the connection is suspended (taken out of the library's event loop, so nothing
// spins and no time-out runs) and resumed as soon as text comes. Suspending is allowed only
// from the library's callbacks, resuming from anywhere, but resuming a connection that is not
// suspended is not; `suspended_` says which, under the stream's lock.
class Stream final : public HttpStream, public std::enable_shared_from_this<Stream> {
public:
    explicit Stream(std::function<void()> ended) : onEnded_(std::move(ended)) {}

    bool send(std::string_view text) override {
        MHD_Connection* resume = nullptr;
        bool ok = true;
        {
            std::lock_guard lock(mutex_);
            if (ended_)
                return false;
            pending_.append(text);
            if (pending_.size() > kMaxStreamBacklog) {
                ended_ = failed_ = true;
                ok = false;
            }
            resume = wakeLocked();
        }
        wake(resume);
        return ok;
    }

    void close() override {
        MHD_Connection* resume = nullptr;
        {
            std::lock_guard lock(mutex_);
            if (ended_)
                return;
            ended_ = true;
            resume = wakeLocked();
        }
        wake(resume);
    }

    bool ended() const override {
        std::lock_guard lock(mutex_);
        return ended_;
    }

    // The response is queued on connection.
    void bind(MHD_Connection* connection, const std::shared_ptr<StreamRegistry>& registry) {
        bool stopping = false;
        {
            std::lock_guard lock(registry->mutex);
            stopping = registry->stopping;
            registry->live.emplace(this, shared_from_this());
        }
        std::lock_guard lock(mutex_);
        connection_ = connection;
        registry_ = registry;
        ended_ = ended_ || stopping;
    }

    // The library's content reader.
    static ssize_t read(void* holder, uint64_t, char* buffer, size_t max) {
        Stream& stream = **static_cast<std::shared_ptr<Stream>*>(holder);
        std::lock_guard lock(stream.mutex_);
        if (stream.failed_)
            return MHD_CONTENT_READER_END_WITH_ERROR;
        if (!stream.pending_.empty()) {
            const std::size_t n = std::min(max, stream.pending_.size());
            std::memcpy(buffer, stream.pending_.data(), n);
            stream.pending_.erase(0, n);
            return static_cast<ssize_t>(n);
        }
        if (stream.ended_)
            return MHD_CONTENT_READER_END_OF_STREAM;
        MHD_suspend_connection(stream.connection_);
        stream.suspended_ = true;
        return 0;
    }

    static void release(void* holder) { delete static_cast<std::shared_ptr<Stream>*>(holder); }

    // The connection is done with the stream (or it never started): called once, from the
    // thread that served it.
    void finish() {
        const std::shared_ptr<Stream> keep = shared_from_this();
        std::function<void()> ended;
        std::shared_ptr<StreamRegistry> registry;
        {
            std::lock_guard lock(mutex_);
            if (finished_)
                return;
            finished_ = ended_ = true;
            suspended_ = false;
            connection_ = nullptr;
            ended = std::move(onEnded_);
            registry = registry_;
        }
        if (registry) {
            std::lock_guard lock(registry->mutex);
            registry->live.erase(this);
            registry->changed.notify_all();
        }
        if (ended)
            ended();
    }

private:
    // The connection to resume, when it is suspended waiting for text. The library keeps a
    // suspended connection as it is until it is resumed, so it is still there when wake()
    // tells the library outside the lock.
    MHD_Connection* wakeLocked() {
        if (!suspended_)
            return nullptr;
        suspended_ = false;
        ++registry_->resuming;
        return connection_;
    }

    void wake(MHD_Connection* connection) {
        if (connection)
            resume(connection, *registry_);
    }

    mutable std::mutex mutex_;
    std::string pending_;
    bool ended_ = false;   // nothing more will be queued
    bool failed_ = false;  // the client fell behind: cut off rather than ended
    bool finished_ = false;
    bool suspended_ = false;
    MHD_Connection* connection_ = nullptr;
    std::shared_ptr<StreamRegistry> registry_;
    std::function<void()> onEnded_;
};

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

std::string canonicalAddress(std::string_view text) {
    const std::string copy(text);
    in_addr v4{};
    in6_addr v6{};
    char out[INET6_ADDRSTRLEN] = "";
    if (inet_pton(AF_INET, copy.c_str(), &v4) == 1)
        return inet_ntop(AF_INET, &v4, out, sizeof out);
    if (inet_pton(AF_INET6, copy.c_str(), &v6) == 1)
        return textOf(v6);
    return {};
}

std::shared_ptr<HttpStream> HttpResponse::openStream(std::function<void()> ended) {
    stream = std::make_shared<Stream>(std::move(ended));
    return stream;
}

std::shared_ptr<HttpDeferred> HttpResponse::defer() {
    deferred = std::make_shared<Deferred>();
    return deferred;
}

const std::string* HttpRequest::header(std::string_view lowerCaseName) const {
    for (const auto& [name, value] : headers) {
        if (name == lowerCaseName)
            return &value;
    }
    return nullptr;
}

struct HttpServer::Impl {
    explicit Impl(const HttpLimits& l)
        : limits(l), deadlines(l.requestTimeout, l.maxConnectionsPerAddress) {}

    const HttpRoute* find(const std::string& method, const std::string& path) const {
        for (const HttpRoute& r : routes) {
            if (r.method == method && r.path == path)
                return &r;
        }
        return nullptr;
    }

    void answer(MHD_Connection* connection, Exchange& exchange, const HttpResponse& response) {
        exchange.answered = true;
        deadlines.answered(connection);
        // Its place is free once the answer is on its way: the library may tell that the
        // request is complete only at its next look at the connection.
        if (!exchange.forwardedFor.empty()) {
            deadlines.endForwarded(exchange.forwardedFor);
            exchange.forwardedFor.clear();
        }
        MHD_Response* reply = MHD_create_response_from_buffer(
            response.body.size(), const_cast<char*>(response.body.data()), MHD_RESPMEM_MUST_COPY);
        queue(connection, exchange, reply, response);
    }

    // Sends reply with the response's status and headers, and lets go of it.
    static void queue(MHD_Connection* connection, const Exchange& exchange, MHD_Response* reply,
                      const HttpResponse& response) {
        MHD_add_response_header(reply, MHD_HTTP_HEADER_CONTENT_TYPE, response.contentType.c_str());
        // Note text must never be taken for markup or script, whatever a browser guesses.
        MHD_add_response_header(reply, "X-Content-Type-Options", "nosniff");
        for (const auto& [name, value] : response.headers)
            MHD_add_response_header(reply, name.c_str(), value.c_str());
        MHD_queue_response(connection, static_cast<unsigned>(response.status), reply);
        MHD_destroy_response(reply);
        logAnswer(exchange, response.status);
    }

    // The request's line of the log, written to standard error in one piece: the service's
    // log is its standard error (the journal, under systemd). Formatting it with Qt and also
    // handing it to syslog cost more than answering a note GET did.
    static void logAnswer(const Exchange& exchange, int status) {
        const double ms =
            std::chrono::duration<double, std::milli>(Clock::now() - exchange.began).count();
        const HttpRequest& request = exchange.request;
        std::string line;
        line.reserve(request.method.size() + request.path.size() + 32);
        appendEscaped(line, request.method);
        line.append(1, ' ');
        appendEscaped(line, request.path);
        char tail[64];
        const int n = std::snprintf(tail, sizeof tail, " %d %.2f ms\n", status, ms);
        line.append(tail, static_cast<std::size_t>(std::clamp(n, 0, int(sizeof tail) - 1)));
        for (std::size_t sent = 0; sent < line.size();) {
            const ssize_t written = ::write(STDERR_FILENO, line.data() + sent, line.size() - sent);
            if (written < 0 && errno == EINTR)
                continue;
            if (written <= 0)
                return;
            sent += static_cast<std::size_t>(written);
        }
    }

    // The route's own admission of the request; a failure in it refuses the request as a
    // failing handler would.
    bool admitted(Exchange& exchange, HttpResponse& refusal) {
        try {
            return exchange.route->admit(exchange.request, refusal);
        } catch (const std::exception&) {
            refusal = failedOnException(refusal);
        }
        return false;
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
        if (request.header("content-length") && request.header("transfer-encoding")) {
            // Two answers to where the body ends: the shape in which a proxy in front and this
            // service could be made to read one request as two. Nothing of it is read.
            refusal.status = 400;
            refusal.headers.emplace_back("Connection", "close");
            answer(connection, exchange, refusal);
            return;
        }
        if (deadlines.isExempt(request.clientAddress) && !forwarded(exchange, refusal)) {
            // refused: a forwarded address that is none, or a client over its share
        } else if (!exchange.route) {
            refusal.status = 404;
        } else if (length != SIZE_MAX && length > exchange.route->bodyLimit) {
            refusal.status = 413;
        } else if (!exchange.route->admit || admitted(exchange, refusal)) {
            return;
        }
        if (length <= kDrainBytes) {
            exchange.refusal = std::move(refusal);
        } else {
            answer(connection, exchange, refusal);
        }
    }

    // A request from a trusted proxy: the client is the one the proxy names. A proxy carries
    // many clients over connections of its own, so a client behind it is held to its share of
    // requests under way (streams included) rather than of connections. False when the
    // request is refused.
    bool forwarded(Exchange& exchange, HttpResponse& refusal) {
        HttpRequest& request = exchange.request;
        if (const std::string* list = lastHeader(request, "x-forwarded-for")) {
            // The proxy appends the address it saw; whatever stands before it came from the
            // client and proves nothing.
            const std::string client = canonicalAddress(lastElement(*list));
            if (client.empty()) {
                refusal.status = 400;
                return false;
            }
            request.clientAddress = client;
        }
        if (const std::string* scheme = lastHeader(request, "x-forwarded-proto")) {
            std::string value = lastElement(*scheme);
            for (char& c : value)
                c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            request.secure = value == "https";
        }
        if (!deadlines.beginForwarded(request.clientAddress)) {
            refusal.status = 429;
            return false;
        }
        exchange.forwardedFor = request.clientAddress;
        return true;
    }

    void handle(MHD_Connection* connection, Exchange& exchange) {
        HttpResponse response;
        try {
            exchange.route->handle(exchange.request, response);
        } catch (const std::exception&) {
            response = failedOnException(response);
        }
        if (response.stream) {
            stream(connection, exchange, response);
        } else if (auto later = std::dynamic_pointer_cast<Deferred>(response.deferred)) {
            exchange.deferred = later;
            if (later->wait(connection, streams))
                answer(connection, exchange, later->take());
        } else {
            answer(connection, exchange, response);
        }
    }

    // In place of response, within a catch block: 503 while the database is away (restarting,
    // unreachable), which says so at once and lets the client come back rather than hold the
    // request, else a 500.
    static HttpResponse failedOnException(HttpResponse& response) {
        try {
            throw;
        } catch (const StoreUnavailable& e) {
            foundation::log(QStringLiteral("%1").arg(QString::fromUtf8(e.what())));
            return failed(response, 503);
        } catch (const std::exception& e) {
            foundation::log(QStringLiteral("internal error: %1").arg(QString::fromUtf8(e.what())));
            return failed(response);
        }
    }

    // A plain error (500 unless said) in place of response; a stream it opened ends unstarted.
    static HttpResponse failed(HttpResponse& response, int status = 500) {
        if (auto opened = std::dynamic_pointer_cast<Stream>(response.stream))
            opened->finish();
        HttpResponse error;
        error.status = status;
        if (status == 503)
            error.headers.emplace_back("Retry-After", "2");
        return error;
    }

    void stream(MHD_Connection* connection, Exchange& exchange, HttpResponse& response) {
        auto stream = std::dynamic_pointer_cast<Stream>(response.stream);
        if (!stream) {
            answer(connection, exchange, failed(response));
            return;
        }
        exchange.answered = true;
        deadlines.disarm(connection);
        stream->bind(connection, streams);
        exchange.stream = stream;
        // A client that vanished without a word (a phone off the network) acknowledges
        // nothing; the system gives up on it after this long, so the next write fails.
        if (const MHD_ConnectionInfo* info =
                MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)) {
            const unsigned ms =
                static_cast<unsigned>(std::chrono::milliseconds(limits.idleTimeout).count());
            ::setsockopt(info->connect_fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &ms, sizeof ms);
        }
        auto* holder = new std::shared_ptr<Stream>(stream);
        MHD_Response* reply = MHD_create_response_from_callback(
            MHD_SIZE_UNKNOWN, kStreamBlock, &Stream::read, holder, &Stream::release);
        if (!reply) {
            delete holder;
            exchange.stream.reset();
            stream->finish();
            answer(connection, exchange, failed(response));
            return;
        }
        queue(connection, exchange, reply, response);
    }

    // Ends every stream and waits a moment for their ends to go out; afterwards no connection
    // is suspended or about to be resumed, as stopping the library requires.
    void endStreams() {
        std::vector<std::shared_ptr<Stream>> live;
        {
            std::lock_guard lock(streams->mutex);
            streams->stopping = true;
            for (const auto& [key, stream] : streams->live)
                live.push_back(stream);
        }
        for (const auto& stream : live)
            stream->close();
        live.clear();
        // Answers still to come are given up on: each of those requests gets a 503.
        std::vector<std::shared_ptr<Deferred>> waiting;
        {
            std::lock_guard lock(streams->mutex);
            for (const auto& [key, deferred] : streams->waiting)
                waiting.push_back(deferred);
        }
        for (const auto& deferred : waiting)
            deferred->answer(Deferred::unavailable());
        waiting.clear();
        std::unique_lock lock(streams->mutex);
        streams->changed.wait_for(lock, std::chrono::seconds(1), [this] {
            return streams->live.empty() && streams->waiting.empty();
        });
        streams->changed.wait(lock, [this] { return streams->resuming == 0; });
    }

    static void* began(void* self, const char* uri, MHD_Connection* connection) {
        static_cast<Impl*>(self)->deadlines.requestBegan(connection);
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
        } else if (exchange.deferred) {
            // Resumed: the answer has come.
            impl.answer(connection, exchange, exchange.deferred->take());
        } else {
            impl.handle(connection, exchange);
        }
        return MHD_YES;
    }

    static void completed(void* self, MHD_Connection* connection, void** context,
                          MHD_RequestTerminationCode) {
        Impl& impl = *static_cast<Impl*>(self);
        if (auto* exchange = static_cast<Exchange*>(*context)) {
            if (exchange->stream)
                exchange->stream->finish();
            if (exchange->deferred)
                exchange->deferred->abandon();
            if (!exchange->forwardedFor.empty())
                impl.deadlines.endForwarded(exchange->forwardedFor);
            delete exchange;
        }
        *context = nullptr;
        // A kept-alive connection now waits for its next request.
        impl.deadlines.arm(connection);
    }

    static MHD_Result acceptable(void* self, const sockaddr* address, socklen_t) {
        return static_cast<Impl*>(self)->deadlines.admissible(numericAddress(address)) ? MHD_YES
                                                                                       : MHD_NO;
    }

    static void connectionEvent(void* self, MHD_Connection* connection, void**,
                                MHD_ConnectionNotificationCode code) {
        Impl& impl = *static_cast<Impl*>(self);
        if (code == MHD_CONNECTION_NOTIFY_STARTED) {
            const MHD_ConnectionInfo* socket =
                MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
            const MHD_ConnectionInfo* peer =
                MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
            if (socket) {
                impl.deadlines.opened(connection, socket->connect_fd,
                                      numericAddress(peer ? peer->client_addr : nullptr));
            }
        } else {
            impl.deadlines.closed(connection);
            --impl.connections;
        }
    }

    // A connection the acceptor took: handed to the library while there is room, else closed
    // at once. The library keeps a limit of its own for each of its workers, and a worker that
    // reaches it with a connection handed over locks itself up for good (libmicrohttpd 0.9.75),
    // so the total is kept here and the library's limit set where no worker can reach it.
    void take(int socket, const sockaddr* peer, socklen_t size) {
        if (connections.fetch_add(1) >= limits.maxConnections) {
            --connections;
            ::close(socket);
            return;
        }
        // Refused (the accept policy): the library has closed it, and it never opened.
        if (MHD_add_connection(daemon, socket, peer, size) != MHD_YES)
            --connections;
    }

    HttpLimits limits;
    std::vector<HttpRoute> routes;
    RequestDeadlines deadlines;
    std::shared_ptr<StreamRegistry> streams = std::make_shared<StreamRegistry>();
    std::string certificate;
    std::string key;
    MHD_Daemon* daemon = nullptr;
    std::unique_ptr<ConnectionAcceptor> acceptor;
    // Connections handed to the library and not yet closed.
    std::atomic<unsigned> connections{0};
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
    for (const std::string& proxy : impl_->limits.trustedProxies) {
        const std::string address = canonicalAddress(proxy);
        if (address.empty())
            return "not a numeric address: " + proxy;
        impl_->deadlines.exempt(address);
    }
    std::string error;
    const int socket = listenOn(host, port, error);
    if (socket < 0)
        return error;
    impl_->streams->stopping = false;
    impl_->certificate = certificatePem;
    impl_->key = keyPem;
    Impl* impl = impl_.get();
    const HttpLimits& l = impl->limits;
    // Suspending is how a stream waits for its next text without spinning. The connections come
    // from the acceptor, which needs the workers woken for each one it hands over.
    unsigned flags = MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_ERROR_LOG | MHD_ALLOW_SUSPEND_RESUME |
                     MHD_USE_NO_LISTEN_SOCKET | MHD_USE_ITC;
    if (tls)
        flags |= MHD_USE_TLS;
    // The logger comes first, so that no message of the library escapes it.
    std::vector<MHD_OptionItem> options = {
        {MHD_OPTION_EXTERNAL_LOGGER, reinterpret_cast<intptr_t>(&logLibraryMessage), nullptr},
        {MHD_OPTION_THREAD_POOL_SIZE, l.threads, nullptr},
        // Each worker gets its share of this: all of them, and then some (see take()).
        {MHD_OPTION_CONNECTION_LIMIT, (l.maxConnections + 1) * l.threads, nullptr},
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
    // Each address's share is kept by the deadlines' book (through the accept policy), which
    // makes room by closing an idle connection where the library's own limit would refuse.
    impl->daemon = MHD_start_daemon(flags, 0, &Impl::acceptable, impl, &Impl::access, impl,
                                    MHD_OPTION_ARRAY, options.data(), MHD_OPTION_END);
    if (!impl->daemon) {
        ::close(socket);
        return tls ? "cannot start: the TLS certificate or key is not usable"
                   : "cannot start the HTTP server";
    }
    // The library gives each connection to a worker by its descriptor's number, so
    // connections accepted one after another go round the workers.
    try {
        impl->acceptor = std::make_unique<ConnectionAcceptor>(
            socket, [impl](int connection, const sockaddr* peer, socklen_t size) {
                impl->take(connection, peer, size);
            });
    } catch (const std::exception& e) {
        MHD_stop_daemon(impl->daemon);
        impl->daemon = nullptr;
        return e.what();
    }
    return {};
}

void HttpServer::stop() {
    if (impl_->daemon) {
        impl_->acceptor.reset();
        impl_->endStreams();
        MHD_stop_daemon(impl_->daemon);
        impl_->daemon = nullptr;
    }
}

}  // namespace notes
