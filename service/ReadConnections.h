// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <mutex>
#include <vector>

struct sqlite3;

namespace notes {

// Connections for reading only, one per request in flight and reused afterwards, so that
// lookups and searches run side by side: in WAL mode readers neither wait for each other nor
// for the one writer, and each sees every write committed before it began.
class ReadConnections {
public:
    explicit ReadConnections(const QByteArray& path);
    ~ReadConnections();
    ReadConnections(const ReadConnections&) = delete;
    ReadConnections& operator=(const ReadConnections&) = delete;

    class Lease {
    public:
        Lease(ReadConnections& owner, sqlite3* db) : owner_(owner), db_(db) {}
        ~Lease() { owner_.giveBack(db_); }
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;
        sqlite3* get() const { return db_; }

    private:
        ReadConnections& owner_;
        sqlite3* db_;
    };

    // Throws StoreError when no connection can be opened.
    Lease take();

private:
    void giveBack(sqlite3* db);

    QByteArray path_;
    std::mutex mutex_;
    std::vector<sqlite3*> idle_;
};

}  // namespace notes
