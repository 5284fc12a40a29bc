// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/HashPool.h"

#include <algorithm>
#include <exception>

namespace notes {

HashPool::HashPool(unsigned threads, std::size_t queueLimit) : queueLimit_(queueLimit) {
    for (unsigned i = 0; i < std::max(threads, 1u); ++i)
        threads_.emplace_back([this] { run(); });
}

HashPool::~HashPool() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        queue_.clear();
    }
    ready_.notify_all();
    for (std::thread& thread : threads_)
        thread.join();
}

unsigned HashPool::defaultThreads() {
    return std::max(1u, std::thread::hardware_concurrency() / 2);
}

bool HashPool::submit(std::function<void()> job) {
    {
        std::lock_guard lock(mutex_);
        if (stopping_ || queue_.size() >= queueLimit_)
            return false;
        queue_.push_back(std::move(job));
    }
    ready_.notify_one();
    return true;
}

void HashPool::run() {
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock lock(mutex_);
            ready_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
            if (stopping_)
                return;
            job = std::move(queue_.front());
            queue_.pop_front();
        }
        try {
            job();
        } catch (const std::exception&) {
            // A job answers its own request, failures included; nothing is left to do here.
        }
    }
}

}  // namespace notes
