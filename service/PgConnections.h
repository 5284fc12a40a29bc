// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QString>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

typedef struct pg_conn PGconn;
typedef struct pg_result PGresult;

namespace notes {

// Parameters of one statement, all sent as text but byte strings, which go as binary.
class PgParams {
public:
    PgParams& add(const QString& text);
    PgParams& add(qint64 number);
    PgParams& addBytes(const QByteArray& bytes);

    int size() const { return static_cast<int>(values_.size()); }
    std::vector<const char*> values() const;
    const int* lengths() const { return lengths_.data(); }
    const int* formats() const { return formats_.data(); }

private:
    std::vector<std::string> values_;
    std::vector<int> lengths_;
    std::vector<int> formats_;
};

// The rows of one answer, in text form.
class PgResult {
public:
    explicit PgResult(PGresult* result) : result_(result) {}
    ~PgResult();
    PgResult(PgResult&& other) noexcept : result_(other.result_) { other.result_ = nullptr; }
    PgResult(const PgResult&) = delete;
    PgResult& operator=(const PgResult&) = delete;

    int rows() const;
    // Rows changed by an INSERT, UPDATE or DELETE.
    qint64 changed() const;
    bool isNull(int row, int column) const;
    QString text(int row, int column) const;
    qint64 integer(int row, int column) const;
    bool boolean(int row, int column) const;

private:
    PGresult* result_;
};

// Connections to one PostgreSQL database, one per request in flight and reused afterwards. A
// connection the server dropped (restart, network) is closed and a new one is made for the
// next request, so the service recovers by itself when the database is back.
class PgConnections {
public:
    explicit PgConnections(QString location);
    ~PgConnections();
    PgConnections(const PgConnections&) = delete;
    PgConnections& operator=(const PgConnections&) = delete;

    // A new connection to the database, outside the pool (for listening). Throws
    // StoreUnavailable when the database cannot be reached.
    PGconn* connect() const;

    struct Connection;

    class Lease {
    public:
        Lease(PgConnections& owner, std::unique_ptr<Connection> connection);
        ~Lease();
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;

        // Runs one statement, prepared on this connection the first time: the database
        // parses and plans it once per connection. A constraint that the statement broke (a
        // taken address or key) throws std::invalid_argument, a lost or refused connection
        // StoreUnavailable, any other failure StoreError.
        PgResult run(const char* sql, const PgParams& params = {});
        // The same for a statement whose best plan depends on its values (a LIKE pattern
        // that the trigram index helps with or not): planned anew for each call.
        PgResult runPlannedForValues(const char* sql, const PgParams& params);
        // Runs statements without parameters, one or several, e.g. "BEGIN".
        void execute(const char* sql);

    private:
        // The result, or the failure it stands for thrown (see run).
        PgResult checked(PGresult* result);

        PgConnections& owner_;
        std::unique_ptr<Connection> connection_;
    };

    Lease take();

private:
    void giveBack(std::unique_ptr<Connection> connection);

    const QString location_;
    std::mutex mutex_;
    std::vector<std::unique_ptr<Connection>> idle_;
};

// The statements run between begin and commit form one transaction, which is rolled back
// when the scope is left without commit (an exception).
class PgTransaction {
public:
    PgTransaction(PgConnections::Lease& lease, const char* begin = "BEGIN");
    ~PgTransaction();
    PgTransaction(const PgTransaction&) = delete;
    PgTransaction& operator=(const PgTransaction&) = delete;
    void commit();

private:
    PgConnections::Lease& lease_;
    bool open_ = true;
};

}  // namespace notes
