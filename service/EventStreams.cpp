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

EventStreams::EventStreams(const Settings& settings, StillGranted stillGranted)
    : settings_(settings), stillGranted_(std::move(stillGranted)), thread_([this] { run(); }) {}

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

bool EventStreams::open(const Access& access, HttpResponse& response) {
    std::shared_ptr<Entry> opened;
    {
        std::lock_guard lock(mutex_);
        auto& entries = streams_[access.userId];
        if (entries.size() >= settings_.perAccount)
            return false;
        auto entry = std::make_shared<Entry>();
        entry->serial = ++opened_;
        entry->access = access;
        const Clock::time_point now = Clock::now();
        entry->nextHeartbeat = now + settings_.heartbeat;
        if (access.expiresMicros) {
            entry->expires = now + std::chrono::microseconds(
                                       std::max<qint64>(0, access.expiresMicros - nowMicros()));
        }
        entry->stream = response.openStream(
            [this, account = access.userId, serial = entry->serial] { ended(account, serial); });
        entries.push_back(entry);
        opened = entry;
    }
    wake_.notify_all();
    opened->stream->send(kPreamble);
    // Asked once more now that the stream is among the account's: a session that ended after
    // the request was let in, but before that, was told to the streams without this one.
    if (granted(*opened) == false)
        end(*opened);
    return true;
}

void EventStreams::ended(qint64 account, std::uint64_t serial) {
    std::lock_guard lock(mutex_);
    auto it = streams_.find(account);
    if (it == streams_.end())
        return;
    std::erase_if(it->second, [serial](const auto& e) { return e->serial == serial; });
    if (it->second.empty())
        streams_.erase(it);
}

void EventStreams::end(const Entry& entry) {
    // Out of the account's streams first: its place is free before the client even hears the
    // end, and no change is written to it meanwhile.
    ended(entry.access.userId, entry.serial);
    entry.stream->close();
}

std::optional<bool> EventStreams::granted(const Entry& entry) const {
    if (!stillGranted_)
        return true;
    try {
        return stillGranted_(entry.access);
    } catch (const std::exception&) {
        return std::nullopt;
    }
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

void EventStreams::accessEnded(qint64 account) {
    std::vector<std::shared_ptr<Entry>> entries;
    {
        std::lock_guard lock(mutex_);
        if (auto it = streams_.find(account); it != streams_.end())
            entries = it->second;
    }
    // Asked outside the lock, which a change being written to the streams may need meanwhile.
    // A stream whose fate cannot be known now is asked about again at its next heartbeat.
    for (const auto& entry : entries) {
        if (granted(*entry) == false)
            end(*entry);
    }
}

void EventStreams::run() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        const Clock::time_point now = Clock::now();
        std::vector<std::shared_ptr<Entry>> due, expired;
        Clock::time_point next = Clock::time_point::max();
        for (const auto& [account, entries] : streams_) {
            for (const auto& entry : entries) {
                if (entry->expires <= now) {
                    expired.push_back(entry);
                    continue;
                }
                if (entry->nextHeartbeat <= now) {
                    due.push_back(entry);
                    entry->nextHeartbeat += settings_.heartbeat;
                    if (entry->nextHeartbeat <= now)  // this thread fell behind
                        entry->nextHeartbeat = now + settings_.heartbeat;
                }
                next = std::min({next, entry->nextHeartbeat, entry->expires});
            }
        }
        if (!due.empty() || !expired.empty()) {
            lock.unlock();
            for (const auto& entry : expired)
                end(*entry);
            // Each heartbeat also asks whether the stream's session still stands: another
            // process (remove-user, passwd) may have ended it without a word to this one. While
            // the database does not answer, the rest of the round is not asked, so that the
            // heartbeats of every stream are not held up behind one time-out each.
            bool asking = true;
            for (const auto& entry : due) {
                const std::optional<bool> stands = asking ? granted(*entry) : std::nullopt;
                asking = asking && stands.has_value();
                if (stands == false)
                    end(*entry);
                else
                    entry->stream->send(kHeartbeat);
            }
            due.clear();
            expired.clear();
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
