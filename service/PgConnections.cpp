// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/PgConnections.h"

#include <libpq-fe.h>

#include <cstring>
#include <functional>
#include <stdexcept>

#include "service/NotesStore.h"

namespace notes {

PgParams& PgParams::add(const QString& text) {
    values_.push_back(text.toStdString());
    lengths_.push_back(0);
    formats_.push_back(0);
    return *this;
}

PgParams& PgParams::add(qint64 number) {
    values_.push_back(std::to_string(number));
    lengths_.push_back(0);
    formats_.push_back(0);
    return *this;
}

PgParams& PgParams::addBytes(const QByteArray& bytes) {
    values_.push_back(bytes.toStdString());
    lengths_.push_back(static_cast<int>(bytes.size()));
    formats_.push_back(1);
    return *this;
}

std::vector<const char*> PgParams::values() const {
    std::vector<const char*> pointers;
    pointers.reserve(values_.size());
    for (const std::string& value : values_)
        pointers.push_back(value.c_str());
    return pointers;
}

PgResult::~PgResult() {
    PQclear(result_);
}

int PgResult::rows() const {
    return PQntuples(result_);
}

qint64 PgResult::changed() const {
    const char* count = PQcmdTuples(result_);
    return *count ? std::strtoll(count, nullptr, 10) : 0;
}

bool PgResult::isNull(int row, int column) const {
    return PQgetisnull(result_, row, column) != 0;
}

QString PgResult::text(int row, int column) const {
    return QString::fromUtf8(PQgetvalue(result_, row, column), PQgetlength(result_, row, column));
}

qint64 PgResult::integer(int row, int column) const {
    return std::strtoll(PQgetvalue(result_, row, column), nullptr, 10);
}

bool PgResult::boolean(int row, int column) const {
    return PQgetvalue(result_, row, column)[0] == 't';
}

namespace {

// What went wrong, on one line.
std::string describe(PGconn* connection) {
    const QString message =
        QString::fromUtf8(connection ? PQerrorMessage(connection) : "out of memory");
    return message.simplified().toStdString();
}

// The server's notices ("relation already exists, skipping") are not for the service's log.
void ignoreNotice(void*, const char*) {}

[[noreturn]] void fail(PGconn* connection, const PGresult* result) {
    const char* state = result ? PQresultErrorField(result, PG_DIAG_SQLSTATE) : nullptr;
    const std::string code = state ? state : "";
    const std::string message = describe(connection);
    if (code == "23505" || code == "23503")
        throw std::invalid_argument("constraint");
    // Connection failures (08), a server shutting down or restarting (57P), and no answer at
    // all: the database is away, not wrong.
    if (PQstatus(connection) != CONNECTION_OK || code.rfind("08", 0) == 0 ||
        code.rfind("57P", 0) == 0 || code.empty()) {
        throw StoreUnavailable("database unavailable: " + message);
    }
    throw StoreError("database error: " + message);
}

}  // namespace

// A pooled connection and the statements prepared on it, by their text.
struct PgConnections::Connection {
    explicit Connection(PGconn* pg) : pg(pg) {}
    ~Connection() { PQfinish(pg); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view s) const {
            return std::hash<std::string_view>{}(s);
        }
    };
    PGconn* pg;
    std::unordered_map<std::string, std::string, Hash, std::equal_to<>> prepared;
};

PgConnections::PgConnections(QString location) : location_(std::move(location)) {}

PgConnections::~PgConnections() = default;

PGconn* PgConnections::connect() const {
    const QByteArray uri = location_.toUtf8();
    // Ours come first: what the address itself says wins.
    const char* keys[] = {"connect_timeout",  "application_name", "keepalives_idle",
                          "tcp_user_timeout", "dbname",           nullptr};
    const char* values[] = {"3", "ferrybox-notes", "30", "10000", uri.constData(), nullptr};
    PGconn* connection = PQconnectdbParams(keys, values, 1);
    if (PQstatus(connection) != CONNECTION_OK) {
        const std::string why = describe(connection);
        PQfinish(connection);
        throw StoreUnavailable("cannot connect to the database: " + why);
    }
    PQsetNoticeProcessor(connection, &ignoreNotice, nullptr);
    // An answered write must be on disk, whatever the server's own default says.
    PGresult* set = PQexec(connection, "SET synchronous_commit = on");
    const bool ok = PQresultStatus(set) == PGRES_COMMAND_OK;
    PQclear(set);
    if (!ok) {
        const std::string why = describe(connection);
        PQfinish(connection);
        throw StoreUnavailable("cannot set up the database connection: " + why);
    }
    return connection;
}

PgConnections::Lease PgConnections::take() {
    {
        std::lock_guard lock(mutex_);
        if (!idle_.empty()) {
            std::unique_ptr<Connection> connection = std::move(idle_.back());
            idle_.pop_back();
            return Lease(*this, std::move(connection));
        }
    }
    return Lease(*this, std::make_unique<Connection>(connect()));
}

void PgConnections::giveBack(std::unique_ptr<Connection> connection) {
    // A connection that broke, or was left inside a transaction, is not used again.
    if (PQstatus(connection->pg) != CONNECTION_OK ||
        PQtransactionStatus(connection->pg) != PQTRANS_IDLE) {
        return;
    }
    std::lock_guard lock(mutex_);
    idle_.push_back(std::move(connection));
}

PgConnections::Lease::Lease(PgConnections& owner, std::unique_ptr<Connection> connection)
    : owner_(owner), connection_(std::move(connection)) {}

PgConnections::Lease::~Lease() {
    owner_.giveBack(std::move(connection_));
}

PgResult PgConnections::Lease::checked(PGresult* result) {
    PgResult owned(result);
    const ExecStatusType status = PQresultStatus(result);
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK)
        fail(connection_->pg, result);
    return owned;
}

PgResult PgConnections::Lease::run(const char* sql, const PgParams& params) {
    auto found = connection_->prepared.find(std::string_view(sql));
    if (found == connection_->prepared.end()) {
        std::string name = std::to_string(connection_->prepared.size() + 1);
        name.insert(name.begin(), 's');
        checked(PQprepare(connection_->pg, name.c_str(), sql, params.size(), nullptr));
        found = connection_->prepared.emplace(sql, std::move(name)).first;
    }
    const std::vector<const char*> values = params.values();
    return checked(PQexecPrepared(connection_->pg, found->second.c_str(), params.size(),
                                  values.data(), params.lengths(), params.formats(), 0));
}

PgResult PgConnections::Lease::runPlannedForValues(const char* sql, const PgParams& params) {
    const std::vector<const char*> values = params.values();
    return checked(PQexecParams(connection_->pg, sql, params.size(), nullptr, values.data(),
                                params.lengths(), params.formats(), 0));
}

void PgConnections::Lease::execute(const char* sql) {
    checked(PQexec(connection_->pg, sql));
}

PgTransaction::PgTransaction(PgConnections::Lease& lease, const char* begin) : lease_(lease) {
    lease_.execute(begin);
}

PgTransaction::~PgTransaction() {
    if (!open_)
        return;
    try {
        lease_.execute("ROLLBACK");
    } catch (const std::exception&) {
        // A broken connection ends its transaction by itself, and is not reused.
    }
}

void PgTransaction::commit() {
    lease_.execute("COMMIT");
    open_ = false;
}

}  // namespace notes
