// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/ReadConnections.h"

#include <sqlite3.h>

#include <string>

#include "service/NotesStore.h"

namespace notes {

PreparedStatements::~PreparedStatements() {
    for (const auto& [sql, statement] : statements_)
        sqlite3_finalize(statement);
}

sqlite3_stmt* PreparedStatements::get(std::string_view sql) {
    if (const auto found = statements_.find(sql); found != statements_.end())
        return found->second;
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v3(db_, sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT,
                           &statement, nullptr) != SQLITE_OK) {
        sqlite3_finalize(statement);
        throw StoreError(std::string("cannot prepare statement: ") + sqlite3_errmsg(db_));
    }
    statements_.emplace(std::string(sql), statement);
    return statement;
}

struct ReadConnections::Connection {
    explicit Connection(sqlite3* db) : closer{db}, statements(db) {}
    // Closed after its statements are finalised (members go in reverse order).
    struct Closer {
        sqlite3* db;
        ~Closer() { sqlite3_close(db); }
    } closer;
    PreparedStatements statements;
};

sqlite3* ReadConnections::Lease::get() const {
    return connection_->closer.db;
}

PreparedStatements& ReadConnections::Lease::statements() const {
    return connection_->statements;
}

ReadConnections::ReadConnections(const QByteArray& path) : path_(path) {}

ReadConnections::~ReadConnections() = default;

namespace {

// The snapshot this thread holds, if any.
struct Held {
    const ReadConnections* owner = nullptr;
    ReadConnections::Connection* connection = nullptr;
};
thread_local Held held;

void runOn(PreparedStatements& statements, const char* sql) {
    sqlite3_stmt* statement = statements.get(sql);
    const int rc = sqlite3_step(statement);
    sqlite3_reset(statement);
    if (rc != SQLITE_DONE)
        throw StoreError(std::string("cannot run ") + sql + ": " + sqlite3_errmsg(statements.db()));
}

}  // namespace

ReadConnections::Snapshot::Snapshot(ReadConnections& owner) {
    if (held.owner == &owner)
        return;
    Connection* connection = owner.acquire();
    try {
        runOn(connection->statements, "BEGIN");
    } catch (...) {
        owner.giveBack(connection);
        throw;
    }
    owner_ = &owner;
    connection_ = connection;
    held = Held{&owner, connection};
}

ReadConnections::Snapshot::~Snapshot() {
    if (!owner_)
        return;
    held = Held{};
    try {
        runOn(connection_->statements, "COMMIT");
    } catch (const StoreError&) {
        // A read has nothing to lose; the connection's next BEGIN would say so.
    }
    owner_->giveBack(connection_);
}

ReadConnections::Lease ReadConnections::take() {
    if (held.owner == this)
        return Lease(*this, held.connection, false);
    return Lease(*this, acquire());
}

ReadConnections::Connection* ReadConnections::acquire() {
    {
        std::lock_guard lock(mutex_);
        if (!idle_.empty()) {
            Connection* connection = idle_.back();
            idle_.pop_back();
            return connection;
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
    auto connection = std::make_unique<Connection>(db);
    Connection* const taken = connection.get();
    std::lock_guard lock(mutex_);
    all_.push_back(std::move(connection));
    return taken;
}

void ReadConnections::giveBack(Connection* connection) {
    std::lock_guard lock(mutex_);
    idle_.push_back(connection);
}

}  // namespace notes
