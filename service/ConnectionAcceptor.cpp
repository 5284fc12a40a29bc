// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/ConnectionAcceptor.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <stdexcept>

namespace notes {

ConnectionAcceptor::ConnectionAcceptor(int listening, Handler handler)
    : listening_(listening), wake_(::eventfd(0, EFD_CLOEXEC)), handler_(std::move(handler)) {
    if (wake_ < 0) {
        ::close(listening_);
        throw std::runtime_error("cannot make an event descriptor");
    }
    thread_ = std::thread([this] { run(); });
}

ConnectionAcceptor::~ConnectionAcceptor() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(wake_, &one, sizeof one);
    thread_.join();
    ::close(wake_);
    ::close(listening_);
}

void ConnectionAcceptor::run() {
    pollfd watched[] = {{wake_, POLLIN, 0}, {listening_, POLLIN, 0}};
    // Out of descriptors or memory, the waiting connections stay queued (the socket stays
    // readable), so the next try waits a moment instead of spinning.
    bool pause = false;
    for (;;) {
        const int ready = ::poll(watched, pause ? 1 : 2, pause ? 100 : -1);
        if (ready < 0) {
            if (errno != EINTR)
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            continue;
        }
        if (watched[0].revents & POLLIN)
            return;
        pause = false;
        for (;;) {
            sockaddr_storage peer{};
            socklen_t length = sizeof peer;
            const int socket = ::accept4(listening_, reinterpret_cast<sockaddr*>(&peer), &length,
                                         SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (socket >= 0) {
                handler_(socket, reinterpret_cast<const sockaddr*>(&peer), length);
                continue;
            }
            if (errno == EINTR || errno == ECONNABORTED)
                continue;  // a client gone before it was taken
            pause = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
            break;  // nothing more waiting, or no room for it now
        }
    }
}

}  // namespace notes
