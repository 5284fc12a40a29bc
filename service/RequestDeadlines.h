// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>

namespace notes {

// Every open connection of the server, with its socket, its client's address and whether it
// waits for a request. Two jobs:
//
// Request deadlines. The HTTP library closes only connections that fall silent; one that sends
// a byte every few seconds would keep its slot for ever. A connection is armed while it waits
// for a request and disarmed once the request is complete (for good while it streams an
// answer); when an armed deadline passes, the socket is shut down from here and the library
// closes the connection on its next look at it.
//
// Each address's share of connections. When an address has its share open and one more
// arrives, the one of them that has waited longest for its next request is shut down the same
// way and the newcomer is taken; it is refused only when none of them waits. So a device that
// hoards idle connections (or many devices behind one home router) cannot lock the others of
// that address out, while connections that are busy (a request under way, a stream) are never
// cut to make room.
class RequestDeadlines {
public:
    using Clock = std::chrono::steady_clock;

    RequestDeadlines(std::chrono::seconds timeout, unsigned perAddress);
    ~RequestDeadlines();
    RequestDeadlines(const RequestDeadlines&) = delete;
    RequestDeadlines& operator=(const RequestDeadlines&) = delete;

    // Connections from these addresses (trusted proxies, which carry many clients) are not
    // held to the per-address share.
    void exempt(const std::string& address);
    bool isExempt(const std::string& address) const;

    // Whether a connection from address is worth accepting: its address has room, or has a
    // waiting connection to give up. Advisory: opened() decides.
    bool admissible(const std::string& address);
    // A new connection (`connection` identifies it; `socket` is what gets shut down). Returns
    // false when it must be refused, in which case its socket has been shut down already.
    bool opened(const void* connection, int socket, const std::string& address);
    // The request line of a request has arrived: no longer waiting.
    void requestBegan(const void* connection);
    // The answer is on its way: the connection waits for its next request from now on (the
    // library may tell that the request is complete only later, at its next look).
    void answered(const void* connection);
    // The answer streams: busy, and free of the deadline, until the request is complete.
    void disarm(const void* connection);
    // The request is complete: the next one must arrive within the deadline.
    void arm(const void* connection);
    // Must come before the socket is closed, so that a reused descriptor is never touched.
    void closed(const void* connection);

    // Requests under way of one client behind a trusted proxy: false (and nothing counted)
    // when that client has its share under way already.
    bool beginForwarded(const std::string& address);
    void endForwarded(const std::string& address);

private:
    struct Watch {
        int socket = -1;
        std::string address;
        bool counted = false;     // holds a place in its address's share
        bool cut = false;         // shut down to make room, or refused
        bool waiting = true;      // between requests: may be closed to make room
        bool armed = false;       // held to the deadline
        Clock::time_point since;  // waiting since
        Clock::time_point deadline;
    };
    // The counted connection of address that has waited longest for its next request with
    // all of its last answer in the client's hands, or nullptr.
    Watch* longestWaiting(const std::string& address);
    void run();

    const std::chrono::seconds timeout_;
    const unsigned perAddress_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::unordered_set<std::string> exempt_;
    std::unordered_map<const void*, Watch> watches_;
    std::unordered_map<std::string, unsigned> open_;       // counted connections per address
    std::unordered_map<std::string, unsigned> forwarded_;  // requests per proxied client
    std::thread thread_;
};

}  // namespace notes
