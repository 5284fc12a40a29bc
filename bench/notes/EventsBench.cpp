// SPDX-License-Identifier: GPL-3.0-or-later
// ferrybox-notes with change streams open, over loopback against the real binary (the Release
// build beside this benchmark, or FERRYBOX_NOTES_BINARY):
//  - BM_NoteGet/streams:N: note GETs per second from 8 keep-alive clients while N event
//    streams of the account are open (0 and 1,000, in the same run);
//  - BM_ChangeAnnounced/streams:N: from sending a note update until the event that announces
//    it has reached a listening client (the time; the counter after_answer is the part after
//    the update's answer), with N other streams of the account open, each of which is told too.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>
#include <QCoreApplication>
#include <QProcess>
#include <QTemporaryDir>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

const char kEmail[] = "bench@example.org";
const char kPassword[] = "secret";
constexpr int kMaxStreams = 1000;
// base64 of "Ferrybox_Downloads\nhttps://example.org/file.zip\n"
const char kNoteText[] = "RmVycnlib3hfRG93bmxvYWRzCmh0dHBzOi8vZXhhbXBsZS5vcmcvZmlsZS56aXAK";

// A blocking loopback connection from a chosen source address.
class Connection {
public:
    Connection(const char* source, int port) {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in from{}, to{};
        from.sin_family = to.sin_family = AF_INET;
        ::inet_pton(AF_INET, source, &from.sin_addr);
        ::inet_pton(AF_INET, "127.0.0.1", &to.sin_addr);
        to.sin_port = htons(static_cast<uint16_t>(port));
        const int yes = 1;
        ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
        if (::bind(fd_, reinterpret_cast<sockaddr*>(&from), sizeof from) != 0 ||
            ::connect(fd_, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) {
            throw std::runtime_error(std::string("cannot connect: ") + std::strerror(errno));
        }
    }
    ~Connection() { ::close(fd_); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void send(const std::string& bytes) {
        for (std::size_t at = 0; at < bytes.size();) {
            const ssize_t n = ::send(fd_, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
            if (n <= 0)
                throw std::runtime_error("the service hung up");
            at += static_cast<std::size_t>(n);
        }
    }

    // Reads until `text` has come (what came before it and it are taken), within 10 s.
    std::string readPast(const std::string& text) {
        const auto deadline = Clock::now() + std::chrono::seconds(10);
        std::size_t at;
        while ((at = buffer_.find(text)) == std::string::npos) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            pollfd p{fd_, POLLIN, 0};
            if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) != 1)
                throw std::runtime_error("nothing came within 10 s");
            char chunk[16384];
            const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
            if (n <= 0)
                throw std::runtime_error("the service hung up");
            buffer_.append(chunk, static_cast<std::size_t>(n));
        }
        std::string taken = buffer_.substr(0, at + text.size());
        buffer_.erase(0, at + text.size());
        return taken;
    }

    // One whole answer with a Content-Length: its status and body.
    std::pair<int, std::string> answer() {
        const std::string head = readPast("\r\n\r\n");
        std::size_t length = 0;
        const std::size_t field = head.find("Content-Length: ");
        if (field != std::string::npos)
            length = std::strtoul(head.c_str() + field + 16, nullptr, 10);
        while (buffer_.size() < length) {
            char chunk[16384];
            const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
            if (n <= 0)
                throw std::runtime_error("the service hung up");
            buffer_.append(chunk, static_cast<std::size_t>(n));
        }
        std::string body = buffer_.substr(0, length);
        buffer_.erase(0, length);
        return {std::atoi(head.c_str() + head.find(' ') + 1), body};
    }

private:
    int fd_ = -1;
    std::string buffer_;
};

int freePort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    ::close(fd);
    return ntohs(address.sin_port);
}

