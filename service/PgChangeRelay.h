// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <atomic>
#include <thread>

#include "service/NoteEvents.h"

typedef struct pg_conn PGconn;

namespace notes {

class PgConnections;

// Carries each change to the event streams of every node through PostgreSQL's NOTIFY on the
// channel ferrybox_note_changes: a change is announced there, and a thread of each node
// LISTENs on a connection of its own and hands what it hears to that node's streams. A lost
// connection is made again (waits doubling from a quarter second to five), and the streams
// resume with the changes made after it is back.
class PgChangeRelay : public NoteEvents {
public:
    PgChangeRelay(PgConnections& connections, NoteEvents& local);
    ~PgChangeRelay() override;
    PgChangeRelay(const PgChangeRelay&) = delete;
    PgChangeRelay& operator=(const PgChangeRelay&) = delete;

    void noteChanged(qint64 userId, const QString& key) override;

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
