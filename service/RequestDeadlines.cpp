// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/RequestDeadlines.h"

#include <sys/socket.h>

namespace notes {

namespace {
// How late a cut may come; a fraction of a second is nothing against time-outs of seconds.
constexpr std::chrono::milliseconds kTick{250};
}  // namespace

RequestDeadlines::RequestDeadlines(std::chrono::seconds timeout)
    : timeout_(timeout), thread_([this] { run(); }) {}

RequestDeadlines::~RequestDeadlines() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

void RequestDeadlines::opened(const void* connection, int socket) {
    std::lock_guard lock(mutex_);
    watches_[connection] = Watch{socket, true, Clock::now() + timeout_};
}

void RequestDeadlines::arm(const void* connection) {
    std::lock_guard lock(mutex_);
    auto it = watches_.find(connection);
    if (it != watches_.end()) {
        it->second.armed = true;
        it->second.deadline = Clock::now() + timeout_;
    }
}

void RequestDeadlines::disarm(const void* connection) {
    std::lock_guard lock(mutex_);
    auto it = watches_.find(connection);
    if (it != watches_.end())
        it->second.armed = false;
}

void RequestDeadlines::closed(const void* connection) {
    std::lock_guard lock(mutex_);
    watches_.erase(connection);
}

void RequestDeadlines::run() {
    std::unique_lock lock(mutex_);
    while (!wake_.wait_for(lock, kTick, [this] { return stopping_; })) {
        const Clock::time_point now = Clock::now();
        for (auto& [connection, watch] : watches_) {
            if (watch.armed && watch.deadline <= now) {
                watch.armed = false;
                ::shutdown(watch.socket, SHUT_RDWR);
            }
        }
    }
}

}  // namespace notes
