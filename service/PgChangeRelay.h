// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <atomic>
#include <thread>

#include "service/NoteEvents.h"

typedef struct pg_conn PGconn;

namespace notes {

class PgConnections;

// Where the store announces, with the account's id, that tokens or device sessions of it ended
// (PostgresStore does so in the transaction that ends them, from a node or a command).
inline constexpr char kAccessEndedChannel[] = "ferrybox_access_ended";

// Carries each change to the event streams of every node through PostgreSQL's NOTIFY on the
// channel ferrybox_note_changes: a change is announced there, and a thread of each node
// LISTENs on a connection of its own and hands what it hears to that node's streams. The same
// thread hears kAccessEndedChannel, so that a stream ends with its session whichever process
// ended it. A lost connection is made again (waits doubling from a quarter second to five),
// and the streams resume with the changes made after it is back; a session ended meanwhile is
// found at its stream's next heartbeat.
class PgChangeRelay : public NoteEvents {
public:
    PgChangeRelay(PgConnections& connections, NoteEvents& local);
    ~PgChangeRelay() override;
    PgChangeRelay(const PgChangeRelay&) = delete;
    PgChangeRelay& operator=(const PgChangeRelay&) = delete;

    void noteChanged(qint64 userId, const QString& key) override;
    // This node's streams at once; the store has announced it to every node already.
    void accessEnded(qint64 userId) override;

private:
    void listen();
    // Hands the changes to the local streams until the connection fails or stop() is asked.
    void relay(PGconn* connection);
    // Waits ms or until the relay is stopped; true when it was.
    bool stoppedWithin(int ms);

    PgConnections& connections_;
    NoteEvents& local_;
    int wake_[2] = {-1, -1};
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

}  // namespace notes
