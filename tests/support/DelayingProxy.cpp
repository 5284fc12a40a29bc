// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/support/DelayingProxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <deque>
#include <string>

namespace testsupport {

namespace {

using Clock = std::chrono::steady_clock;

int connectTo(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0)
        return fd;
    if (fd >= 0)
        ::close(fd);
    return -1;
}

// One direction of a link: what is read from one socket is written to the other once its
// time has come. The end of the input is passed on as a half close.
class Direction {
public:
    Direction(int from, int to, std::chrono::milliseconds delay)
        : from_(from), to_(to), delay_(delay) {
        reader_ = std::thread([this] { read(); });
        writer_ = std::thread([this] { write(); });
    }
    ~Direction() {
        {
            std::lock_guard lock(mutex_);
            stopped_ = true;
        }
        ready_.notify_all();
        reader_.join();
        writer_.join();
    }

private:
    struct Piece {
        Clock::time_point due;
        std::string bytes;  // empty: the input ended
    };

    void read() {
        char buffer[64 * 1024];
        for (;;) {
            pollfd p{from_, POLLIN, 0};
            const int ready = ::poll(&p, 1, 100);
            {
                std::lock_guard lock(mutex_);
                if (stopped_)
                    return;
            }
            if (ready <= 0)
                continue;
            const ssize_t n = ::recv(from_, buffer, sizeof buffer, 0);
            std::lock_guard lock(mutex_);
            pieces_.push_back(
                Piece{Clock::now() + delay_, n > 0 ? std::string(buffer, std::size_t(n)) : ""});
            ready_.notify_all();
            if (n <= 0)
                return;
        }
    }

    void write() {
        std::unique_lock lock(mutex_);
        for (;;) {
            ready_.wait(lock, [this] { return stopped_ || !pieces_.empty(); });
            if (stopped_)
                return;
            const Clock::time_point due = pieces_.front().due;
            if (ready_.wait_until(lock, due, [this] { return stopped_; }))
                return;
            Piece piece = std::move(pieces_.front());
            pieces_.pop_front();
            lock.unlock();
            if (piece.bytes.empty()) {
                ::shutdown(to_, SHUT_WR);
                return;
            }
            for (std::size_t sent = 0; sent < piece.bytes.size();) {
                const ssize_t n =
                    ::send(to_, piece.bytes.data() + sent, piece.bytes.size() - sent, MSG_NOSIGNAL);
                if (n <= 0) {
                    ::shutdown(from_, SHUT_RDWR);  // nobody takes what comes: end the link
                    return;
                }
                sent += std::size_t(n);
            }
            lock.lock();
        }
    }

    int from_;
    int to_;
    std::chrono::milliseconds delay_;
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<Piece> pieces_;
    bool stopped_ = false;
    std::thread reader_;
    std::thread writer_;
};

}  // namespace

struct DelayingProxy::Link {
    Link(int client, int server, std::chrono::milliseconds delay)
        : client(client),
          server(server),
          up(std::make_unique<Direction>(client, server, delay)),
          down(std::make_unique<Direction>(server, client, delay)) {}
    ~Link() {
        ::shutdown(client, SHUT_RDWR);
        ::shutdown(server, SHUT_RDWR);
        up.reset();
        down.reset();
        ::close(client);
        ::close(server);
    }
    int client;
    int server;
    std::unique_ptr<Direction> up;
    std::unique_ptr<Direction> down;
};

DelayingProxy::DelayingProxy(int targetPort, std::chrono::milliseconds delay)
    : targetPort_(targetPort), delay_(delay) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener_, 128) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return;
    }
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { accept(); });
}

DelayingProxy::~DelayingProxy() {
    stopping_ = true;
    if (acceptor_.joinable())
        acceptor_.join();
    if (listener_ >= 0)
        ::close(listener_);
    std::lock_guard lock(mutex_);
    links_.clear();
}

QString DelayingProxy::baseUrl() const {
    return QStringLiteral("http://127.0.0.1:%1").arg(port_);
}

void DelayingProxy::accept() {
    while (!stopping_) {
        pollfd p{listener_, POLLIN, 0};
        if (::poll(&p, 1, 100) <= 0)
            continue;
        const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0)
            continue;
        const int server = connectTo(targetPort_);
        if (server < 0) {
            ::close(client);
            continue;
        }
        std::lock_guard lock(mutex_);
        links_.push_back(std::make_unique<Link>(client, server, delay_));
    }
}

}  // namespace testsupport
