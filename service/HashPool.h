// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace notes {

// Threads of their own for checking passwords, which is slow on purpose (PBKDF2, about a
// tenth of a second each). A flood of logins then costs the service these threads' processors
// and never a worker that answers requests: the owner's requests go on being answered. Jobs
// wait in a queue of bounded length; one more is refused at once.
class HashPool {
public:
    HashPool(unsigned threads, std::size_t queueLimit);
    // Finishes the jobs under way and drops those still waiting.
    ~HashPool();
    HashPool(const HashPool&) = delete;
    HashPool& operator=(const HashPool&) = delete;

    // Queues job; false (and job dropped) when the queue is full.
    bool submit(std::function<void()> job);

    // One thread for every two processors, at least one: half the machine at most.
    static unsigned defaultThreads();

private:
    void run();

    const std::size_t queueLimit_;
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<std::function<void()>> queue_;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

}  // namespace notes
