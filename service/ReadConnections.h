// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace notes {

// The statements of one connection, each prepared the first time it is asked for and kept:
// preparing (parsing and planning) costs more than running most of them. The connection is
// used by one thread at a time, and a statement asked for must have been reset since its last
// use.
class PreparedStatements {
public:
    explicit PreparedStatements(sqlite3* db) : db_(db) {}
    ~PreparedStatements();
    PreparedStatements(const PreparedStatements&) = delete;
    PreparedStatements& operator=(const PreparedStatements&) = delete;

    sqlite3* db() const { return db_; }
    // Throws StoreError when sql cannot be prepared.
    sqlite3_stmt* get(std::string_view sql);

private:
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view s) const {
            return std::hash<std::string_view>{}(s);
        }
    };
    sqlite3* db_;
    std::unordered_map<std::string, sqlite3_stmt*, Hash, std::equal_to<>> statements_;
};

// Connections for reading only, one per request in flight and reused afterwards, so that
// lookups and searches run side by side: in WAL mode readers neither wait for each other nor
// for the one writer, and each sees every write committed before it began.
class ReadConnections {
public:
    explicit ReadConnections(const QByteArray& path);
    ~ReadConnections();
    ReadConnections(const ReadConnections&) = delete;
    ReadConnections& operator=(const ReadConnections&) = delete;

    struct Connection;

    class Lease {
    public:
        // A lease that does not own its connection (a snapshot's) leaves it taken.
        Lease(ReadConnections& owner, Connection* connection, bool owned = true)
            : owner_(owner), connection_(connection), owned_(owned) {}
        ~Lease() {
            if (owned_)
                owner_.giveBack(connection_);
        }
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;
        sqlite3* get() const;
        PreparedStatements& statements() const;

    private:
        ReadConnections& owner_;
        Connection* connection_;
        bool owned_;
    };

    // While one lives, every lease its thread takes is of one connection, in one read
    // transaction: the reads of a request see one state of the database, and pay for starting
    // a transaction (its file locks) once. One made while another lives on the thread adds
    // nothing. Throws StoreError when no connection can be opened.
    class Snapshot {
    public:
        explicit Snapshot(ReadConnections& owner);
        ~Snapshot();
        Snapshot(const Snapshot&) = delete;
        Snapshot& operator=(const Snapshot&) = delete;

    private:
        ReadConnections* owner_ = nullptr;
        Connection* connection_ = nullptr;
    };

    // Throws StoreError when no connection can be opened.
    Lease take();

private:
    Connection* acquire();
    void giveBack(Connection* connection);

    QByteArray path_;
    std::mutex mutex_;
    std::vector<std::unique_ptr<Connection>> all_;
    std::vector<Connection*> idle_;
};

}  // namespace notes