// The service, one account with one note, started once for the process.
class Service {
public:
    void start() {
        QString binary = qEnvironmentVariable("FERRYBOX_NOTES_BINARY");
        if (binary.isEmpty())
            binary = QStringLiteral(FERRYBOX_NOTES_BINARY);
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("FERRYBOX_NOTES_HASH_ITERATIONS"), QStringLiteral("1000"));
        const QString db = dir_.path() + QStringLiteral("/notes.db");
        QProcess add;
        add.setProcessEnvironment(env);
        add.start(binary, {QStringLiteral("add-user"), QString::fromLatin1(kEmail),
                           QStringLiteral("--db"), db});
        add.write(QByteArray(kPassword) + "\n");
        add.closeWriteChannel();
        if (!add.waitForFinished(20000) || add.exitCode() != 0)
            throw std::runtime_error("add-user failed: " + binary.toStdString());
        port_ = freePort();
        serve_.setProcessEnvironment(env);
        serve_.setStandardErrorFile(QProcess::nullDevice());  // one line per request
        serve_.start(binary, {QStringLiteral("serve"), QStringLiteral("--listen"),
                              QStringLiteral("127.0.0.1:%1").arg(port_), QStringLiteral("--db"), db,
                              QStringLiteral("--max-connections"), QStringLiteral("2000"),
                              QStringLiteral("--max-event-streams-per-account"),
                              QString::number(kMaxStreams + 100)});
        if (!serve_.waitForStarted(5000))
            throw std::runtime_error("cannot start " + binary.toStdString());
        for (int i = 0; i < 100; ++i) {
            try {
                Connection probe("127.0.0.1", port_);
                break;
            } catch (const std::exception&) {
                ::usleep(100000);  // until it listens
            }
        }
        Connection c("127.0.0.1", port_);
        const std::string form =
            QByteArray(
                std::string("email=" + std::string(kEmail) + "&password=" + kPassword).c_str())
                .toBase64()
                .toStdString();
        c.send("POST /api/login HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: " +
               std::to_string(form.size()) + "\r\n\r\n" + form);
        const auto [status, token] = c.answer();
        if (status != 200)
            throw std::runtime_error("login failed");
        auth_ = "auth=" + token + "&email=" + kEmail;
        c.send(post("/api/note?" + auth_, kNoteText));
        key_ = c.answer().second;
    }

    void stop() {
        serve_.terminate();
        serve_.waitForFinished(10000);
    }

    static std::string post(const std::string& target, const std::string& body) {
        return "POST " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: " +
               "application/x-www-form-urlencoded\r\nContent-Length: " +
               std::to_string(body.size()) + "\r\n\r\n" + body;
    }

    // An event stream of the account from source, once it has said it is ready.
    std::unique_ptr<Connection> openStream(const char* source) {
        auto stream = std::make_unique<Connection>(source, port_);
        stream->send("GET /api/events?" + auth_ + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
        stream->readPast(": ready\n\n");
        return stream;
    }

    // Opens or closes streams until `count` are open, from ten source addresses in turn (each
    // well within the per-address limit).
    void holdStreams(std::size_t count) {
        if (streams_.size() > count) {
            while (streams_.size() > count)
                streams_.pop_back();
            // The service finds a closed stream when a write to it fails, at the latest at its
            // heartbeat; a few changes make it find them all now.
            Connection writer("127.0.0.5", port_);
            for (int i = 0; i < 3; ++i) {
                writer.send(post("/api/note?" + auth_ + "&key=" + key_, kNoteText));
                writer.answer();
                ::usleep(50000);
            }
        }
        while (streams_.size() < count) {
            const std::string source = "127.0.0." + std::to_string(10 + streams_.size() % 10);
            streams_.push_back(openStream(source.c_str()));
        }
    }

    int port() const { return port_; }
    const std::string& auth() const { return auth_; }
    const std::string& key() const { return key_; }

private:
    QTemporaryDir dir_;
    QProcess serve_;
    int port_ = 0;
    std::string auth_;
    std::string key_;
    std::vector<std::unique_ptr<Connection>> streams_;
};

Service* service = nullptr;

void holdStreams(const benchmark::State& state) {
    service->holdStreams(static_cast<std::size_t>(state.range(0)));
}

void BM_NoteGet(benchmark::State& state) {
    Connection client("127.0.0.2", service->port());
    const std::string request = "GET /api/note?" + service->auth() + "&key=" + service->key() +
                                " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
    for (auto _ : state) {
        client.send(request);
        if (client.answer().first != 200) {
            state.SkipWithError("a note GET failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_NoteGet)
    ->ArgName("streams")
    ->Arg(0)
    ->Arg(kMaxStreams)
    ->Setup(holdStreams)
    ->Threads(8)
    ->UseRealTime()
    ->MinTime(3)
    ->Unit(benchmark::kMicrosecond);

void BM_ChangeAnnounced(benchmark::State& state) {
    auto listener = service->openStream("127.0.0.3");
    Connection writer("127.0.0.4", service->port());
    const std::string target = "/api/note?" + service->auth() + "&key=" + service->key();
    const std::string event = "data: {\"key\":\"" + service->key() + "\"}\n\n";
    int round = 0;
    double afterAnswer = 0;
    for (auto _ : state) {
        const std::string text = QByteArray("Ferrybox_Downloads\nhttps://example.org/" +
                                            QByteArray::number(++round) + ".zip\n")
                                     .toBase64()
                                     .toStdString();
        const auto sent = Clock::now();
        writer.send(Service::post(target, text));
        if (writer.answer().first != 200) {
            state.SkipWithError("a note update failed");
            break;
        }
        const auto answered = Clock::now();
        listener->readPast(event);
        const auto heard = Clock::now();
        state.SetIterationTime(std::chrono::duration<double>(heard - sent).count());
        afterAnswer += std::chrono::duration<double, std::micro>(heard - answered).count();
    }
    state.counters["after_answer_us"] =
        benchmark::Counter(afterAnswer / std::max<double>(1, static_cast<double>(round)));
}
BENCHMARK(BM_ChangeAnnounced)
    ->ArgName("streams")
    ->Arg(0)
    ->Arg(kMaxStreams)
    ->Setup(holdStreams)
    ->UseManualTime()
    ->Iterations(200)
    ->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    // A thousand streams and the clients: more descriptors than the usual soft limit allows,
    // here and in the service, which inherits it.
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &files);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    Service running;
    try {
        running.start();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "events_bench: %s\n", e.what());
        return 1;
    }
    service = &running;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    running.holdStreams(0);
    running.stop();
    return 0;
}
