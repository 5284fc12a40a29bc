// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/RequestDeadlines.h"

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>

namespace notes {

namespace {
// How late a cut may come; a fraction of a second is nothing against time-outs of seconds.
constexpr std::chrono::milliseconds kTick{250};

// Everything written to the socket has reached the client (nothing unsent or unacknowledged):
// a connection still delivering an answer, a large note to a slow phone, is not idle.
bool allTaken(int socket) {
    int queued = 0;
    return ::ioctl(socket, TIOCOUTQ, &queued) != 0 || queued == 0;
}
}  // namespace

RequestDeadlines::RequestDeadlines(std::chrono::seconds timeout, unsigned perAddress)
    : timeout_(timeout), perAddress_(perAddress), thread_([this] { run(); }) {}

RequestDeadlines::~RequestDeadlines() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

void RequestDeadlines::exempt(const std::string& address) {
    std::lock_guard lock(mutex_);
    exempt_.insert(address);
}

bool RequestDeadlines::isExempt(const std::string& address) const {
    // Filled before the server starts, read only afterwards.
    return exempt_.count(address) > 0;
}

RequestDeadlines::Watch* RequestDeadlines::longestWaiting(const std::string& address) {
    Watch* found = nullptr;
    for (auto& [connection, watch] : watches_) {
        if (watch.counted && watch.waiting && watch.address == address &&
            (!found || watch.since < found->since) && allTaken(watch.socket)) {
            found = &watch;
        }
    }
    return found;
}

bool RequestDeadlines::admissible(const std::string& address) {
    if (isExempt(address))
        return true;
    std::lock_guard lock(mutex_);
    const auto open = open_.find(address);
    return open == open_.end() || open->second < perAddress_ || longestWaiting(address);
}

bool RequestDeadlines::opened(const void* connection, int socket, const std::string& address) {
    const Clock::time_point now = Clock::now();
    std::lock_guard lock(mutex_);
    Watch& watch = watches_[connection];
    watch = Watch{socket, address, false, false, true, true, now, now + timeout_};
    if (isExempt(address))
        return true;
    unsigned& open = open_[address];
    if (open >= perAddress_) {
        Watch* idle = longestWaiting(address);
        if (!idle) {
            // All of that address's connections are busy: this one goes, and closed() follows.
            watch.cut = true;
            watch.waiting = watch.armed = false;
            ::shutdown(socket, SHUT_RDWR);
            return false;
        }
        // It no longer counts: its place is the newcomer's from now, though the library
        // closes it only on its next look.
        idle->counted = false;
        idle->cut = true;
        idle->waiting = idle->armed = false;
        ::shutdown(idle->socket, SHUT_RDWR);
        --open;
    }
    ++open;
    watch.counted = true;
    return true;
}

void RequestDeadlines::requestBegan(const void* connection) {
    std::lock_guard lock(mutex_);
    auto it = watches_.find(connection);
    if (it != watches_.end())
        it->second.waiting = false;
}

void RequestDeadlines::answered(const void* connection) {
    const Clock::time_point now = Clock::now();
    std::lock_guard lock(mutex_);
    auto it = watches_.find(connection);
    if (it != watches_.end()) {
        it->second.armed = false;
        if (!it->second.cut) {
            it->second.waiting = true;
            it->second.since = now;
        }
    }
}

void RequestDeadlines::arm(const void* connection) {
    const Clock::time_point now = Clock::now();
    std::lock_guard lock(mutex_);
    auto it = watches_.find(connection);
    if (it != watches_.end() && !it->second.cut) {
        it->second.armed = true;
        it->second.deadline = now + timeout_;
        if (!it->second.waiting) {  // after a stream
            it->second.waiting = true;
            it->second.since = now;
        }
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
    auto it = watches_.find(connection);
    if (it == watches_.end())
        return;
    if (it->second.counted) {
        auto open = open_.find(it->second.address);
        if (open != open_.end() && --open->second == 0)
            open_.erase(open);
    }
    watches_.erase(it);
}

bool RequestDeadlines::beginForwarded(const std::string& address) {
    std::lock_guard lock(mutex_);
    unsigned& count = forwarded_[address];
    if (count >= perAddress_)
        return false;
    ++count;
    return true;
}

void RequestDeadlines::endForwarded(const std::string& address) {
    std::lock_guard lock(mutex_);
    auto it = forwarded_.find(address);
    if (it != forwarded_.end() && --it->second == 0)
        forwarded_.erase(it);
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
