// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "service/HttpServer.h"
#include "service/NoteEvents.h"

namespace notes {

// The accounts' live change streams (server-sent events). A change to a note of an account is
// written to each of that account's streams at once; every stream also gets a heartbeat
// comment at a steady pace, which keeps proxies and home routers from dropping a quiet
// connection and lets the server find a client that has gone (the write fails), so that its
// place is freed. Must outlive the server whose streams it opened.
class EventStreams : public NoteEvents {
public:
    struct Settings {
        std::chrono::seconds heartbeat{15};
        unsigned perAccount = 8;
    };

    explicit EventStreams(const Settings& settings);
    ~EventStreams() override;
    EventStreams(const EventStreams&) = delete;
    EventStreams& operator=(const EventStreams&) = delete;

    // Makes response a stream of the account's changes, which begins "retry: 2000\n: ready\n\n".
    // False, and response untouched, when the account has all its streams open already.
    bool open(qint64 account, HttpResponse& response);
    // Writes "event: change\ndata: {"key":"KEY"}\n\n" to each stream of the account.
    void noteChanged(qint64 account, const QString& key) override;

private:
    using Clock = std::chrono::steady_clock;
    struct Entry {
        std::shared_ptr<HttpStream> stream;
        Clock::time_point nextHeartbeat;
    };
    void ended(qint64 account, const Entry* entry);
    void run();

    const Settings settings_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::uint64_t opened_ = 0;  // streams ever opened, so the heartbeat thread sees new ones
    std::unordered_map<qint64, std::vector<std::shared_ptr<Entry>>> streams_;
    std::thread thread_;
};

}  // namespace notes
