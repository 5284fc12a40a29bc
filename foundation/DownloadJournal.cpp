// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/DownloadJournal.h"

#include <sqlite3.h>
#include <unistd.h>
#include <QDir>
#include <QFileInfo>
#include <QScopeGuard>
#include <QStandardPaths>

#include "foundation/Log.h"
#include "foundation/Processes.h"

namespace foundation {

namespace {

std::unique_ptr<DownloadJournal>& sharedJournal() {
    static std::unique_ptr<DownloadJournal> journal;
    return journal;
}

// Tells this run of the machine from the next: the page cache, and with it what a process wrote
// and did not sync, survives the process but not the machine.
QByteArray bootId() {
    static const QByteArray id = [] {
        QFile file(QStringLiteral("/proc/sys/kernel/random/boot_id"));
        return file.open(QIODevice::ReadOnly) ? file.readAll().trimmed() : QByteArray();
    }();
    return id;
}

double ownStart() {
    static const double started = processStartTime(::getpid());
    return started;
}

// One prepared statement, finalised on every way out.
class Statement {
public:
    Statement(sqlite3* db, const char* sql) { sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr); }
    ~Statement() { sqlite3_finalize(stmt_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    explicit operator bool() const { return stmt_ != nullptr; }
    Statement& bind(int i, qint64 value) {
        sqlite3_bind_int64(stmt_, i, value);
        return *this;
    }
    Statement& bind(int i, double value) {
        sqlite3_bind_double(stmt_, i, value);
        return *this;
    }
    Statement& bind(int i, const QByteArray& value) {
        sqlite3_bind_text(stmt_, i, value.constData(), int(value.size()), SQLITE_TRANSIENT);
        return *this;
    }
    Statement& bind(int i, const QString& value) { return bind(i, value.toUtf8()); }
    int step() { return sqlite3_step(stmt_); }
    qint64 integer(int column) const { return sqlite3_column_int64(stmt_, column); }
    double real(int column) const { return sqlite3_column_double(stmt_, column); }
    QByteArray bytes(int column) const {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
        return QByteArray(text ? text : "", sqlite3_column_bytes(stmt_, column));
    }
    QString text(int column) const { return QString::fromUtf8(bytes(column)); }

private:
    sqlite3_stmt* stmt_ = nullptr;
};

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS transfers ("
    " id INTEGER PRIMARY KEY AUTOINCREMENT,"
    " url TEXT NOT NULL,"
    " timeout REAL NOT NULL,"
    " destination TEXT NOT NULL DEFAULT '',"
    " allow_overwrite INTEGER NOT NULL DEFAULT 1,"
    " part TEXT NOT NULL DEFAULT '',"
    " validator TEXT NOT NULL DEFAULT '',"
    " length INTEGER NOT NULL DEFAULT -1,"
    " on_disk TEXT NOT NULL DEFAULT '',"
    " on_disk_synced TEXT NOT NULL DEFAULT '',"
    " boot_id TEXT NOT NULL DEFAULT '',"
    " ranges_broken INTEGER NOT NULL DEFAULT 0,"
    " owner_pid INTEGER NOT NULL,"
    " owner_started REAL NOT NULL)";

}  // namespace

DownloadJournal* DownloadJournal::shared() {
    return sharedJournal().get();
}

QString DownloadJournal::standardPath() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
           QStringLiteral("/Ferrybox/transfers.sqlite");
}

bool DownloadJournal::open(const QString& path) {
    close();
    QDir().mkpath(QFileInfo(path).absolutePath());
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(QFile::encodeName(path).constData(), &db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                        nullptr) != SQLITE_OK) {
        log(QStringLiteral("cannot open the transfer journal %1: %2")
                .arg(path, QString::fromUtf8(sqlite3_errmsg(db))));
        sqlite3_close(db);
        return false;
    }
    sqlite3_busy_timeout(db, 5000);
    auto journal = std::unique_ptr<DownloadJournal>(new DownloadJournal(db));
    // Commits reach the file at once and the disk at the next checkpoint, but for the ones
    // that ask for more (add).
    if (!journal->exec("PRAGMA journal_mode=WAL") || !journal->exec("PRAGMA synchronous=NORMAL") ||
        !journal->exec(kSchema)) {
        log(QStringLiteral("cannot use the transfer journal %1: %2")
                .arg(path, QString::fromUtf8(sqlite3_errmsg(db))));
        return false;
    }
    sharedJournal() = std::move(journal);
    return true;
}

void DownloadJournal::close() {
    sharedJournal().reset();
}

DownloadJournal::DownloadJournal(sqlite3* db) : db_(db) {}

DownloadJournal::~DownloadJournal() {
    sqlite3_close(db_);
}

bool DownloadJournal::exec(const char* sql) {
    return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

qint64 DownloadJournal::add(const QUrl& url, double timeoutInterval) {
    Statement insert(db_,
                     "INSERT INTO transfers (url, timeout, owner_pid, owner_started) "
                     "VALUES (?, ?, ?, ?)");
    if (!insert)
        return 0;
    exec("PRAGMA synchronous=FULL");
    const auto normal = qScopeGuard([this] { exec("PRAGMA synchronous=NORMAL"); });
    insert.bind(1, url.toEncoded())
        .bind(2, timeoutInterval)
        .bind(3, qint64(::getpid()))
        .bind(4, ownStart());
    if (insert.step() != SQLITE_DONE) {
        log(QStringLiteral("cannot write the transfer journal: %1")
                .arg(QString::fromUtf8(sqlite3_errmsg(db_))));
        return 0;
    }
    return sqlite3_last_insert_rowid(db_);
}

void DownloadJournal::update(const Entry& entry) {
    Statement change(db_,
                     "UPDATE transfers SET destination = ?, allow_overwrite = ?, part = ?, "
                     "validator = ?, length = ?, on_disk = ?, ranges_broken = ?, boot_id = ? "
                     "WHERE id = ?");
    if (!change)
        return;
    change.bind(1, entry.destination)
        .bind(2, qint64(entry.allowOverwrite))
        .bind(3, entry.part)
        .bind(4, entry.validator)
        .bind(5, entry.length)
        .bind(6, entry.onDisk.toText())
        .bind(7, qint64(entry.rangesBroken))
        .bind(8, bootId())
        .bind(9, entry.id);
    change.step();
}

void DownloadJournal::recordSynced(qint64 id, const ByteRanges& onDisk) {
    Statement change(db_, "UPDATE transfers SET on_disk_synced = ? WHERE id = ?");
    if (change)
        change.bind(1, onDisk.toText()).bind(2, id).step();
}

void DownloadJournal::remove(qint64 id) {
    Statement drop(db_, "DELETE FROM transfers WHERE id = ?");
    if (drop)
        drop.bind(1, id).step();
}

std::vector<DownloadJournal::Entry> DownloadJournal::claimOrphans() {
    std::vector<Entry> claimed;
    // One claimant at a time: two agents starting together never take the same row.
    if (!exec("BEGIN IMMEDIATE"))
        return claimed;
    {
        Statement rows(db_,
                       "SELECT id, url, timeout, destination, allow_overwrite, part, validator, "
                       "length, on_disk, ranges_broken, owner_pid, owner_started, "
                       "on_disk_synced, boot_id FROM transfers ORDER BY id");
        while (rows && rows.step() == SQLITE_ROW) {
            const qint64 owner = rows.integer(10);
            if (owner == ::getpid() || processStillRuns(owner, rows.real(11)))
                continue;
            Entry entry;
            entry.id = rows.integer(0);
            entry.url = QUrl::fromEncoded(rows.bytes(1), QUrl::StrictMode);
            entry.timeoutInterval = rows.real(2);
            entry.destination = rows.text(3);
            entry.allowOverwrite = rows.integer(4) != 0;
            entry.part = rows.text(5);
            entry.validator = rows.bytes(6);
            entry.length = rows.integer(7);
            const bool sameBoot = !bootId().isEmpty() && rows.bytes(13) == bootId();
            entry.onDisk = ByteRanges::fromText(rows.bytes(sameBoot ? 8 : 12));
            entry.rangesBroken = rows.integer(9) != 0;
            claimed.push_back(entry);
        }
    }
    for (const Entry& entry : claimed) {
        Statement own(db_, "UPDATE transfers SET owner_pid = ?, owner_started = ? WHERE id = ?");
        own.bind(1, qint64(::getpid())).bind(2, ownStart()).bind(3, entry.id).step();
    }
    exec("COMMIT");
    return claimed;
}

std::vector<QString> DownloadJournal::partialFiles() {
    std::vector<QString> parts;
    Statement rows(db_, "SELECT part FROM transfers WHERE part != ''");
    while (rows && rows.step() == SQLITE_ROW)
        parts.push_back(rows.text(0));
    return parts;
}

}  // namespace foundation
