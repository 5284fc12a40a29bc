// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>
#include <vector>

#include "service/HttpServer.h"
#include "service/NoteEvents.h"
#include "service/NotesStore.h"

namespace notes {

// The accounts' live change streams (server-sent events). A change to a note of an account is
// written to each of that account's streams at once; every stream also gets a heartbeat
// comment at a steady pace, which keeps proxies and home routers from dropping a quiet
// connection and lets the server find a client that has gone (the write fails), so that its
// place is freed.
//
// A stream lasts only as long as the token or device session it was opened with: it ends (its
// answer closed properly, its place freed at once) when the token expires, when its account's
// sessions are said to have ended (accessEnded) and that one is among them, and, for what
// another process ended unannounced, at the first heartbeat that finds it gone. Must outlive
// the server whose streams it opened.
class EventStreams : public NoteEvents {
public:
    struct Settings {
        std::chrono::seconds heartbeat{15};
        unsigned perAccount = 8;
    };
    // Whether what a stream was opened with still stands. May throw when it cannot be known
    // (the database is away): the stream then stays, and is asked about again later.
    using StillGranted = std::function<bool(const Access&)>;

    EventStreams(const Settings& settings, StillGranted stillGranted);
    ~EventStreams() override;
    EventStreams(const EventStreams&) = delete;
    EventStreams& operator=(const EventStreams&) = delete;

    // Makes response a stream of the account's changes, which begins "retry: 2000\n: ready\n\n".
    // False, and response untouched, when the account has all its streams open already.
    bool open(const Access& access, HttpResponse& response);
    // Writes "event: change\ndata: {"key":"KEY"}\n\n" to each stream of the account.
    void noteChanged(qint64 account, const QString& key) override;
    // Each stream of the account whose token or device session no longer stands ends now.
    void accessEnded(qint64 account) override;

private:
    using Clock = std::chrono::steady_clock;
    struct Entry {
        std::uint64_t serial = 0;
        Access access;
        std::shared_ptr<HttpStream> stream;
        Clock::time_point nextHeartbeat;
        Clock::time_point expires = Clock::time_point::max();  // the token's end
    };
    void ended(qint64 account, std::uint64_t serial);
    // Ends the stream, whose place is free from now on.
    void end(const Entry& entry);
    // Whether the entry's access still stands; nothing when that cannot be known now.
    std::optional<bool> granted(const Entry& entry) const;
    void run();

    const Settings settings_;
    const StillGranted stillGranted_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::uint64_t opened_ =
        0;  // streams ever opened: each one's serial, and new ones wake the thread
    std::unordered_map<qint64, std::vector<std::shared_ptr<Entry>>> streams_;
    std::thread thread_;
};

}  // namespace notes
