// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/ReadConnections.h"

#include <sqlite3.h>

#include <string>

#include "service/NotesStore.h"

namespace notes {

ReadConnections::ReadConnections(const QByteArray& path) : path_(path) {}

ReadConnections::~ReadConnections() {
    for (sqlite3* db : idle_)
        sqlite3_close(db);
}

ReadConnections::Lease ReadConnections::take() {
    {
        std::lock_guard lock(mutex_);
        if (!idle_.empty()) {
            sqlite3* db = idle_.back();
            idle_.pop_back();
            return Lease(*this, db);
        }
    }
    sqlite3* db = nullptr;
    // Each connection is used by one request at a time, so SQLite's own locking is not needed.
    if (sqlite3_open_v2(path_.constData(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX,
                        nullptr) != SQLITE_OK) {
        const std::string why = db ? sqlite3_errmsg(db) : "out of memory";
        sqlite3_close(db);
        throw StoreError("cannot open database " + path_.toStdString() + ": " + why);
    }
    sqlite3_busy_timeout(db, 5000);
    // Searching reads every note of an account: keep them in memory rather than re-reading
    // them through the default 2 MB page cache.
    sqlite3_exec(db, "PRAGMA cache_size=-65536; PRAGMA mmap_size=268435456; PRAGMA query_only=1",
                 nullptr, nullptr, nullptr);
    return Lease(*this, db);
}

void ReadConnections::giveBack(sqlite3* db) {
    std::lock_guard lock(mutex_);
    idle_.push_back(db);
}

}  // namespace notes
