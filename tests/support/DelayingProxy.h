// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <atomic>
#include <chrono>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

namespace testsupport {

// A slow line between a client and a server: a TCP proxy on a free loopback port that passes
// every byte on to the target port, each way, the given time after it arrived (a phone on
// mobile data, a home server far away). Order and content are kept; a side that closes is
// closed on the other side once its last bytes have gone through.
class DelayingProxy {
public:
    DelayingProxy(int targetPort, std::chrono::milliseconds delay);
    ~DelayingProxy();
    DelayingProxy(const DelayingProxy&) = delete;
    DelayingProxy& operator=(const DelayingProxy&) = delete;

    int port() const { return port_; }
    QString baseUrl() const;  // "http://127.0.0.1:PORT"

private:
    struct Link;
    void accept();

    int targetPort_;
    std::chrono::milliseconds delay_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stopping_{false};
    std::thread acceptor_;
    std::mutex mutex_;
    std::list<std::unique_ptr<Link>> links_;
};

}  // namespace testsupport
