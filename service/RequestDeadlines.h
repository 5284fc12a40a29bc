// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <unordered_map>

namespace notes {

// Cuts off connections that take too long to deliver a request. The HTTP library closes only
// connections that fall silent; one that sends a byte every few seconds would keep its slot for
// ever. A connection is armed while it waits for a request and disarmed once the request is
// complete; when an armed deadline passes, the socket is shut down from here and the library
// closes the connection on its next look at it.
class RequestDeadlines {
public:
    using Clock = std::chrono::steady_clock;

    explicit RequestDeadlines(std::chrono::seconds timeout);
    ~RequestDeadlines();
    RequestDeadlines(const RequestDeadlines&) = delete;
    RequestDeadlines& operator=(const RequestDeadlines&) = delete;

    // `connection` identifies the connection; `socket` is shut down when it is overdue.
    void opened(const void* connection, int socket);
    void arm(const void* connection);
    void disarm(const void* connection);
    // Must come before the socket is closed, so that a reused descriptor is never touched.
    void closed(const void* connection);

private:
    struct Watch {
        int socket = -1;
        bool armed = false;
        Clock::time_point deadline;
    };
    void run();

    const std::chrono::seconds timeout_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::unordered_map<const void*, Watch> watches_;
    std::thread thread_;
};

}  // namespace notes
