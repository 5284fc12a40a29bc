// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/EventStreams.h"

#include <algorithm>

#include "Classes/TWJSON/TWJsonWriter.h"

namespace notes {

namespace {

// Tells a browser's EventSource how long to wait before it opens a lost stream again, and the
// client that the stream is live.
constexpr char kPreamble[] = "retry: 2000\n: ready\n\n";
constexpr char kHeartbeat[] = ": heartbeat\n\n";

}  // namespace

EventStreams::EventStreams(const Settings& settings)
    : settings_(settings), thread_([this] { run(); }) {}

EventStreams::~EventStreams() {
    std::vector<std::shared_ptr<HttpStream>> open;
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        for (const auto& [account, entries] : streams_) {
            for (const auto& entry : entries)
                open.push_back(entry->stream);
        }
    }
    wake_.notify_all();
    thread_.join();
    for (const auto& stream : open)
        stream->close();
}

bool EventStreams::open(qint64 account, HttpResponse& response) {
    std::shared_ptr<HttpStream> stream;
    {
        std::lock_guard lock(mutex_);
        auto& entries = streams_[account];
        if (entries.size() >= settings_.perAccount)
            return false;
        auto entry = std::make_shared<Entry>();
        entry->nextHeartbeat = Clock::now() + settings_.heartbeat;
        entry->stream =
            response.openStream([this, account, e = entry.get()] { ended(account, e); });
        entries.push_back(entry);
        stream = entry->stream;
        ++opened_;
    }
    wake_.notify_all();
    stream->send(kPreamble);
    return true;
}

void EventStreams::ended(qint64 account, const Entry* entry) {
    std::lock_guard lock(mutex_);
    auto it = streams_.find(account);
    if (it == streams_.end())
        return;
    std::erase_if(it->second, [entry](const auto& e) { return e.get() == entry; });
    if (it->second.empty())
        streams_.erase(it);
}

void EventStreams::noteChanged(qint64 account, const QString& key) {
    TWJsonValue data = TWJsonValue::dictionary();
    data.insert(QStringLiteral("key"), TWJsonValue::string(key));
    // Compact JSON escapes every control character, so the event stays on its one data line.
    const std::string event =
        "event: change\ndata: " + TWJsonWriter().stringWithObject(data).toStdString() + "\n\n";
    std::vector<std::shared_ptr<HttpStream>> targets;
    {
        std::lock_guard lock(mutex_);
        auto it = streams_.find(account);
        if (it == streams_.end())
            return;
        for (const auto& entry : it->second)
            targets.push_back(entry->stream);
    }
    // Written outside the lock: a stream that ends meanwhile takes the lock to leave.
    for (const auto& stream : targets)
        stream->send(event);
}

void EventStreams::run() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        const Clock::time_point now = Clock::now();
        std::vector<std::shared_ptr<HttpStream>> due;
        Clock::time_point next = Clock::time_point::max();
        for (const auto& [account, entries] : streams_) {
            for (const auto& entry : entries) {
                if (entry->nextHeartbeat <= now) {
                    due.push_back(entry->stream);
                    entry->nextHeartbeat += settings_.heartbeat;
                    if (entry->nextHeartbeat <= now)  // this thread fell behind
                        entry->nextHeartbeat = now + settings_.heartbeat;
                }
                next = std::min(next, entry->nextHeartbeat);
            }
        }
        if (!due.empty()) {
            lock.unlock();
            for (const auto& stream : due)
                stream->send(kHeartbeat);
            due.clear();
            lock.lock();
            continue;
        }
        const std::uint64_t seen = opened_;
        const auto woken = [&] { return stopping_ || opened_ != seen; };
        if (next == Clock::time_point::max()) {
            wake_.wait(lock, woken);
        } else {
            wake_.wait_until(lock, next, woken);
        }
    }
}

}  // namespace notes
