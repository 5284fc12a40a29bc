// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/SqliteStore.h"

#include <openssl/rand.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <QDateTime>
#include <QScopeGuard>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string_view>

#include "service/NoteMerge.h"
#include "service/TextMatch.h"

namespace notes {

namespace {

// One of a connection's kept statements, for one use: bound, stepped, and reset afterwards
// (which also ends the read it began), with its bound values let go.
class Statement {
public:
    Statement(PreparedStatements& statements, const char* sql)
        : db_(statements.db()), stmt_(statements.get(sql)) {
        if (sqlite3_stmt_busy(stmt_))
            throw StoreError(std::string("statement used twice at once: ") + sql);
    }
    ~Statement() {
        sqlite3_reset(stmt_);
        sqlite3_clear_bindings(stmt_);
    }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& bind(int i, const QString& text) {
        const QByteArray utf8 = text.toUtf8();
        sqlite3_bind_text(stmt_, i, utf8.constData(), static_cast<int>(utf8.size()),
                          SQLITE_TRANSIENT);
        return *this;
    }
    Statement& bind(int i, const QByteArray& blob) {
        sqlite3_bind_blob(stmt_, i, blob.constData(), static_cast<int>(blob.size()),
                          SQLITE_TRANSIENT);
        return *this;
    }
    Statement& bind(int i, qint64 n) {
        sqlite3_bind_int64(stmt_, i, n);
        return *this;
    }
    // true while a row is there.
    bool step() {
        const int rc = sqlite3_step(stmt_);
        if (rc == SQLITE_ROW)
            return true;
        if (rc == SQLITE_DONE)
            return false;
        if (rc == SQLITE_CONSTRAINT)
            throw std::invalid_argument("constraint");
        throw StoreError(std::string("database error: ") + sqlite3_errmsg(db_));
    }
    QString text(int column) const {
        const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
        return QString::fromUtf8(bytes, sqlite3_column_bytes(stmt_, column));
    }
    // Valid until the next step.
    std::string_view utf8(int column) const {
        const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
        return {bytes ? bytes : "", static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column))};
    }
    qint64 integer(int column) const { return sqlite3_column_int64(stmt_, column); }

private:
    sqlite3* db_;
    sqlite3_stmt* stmt_;
};

// Columns: key, text, created, modified, deleted, version.
Note readNote(const Statement& s) {
    return Note{s.text(0), s.text(1), s.integer(2), s.integer(3), s.integer(4) != 0, s.integer(5)};
}

// Keys are 128 random bits in hex: opaque, URL-safe, unguessable.
QString randomKey() {
    unsigned char bytes[16];
    if (RAND_bytes(bytes, sizeof bytes) != 1)
        throw StoreError("no random bytes");
    return QString::fromLatin1(
        QByteArray(reinterpret_cast<const char*>(bytes), sizeof bytes).toHex());
}

const char* const kMigrations[] = {
    // 0 -> 1
    "CREATE TABLE users (id INTEGER PRIMARY KEY, email TEXT NOT NULL UNIQUE,"
    "  password_hash TEXT NOT NULL);"
    "CREATE TABLE tokens (token_hash BLOB PRIMARY KEY, user_id INTEGER NOT NULL"
    "  REFERENCES users(id) ON DELETE CASCADE, expires INTEGER NOT NULL);"
    "CREATE TABLE notes (key TEXT PRIMARY KEY, user_id INTEGER NOT NULL"
    "  REFERENCES users(id) ON DELETE CASCADE, text TEXT NOT NULL, created INTEGER NOT NULL,"
    "  modified INTEGER NOT NULL, deleted INTEGER NOT NULL DEFAULT 0);"
    "CREATE INDEX notes_by_user ON notes(user_id, modified DESC);",
    // 1 -> 2: walked backwards, this index yields "newest change first, newest row first on a
    // tie" as it stands, so listing and searching need no sort of every note.
    "DROP INDEX notes_by_user;"
    "CREATE INDEX notes_by_change ON notes(user_id, modified);",
    // 2 -> 3: the web page's long-lived device sessions.
    "CREATE TABLE devices (id INTEGER PRIMARY KEY, user_id INTEGER NOT NULL"
    "  REFERENCES users(id) ON DELETE CASCADE, token_hash BLOB NOT NULL UNIQUE,"
    "  name TEXT NOT NULL, created INTEGER NOT NULL, last_seen INTEGER NOT NULL);"
    "CREATE INDEX devices_by_user ON devices(user_id);",
    // 3 -> 4: a trigram index of every note's folded text (one row per note, under the note's
    // rowid), so that a search looks up its matches rather than reading every note. It keeps
    // the folded text itself: taking a row out reads what was put in, never a new folding of
    // the note's text, which a later Qt could fold otherwise. Kept by triggers, so no write can
    // pass it by; a write from a program that lacks the folding function fails rather than
    // leave the index behind. Which Unicode tables folded it is written down beside it.
    "CREATE VIRTUAL TABLE note_search USING fts5(folded,"
    "  tokenize='trigram case_sensitive 1', columnsize=0);"
    "INSERT INTO note_search (rowid, folded) SELECT rowid, ferrybox_fold(text) FROM notes;"
    "CREATE TABLE note_search_folding (unicode_version INTEGER NOT NULL);"
    "INSERT INTO note_search_folding VALUES (ferrybox_unicode_version());"
    "CREATE TRIGGER note_search_insert AFTER INSERT ON notes BEGIN"
    "  INSERT INTO note_search (rowid, folded) VALUES (new.rowid, ferrybox_fold(new.text));"
    "END;"
    "CREATE TRIGGER note_search_update AFTER UPDATE OF text ON notes"
    "  WHEN new.text IS NOT old.text BEGIN"
    "  UPDATE note_search SET folded = ferrybox_fold(new.text) WHERE rowid = new.rowid;"
    "END;"
    "CREATE TRIGGER note_search_delete AFTER DELETE ON notes BEGIN"
    "  DELETE FROM note_search WHERE rowid = old.rowid;"
    "END;",
    // 4 -> 5: every note counts its writes, and keeps its latest past texts, so that a write
    // based on an older version can be merged with what was written since.
    "ALTER TABLE notes ADD COLUMN version INTEGER NOT NULL DEFAULT 1;"
    "CREATE TABLE note_versions (note_key TEXT NOT NULL REFERENCES notes(key) ON DELETE CASCADE,"
    "  version INTEGER NOT NULL, text TEXT NOT NULL, PRIMARY KEY (note_key, version))"
    "  WITHOUT ROWID;",
    // 5 -> 6: an account's id is never given again once the account is removed (AUTOINCREMENT
    // remembers the highest ever given; without it, the highest is given again after its
    // account went), so a change stream still open for a removed account never hears of the
    // next one's notes. A key column cannot be changed in place: the table is made anew with
    // its rows and takes the old one's name, by which the tables of tokens, devices and notes
    // refer to it (with foreign keys off meanwhile, so that dropping the old table takes no
    // rows with it). The search index's triggers are on notes, which stays as it is.
    "CREATE TABLE users_kept (id INTEGER PRIMARY KEY AUTOINCREMENT,"
    "  email TEXT NOT NULL UNIQUE, password_hash TEXT NOT NULL);"
    "INSERT INTO users_kept (id, email, password_hash) SELECT id, email, password_hash FROM users;"
    "DROP TABLE users;"
    "ALTER TABLE users_kept RENAME TO users;",
};
static_assert(std::size(kMigrations) == SqliteStore::kSchemaVersion);

// The text as the search index holds it: folded (TextMatch.h), and with U+0000, at which the
// trigram tokenizer stops reading, given as U+FFFD, with which that tokenizer already confuses
// U+FFFE and U+FFFF. A needle goes through the same, so the index may only find too much, and
// only for a needle that has one of these characters; such a search checks what it finds.
QString indexed(const QString& text) {
    QString folded = foldForSearch(text);
    folded.replace(QChar(u'\0'), QChar(QChar::ReplacementCharacter));
    return folded;
}

bool mayFindTooMuch(const QString& indexedNeedle) {
    return std::any_of(indexedNeedle.begin(), indexedNeedle.end(),
                       [](QChar c) { return c.unicode() >= QChar::ReplacementCharacter; });
}

// The smallest needle a trigram index can look up: three characters (code points).
bool indexable(const QString& indexedNeedle) {
    qsizetype characters = 0;
    for (QChar c : indexedNeedle)
        characters += c.isLowSurrogate() ? 0 : 1;
    return characters >= 3;
}

// The needle as a full-text query for exactly that text in a row: one phrase, quoted, its own
// quotes doubled, so that nothing in it is read as the query language. A trigram phrase
// matches where its text is a substring.
QString phraseQuery(const QString& indexedNeedle) {
    QString quoted = indexedNeedle;
    quoted.replace(QLatin1Char('"'), QLatin1String("\"\""));
    return QLatin1Char('"') + quoted + QLatin1Char('"');
}

// ferrybox_fold(text): what the search index holds for a note's text.
void foldFunction(sqlite3_context* context, int, sqlite3_value** arguments) {
    if (sqlite3_value_type(arguments[0]) == SQLITE_NULL) {
        sqlite3_result_null(context);
        return;
    }
    try {
        const auto* bytes = reinterpret_cast<const char*>(sqlite3_value_text(arguments[0]));
        const QByteArray folded =
            indexed(QString::fromUtf8(bytes, sqlite3_value_bytes(arguments[0]))).toUtf8();
        sqlite3_result_text(context, folded.constData(), static_cast<int>(folded.size()),
                            SQLITE_TRANSIENT);
    } catch (const std::bad_alloc&) {
        sqlite3_result_error_nomem(context);
    }
}

// ferrybox_unicode_version(): the Unicode tables this program folds with.
void unicodeVersionFunction(sqlite3_context* context, int, sqlite3_value**) {
    sqlite3_result_int(context, static_cast<int>(QChar::currentUnicodeVersion()));
}

// Every note and password hash is in these files: they are not served while other users can
// read or change them. Says which file is open to others and how to close it, or nothing.
std::string exposedFile(const QByteArray& file) {
    for (const char* suffix : {"", "-wal", "-shm"}) {
        const QByteArray name = file + suffix;
        struct stat info {};
        if (::stat(name.constData(), &info) != 0 || (info.st_mode & 077) == 0)
            continue;
        const char* how = (info.st_mode & 044) ? "readable" : "writable";
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(info.st_mode & 07777));
        return name.toStdString() + " is " + how + " by other users (mode " + mode +
               "); make it private first: chmod 600 " + name.toStdString();
    }
    return {};
}

// The statements between its start and commit() are one transaction, rolled back when the scope
// is left without commit (an exception).
class WriteTransaction {
public:
    explicit WriteTransaction(PreparedStatements& statements) : statements_(statements) {
        Statement(statements_, "BEGIN IMMEDIATE").step();
    }
    ~WriteTransaction() {
        if (open_)
            sqlite3_exec(statements_.db(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
    WriteTransaction(const WriteTransaction&) = delete;
    WriteTransaction& operator=(const WriteTransaction&) = delete;
    void commit() {
        Statement(statements_, "COMMIT").step();
        open_ = false;
    }

private:
    PreparedStatements& statements_;
    bool open_ = true;
};

// Before a write: the note's present text joins its past versions, of which the oldest beyond
// what is kept go.
void keepPastVersion(PreparedStatements& writes, const QString& key) {
    Statement(writes,
              "INSERT INTO note_versions (note_key, version, text) "
              "SELECT key, version, text FROM notes WHERE key = ?")
        .bind(1, key)
        .step();
    Statement(writes,
              "DELETE FROM note_versions WHERE note_key = ? "
              "AND version <= (SELECT version FROM notes WHERE key = ?) - ?")
        .bind(1, key)
        .bind(2, key)
        .bind(3, NotesStore::kVersionsKept)
        .step();
}

// The text of the note at version, or at the oldest version kept after it; null when none is.
QString pastText(PreparedStatements& writes, const QString& key, qint64 version) {
    Statement s(writes,
                "SELECT text FROM note_versions WHERE note_key = ? AND version >= ? "
                "ORDER BY version LIMIT 1");
    s.bind(1, key).bind(2, version);
    return s.step() ? s.text(0) : QString();
}

}  // namespace

SqliteStore::SqliteStore(const QString& path) : reads_(path.toUtf8()) {
    // SQLite counts every allocation of every connection under one lock of the process, which
    // the service's threads would queue at. Possible only before SQLite's first use in the
    // process (else refused, and nothing changes).
    static std::once_flag uncounted;
    std::call_once(uncounted, [] { sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0); });
    const QByteArray file = path.toUtf8();
    if (sqlite3_open_v2(file.constData(), &db_,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                        nullptr) != SQLITE_OK) {
        const std::string why = db_ ? sqlite3_errmsg(db_) : "out of memory";
        closeWriter();
        throw StoreError("cannot open database " + file.toStdString() + ": " + why);
    }
    writes_ = std::make_unique<PreparedStatements>(db_);
    // mutex_ already keeps the connection to one thread at a time; SQLite's own locking on
    // every call would only cost time.
    sqlite3_busy_timeout(db_, 5000);
    std::string exposed;
    try {
        // Reading the schema is the first thing that notices a file that is not a database.
        Statement(*writes_, "SELECT count(*) FROM sqlite_master").step();
        exposed = exposedFile(file);
        if (exposed.empty()) {
            execute("PRAGMA journal_mode=WAL");
            execute("PRAGMA synchronous=FULL");
            execute("PRAGMA foreign_keys=ON");
            // Before migrating: the search index's triggers call them.
            const int flags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
            if (sqlite3_create_function_v2(db_, "ferrybox_fold", 1, flags, nullptr, &foldFunction,
                                           nullptr, nullptr, nullptr) != SQLITE_OK ||
                sqlite3_create_function_v2(db_, "ferrybox_unicode_version", 0, flags, nullptr,
                                           &unicodeVersionFunction, nullptr, nullptr,
                                           nullptr) != SQLITE_OK) {
                throw StoreError(sqlite3_errmsg(db_));
            }
            migrate();
            refoldIfUnicodeChanged();
        }
    } catch (const StoreError& e) {
        closeWriter();
        throw StoreError("database " + file.toStdString() + " is unusable (" + e.what() +
                         "); it was left as it is");
    }
    if (!exposed.empty()) {
        closeWriter();
        throw StoreError(exposed);
    }
}

SqliteStore::~SqliteStore() {
    closeWriter();
}

void SqliteStore::closeWriter() {
    writes_.reset();  // its statements first
    sqlite3_close(db_);
    db_ = nullptr;
}

void SqliteStore::execute(const char* sql) {
    char* message = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) != SQLITE_OK) {
        const std::string why = message ? message : "unknown error";
        sqlite3_free(message);
        throw StoreError(why);
    }
}

void SqliteStore::migrate() {
    const int version = [this] {
        // Finished before migrating: a pending read keeps the schema from changing.
        Statement query(*writes_, "PRAGMA user_version");
        query.step();
        return static_cast<int>(query.integer(0));
    }();
    if (version > kSchemaVersion) {
        throw StoreError("schema version " + std::to_string(version) +
                         " is newer than this program knows");
    }
    if (version == kSchemaVersion)
        return;
    // A migration may make a table anew, which drops the old one: with foreign keys on, that
    // would delete the rows that refer to it. They are checked before each commit instead.
    // (The setting is ignored inside a transaction.)
    execute("PRAGMA foreign_keys=OFF");
    const auto keysOn = qScopeGuard(
        [this] { sqlite3_exec(db_, "PRAGMA foreign_keys=ON", nullptr, nullptr, nullptr); });
    for (int v = version; v < kSchemaVersion; ++v) {
        execute("BEGIN IMMEDIATE");
        try {
            execute(kMigrations[v]);
            {
                Statement orphans(*writes_, "PRAGMA foreign_key_check");
                if (orphans.step())
                    throw StoreError("a schema migration left rows without what they refer to");
            }
            execute(("PRAGMA user_version=" + std::to_string(v + 1)).c_str());
            execute("COMMIT");
        } catch (...) {
            execute("ROLLBACK");
            throw;
        }
    }
}

void SqliteStore::refoldIfUnicodeChanged() {
    {
        Statement folding(*writes_,
                          "SELECT unicode_version = ferrybox_unicode_version() "
                          "FROM note_search_folding");
        if (!folding.step() || folding.integer(0))
            return;
    }
    // Case folding may have changed for some characters: the index is made anew, so that it
    // holds what a needle folded today is compared with.
    execute("BEGIN IMMEDIATE");
    try {
        execute(
            "DELETE FROM note_search;"
            "INSERT INTO note_search (rowid, folded) SELECT rowid, ferrybox_fold(text) FROM notes;"
            "UPDATE note_search_folding SET unicode_version = ferrybox_unicode_version();");
        execute("COMMIT");
    } catch (...) {
        execute("ROLLBACK");
        throw;
    }
}

bool SqliteStore::addUser(const QString& email, const QString& passwordHash) {
    std::lock_guard lock(mutex_);
    try {
        Statement(*writes_, "INSERT INTO users (email, password_hash) VALUES (?, ?)")
            .bind(1, email)
            .bind(2, passwordHash)
            .step();
    } catch (const std::invalid_argument&) {
        return false;
    }
    return true;
}

bool SqliteStore::removeUser(const QString& email) {
    std::lock_guard lock(mutex_);
    Statement(*writes_, "DELETE FROM users WHERE email = ?").bind(1, email).step();
    return sqlite3_changes(db_) > 0;
}

bool SqliteStore::changePassword(const QString& email, const QString& passwordHash) {
    std::lock_guard lock(mutex_);
    WriteTransaction transaction(*writes_);
    qint64 id = 0;
    {
        Statement s(*writes_, "SELECT id FROM users WHERE email = ?");
        if (!s.bind(1, email).step())
            return false;
        id = s.integer(0);
    }
    Statement(*writes_, "UPDATE users SET password_hash = ? WHERE id = ?")
        .bind(1, passwordHash)
        .bind(2, id)
        .step();
    Statement(*writes_, "DELETE FROM tokens WHERE user_id = ?").bind(1, id).step();
    Statement(*writes_, "DELETE FROM devices WHERE user_id = ?").bind(1, id).step();
    transaction.commit();
    return true;
}

void SqliteStore::endSessions(qint64 userId) {
    std::lock_guard lock(mutex_);
    WriteTransaction transaction(*writes_);
    Statement(*writes_, "DELETE FROM tokens WHERE user_id = ?").bind(1, userId).step();
    Statement(*writes_, "DELETE FROM devices WHERE user_id = ?").bind(1, userId).step();
    transaction.commit();
}

std::optional<User> SqliteStore::userByEmail(const QString& email) {
    const auto lease = reads_.take();
    Statement s(lease.statements(), "SELECT id, email, password_hash FROM users WHERE email = ?");
    s.bind(1, email);
    if (!s.step())
        return std::nullopt;
    return User{s.integer(0), s.text(1), s.text(2)};
}

void SqliteStore::addToken(qint64 userId, const QByteArray& tokenHash, qint64 expiresMicros) {
    std::lock_guard lock(mutex_);
    Statement(*writes_, "DELETE FROM tokens WHERE expires < ?").bind(1, nowMicros()).step();
    Statement(*writes_, "INSERT INTO tokens (token_hash, user_id, expires) VALUES (?, ?, ?)")
        .bind(1, tokenHash)
        .bind(2, userId)
        .bind(3, expiresMicros)
        .step();
}

std::optional<Access> SqliteStore::tokenAccess(const QByteArray& tokenHash, const QString& email,
                                               qint64 now) {
    const auto lease = reads_.take();
    Statement s(
        lease.statements(),
        "SELECT users.id, tokens.expires FROM tokens JOIN users ON users.id = tokens.user_id "
        "WHERE tokens.token_hash = ? AND users.email = ? AND tokens.expires > ?");
    s.bind(1, tokenHash).bind(2, email).bind(3, now);
    if (!s.step())
        return std::nullopt;
    return Access{s.integer(0), 0, tokenHash, s.integer(1)};
}

bool SqliteStore::stillGranted(const Access& access, qint64 now) {
    const auto lease = reads_.take();
    if (access.deviceId) {
        Statement s(lease.statements(),
                    "SELECT 1 FROM devices WHERE id = ? AND user_id = ? AND last_seen > ?");
        return s.bind(1, access.deviceId)
            .bind(2, access.userId)
            .bind(3, now - kDeviceIdleMicros)
            .step();
    }
    Statement s(lease.statements(),
                "SELECT 1 FROM tokens WHERE token_hash = ? AND user_id = ? AND expires > ?");
    return s.bind(1, access.tokenHash).bind(2, access.userId).bind(3, now).step();
}

qint64 SqliteStore::addDevice(qint64 userId, const QByteArray& tokenHash, const QString& name,
                              qint64 now) {
    std::lock_guard lock(mutex_);
    Statement(*writes_, "DELETE FROM devices WHERE last_seen < ?")
        .bind(1, now - kDeviceIdleMicros)
        .step();
    Statement(*writes_,
              "INSERT INTO devices (user_id, token_hash, name, created, last_seen) "
              "VALUES (?, ?, ?, ?, ?)")
        .bind(1, userId)
        .bind(2, tokenHash)
        .bind(3, name)
        .bind(4, now)
        .bind(5, now)
        .step();
    return sqlite3_last_insert_rowid(db_);
}

std::optional<DeviceSession> SqliteStore::deviceSession(const QByteArray& tokenHash, qint64 now) {
    DeviceSession session;
    qint64 lastSeen = 0;
    {
        const auto lease = reads_.take();
        Statement s(lease.statements(),
                    "SELECT devices.id, devices.user_id, users.email, devices.last_seen "
                    "FROM devices JOIN users ON users.id = devices.user_id "
                    "WHERE devices.token_hash = ? AND devices.last_seen > ?");
        s.bind(1, tokenHash).bind(2, now - kDeviceIdleMicros);
        if (!s.step())
            return std::nullopt;
        session = DeviceSession{s.integer(1), s.integer(0), s.text(2)};
        lastSeen = s.integer(3);
    }
    if (now - lastSeen > kDeviceUseGranularityMicros) {
        std::lock_guard lock(mutex_);
        Statement(*writes_, "UPDATE devices SET last_seen = ? WHERE id = ?")
            .bind(1, now)
            .bind(2, session.deviceId)
            .step();
    }
    return session;
}

std::vector<Device> SqliteStore::devices(qint64 userId, qint64 now) {
    const auto lease = reads_.take();
    Statement s(lease.statements(),
                "SELECT id, name, created, last_seen FROM devices "
                "WHERE user_id = ? AND last_seen > ? ORDER BY last_seen DESC, id DESC");
    s.bind(1, userId).bind(2, now - kDeviceIdleMicros);
    std::vector<Device> list;
    while (s.step())
        list.push_back(Device{s.integer(0), s.text(1), s.integer(2), s.integer(3)});
    return list;
}

bool SqliteStore::endDevice(qint64 userId, qint64 deviceId) {
    std::lock_guard lock(mutex_);
    Statement(*writes_, "DELETE FROM devices WHERE id = ? AND user_id = ?")
        .bind(1, deviceId)
        .bind(2, userId)
        .step();
    return sqlite3_changes(db_) > 0;
}

Appended SqliteStore::appendLine(qint64 userId, const QString& header, const QString& line,
                                 qint64 now, const std::optional<SeenVersion>& seen,
                                 qint64 maxBase64Bytes) {
    std::lock_guard lock(mutex_);
    WriteTransaction transaction(*writes_);
    QString key, text;
    qint64 version = 0;
    {
        Statement s(*writes_,
                    "SELECT key, text, version FROM notes WHERE user_id = ? AND deleted = 0 "
                    "AND substr(text, 1, ?) = ? ORDER BY modified DESC, rowid DESC LIMIT 1");
        s.bind(1, userId).bind(2, qint64(header.size())).bind(3, header);
        if (s.step()) {
            key = s.text(0);
            text = s.text(1);
            version = s.integer(2);
        }
    }
    if (key.isNull()) {
        const QString made = header + QLatin1Char('\n') + line;
        if (base64Length(made) > maxBase64Bytes)
            return {QString(), false, 0, true};
        key = randomKey();
        Statement(*writes_,
                  "INSERT INTO notes (key, user_id, text, created, modified) VALUES (?, ?, ?, ?, "
                  "?)")
            .bind(1, key)
            .bind(2, userId)
            .bind(3, made)
            .bind(4, now)
            .bind(5, now)
            .step();
        transaction.commit();
        return {key, true, 1};
    }
    const QString seenText = seen && seen->key == key && seen->version < version
                                 ? pastText(*writes_, key, seen->version)
                                 : QString();
    if (!appendAdds(line, text, seenText))
        return {key, false, version};
    const QString stored = appendedText(text, line);
    if (base64Length(stored) > maxBase64Bytes)
        return {key, false, version, true};
    keepPastVersion(*writes_, key);
    Statement(*writes_,
              "UPDATE notes SET text = ?, modified = ?, version = version + 1 WHERE key = ?")
        .bind(1, stored)
        .bind(2, now)
        .bind(3, key)
        .step();
    transaction.commit();
    return {key, true, version + 1};
}

QString SqliteStore::createNote(qint64 userId, const QString& text, qint64 now) {
    std::lock_guard lock(mutex_);
    const QString key = randomKey();
    Statement(*writes_,
              "INSERT INTO notes (key, user_id, text, created, modified) VALUES (?, ?, ?, ?, ?)")
        .bind(1, key)
        .bind(2, userId)
        .bind(3, text)
        .bind(4, now)
        .bind(5, now)
        .step();
    return key;
}

std::optional<Written> SqliteStore::updateNote(qint64 userId, const QString& key,
                                               const QString& text, qint64 now,
                                               std::optional<qint64> baseVersion) {
    std::lock_guard lock(mutex_);
    WriteTransaction transaction(*writes_);
    QString current;
    qint64 version = 0;
    {
        Statement s(*writes_, "SELECT text, version FROM notes WHERE key = ? AND user_id = ?");
        s.bind(1, key).bind(2, userId);
        if (!s.step())
            return std::nullopt;
        current = s.text(0);
        version = s.integer(1);
    }
    Written written{version + 1, baseVersion && *baseVersion < version};
    QString stored = text;
    if (written.merged) {
        const QString base = pastText(*writes_, key, *baseVersion);
        stored = mergeNoteText(base.isNull() ? current : base, text, current);
    }
    keepPastVersion(*writes_, key);
    Statement(*writes_,
              "UPDATE notes SET text = ?, modified = ?, version = version + 1 WHERE key = ?")
        .bind(1, stored)
        .bind(2, now)
        .bind(3, key)
        .step();
    transaction.commit();
    return written;
}

std::optional<Note> SqliteStore::note(qint64 userId, const QString& key) {
    const auto lease = reads_.take();
    Statement s(lease.statements(),
                "SELECT key, text, created, modified, deleted, version FROM notes "
                "WHERE key = ? AND user_id = ?");
    s.bind(1, key).bind(2, userId);
    if (!s.step())
        return std::nullopt;
    return readNote(s);
}

bool SqliteStore::markDeleted(qint64 userId, const QString& key, qint64 now) {
    std::lock_guard lock(mutex_);
    WriteTransaction transaction(*writes_);
    {
        Statement owned(*writes_, "SELECT 1 FROM notes WHERE key = ? AND user_id = ?");
        if (!owned.bind(1, key).bind(2, userId).step())
            return false;
    }
    keepPastVersion(*writes_, key);
    Statement(*writes_,
              "UPDATE notes SET deleted = 1, modified = ?, version = version + 1 "
              "WHERE key = ?")
        .bind(1, now)
        .bind(2, key)
        .step();
    transaction.commit();
    return true;
}

bool SqliteStore::purge(qint64 userId, const QString& key) {
    std::lock_guard lock(mutex_);
    Statement(*writes_, "DELETE FROM notes WHERE key = ? AND user_id = ?")
        .bind(1, key)
        .bind(2, userId)
        .step();
    return sqlite3_changes(db_) > 0;
}

std::vector<Note> SqliteStore::index(qint64 userId) {
    return listNotes(userId, false);
}

std::vector<Note> SqliteStore::listNotes(qint64 userId, bool withText) {
    const auto lease = reads_.take();
    Statement s(lease.statements(),
                withText ? "SELECT key, text, created, modified, deleted, version FROM notes "
                           "WHERE user_id = ? ORDER BY modified DESC, rowid DESC"
                         : "SELECT key, '', created, modified, deleted, version FROM notes "
                           "WHERE user_id = ? ORDER BY modified DESC, rowid DESC");
    s.bind(1, userId);
    std::vector<Note> list;
    while (s.step())
        list.push_back(readNote(s));
    return list;
}

std::vector<Note> SqliteStore::search(qint64 userId, const QString& needle, int limit, int offset,
                                      qint64* total) {
    const TextMatch match(needle);
    const QString lookFor = indexed(needle);
    // One snapshot for the lookup and the page, whatever is written meanwhile.
    const ReadConnections::Snapshot snapshot(reads_);
    const auto lease = reads_.take();
    // Only the matches are sorted and only the page is copied out.
    struct Hit {
        qint64 modified;
        qint64 rowid;
        bool operator>(const Hit& o) const {
            return modified != o.modified ? modified > o.modified : rowid > o.rowid;
        }
    };
    std::vector<Hit> hits;
    // The index pays for itself while its matches are a small part of the notes: a needle in
    // nearly every note is found sooner by reading them all than by following the index to
    // each. Past this many notes named by the index (of any account), the reading takes over.
    constexpr int kMostFromIndex = 1000;
    bool useIndex = indexable(lookFor);
    if (useIndex) {
        // The index names the notes whose text holds the needle; the notes say whose they are
        // and whether they live (and, when the index may find too much, what they hold).
        const bool check = mayFindTooMuch(lookFor);
        Statement found(lease.statements(),
                        check ? "SELECT notes.rowid, notes.modified, notes.user_id, notes.deleted,"
                                " notes.text FROM note_search CROSS JOIN notes"
                                " ON notes.rowid = note_search.rowid WHERE note_search MATCH ?"
                              : "SELECT notes.rowid, notes.modified, notes.user_id, notes.deleted"
                                " FROM note_search CROSS JOIN notes"
                                " ON notes.rowid = note_search.rowid WHERE note_search MATCH ?");
        found.bind(1, phraseQuery(lookFor));
        for (int named = 0; useIndex && found.step(); ++named) {
            if (named == kMostFromIndex) {
                useIndex = false;
                hits.clear();
            } else if (found.integer(2) == userId && found.integer(3) == 0 &&
                       (!check || match.matches(found.utf8(4)))) {
                hits.push_back(Hit{found.integer(1), found.integer(0)});
            }
        }
    }
    if (!useIndex) {
        // Every live note's text is looked at in place, in the table's own order (a straight
        // read, where walking an index would fetch each row by itself). Also for a needle too
        // short for the index.
        Statement scan(lease.statements(),
                       "SELECT rowid, modified, text FROM notes NOT INDEXED "
                       "WHERE user_id = ? AND deleted = 0");
        scan.bind(1, userId);
        while (scan.step()) {
            if (match.matches(scan.utf8(2)))
                hits.push_back(Hit{scan.integer(1), scan.integer(0)});
        }
    }
    std::sort(hits.begin(), hits.end(), std::greater<Hit>());
    *total = static_cast<qint64>(hits.size());

    std::vector<Note> page;
    const auto end = std::min<std::size_t>(hits.size(), std::size_t(offset) + std::size_t(limit));
    for (std::size_t i = std::size_t(offset); i < end; ++i) {
        Statement row(lease.statements(),
                      "SELECT key, text, created, modified, deleted, version FROM notes "
                      "WHERE rowid = ?");
        if (row.bind(1, hits[i].rowid).step())
            page.push_back(readNote(row));
    }
    return page;
}

std::vector<User> SqliteStore::users() {
    const auto lease = reads_.take();
    Statement s(lease.statements(), "SELECT id, email, password_hash FROM users ORDER BY id");
    std::vector<User> list;
    while (s.step())
        list.push_back(User{s.integer(0), s.text(1), s.text(2)});
    return list;
}

std::vector<Note> SqliteStore::notes(qint64 userId) {
    return listNotes(userId, true);
}

bool SqliteStore::importAccount(const User& user, const std::vector<Note>& notes) {
    std::lock_guard lock(mutex_);
    execute("BEGIN IMMEDIATE");
    try {
        Statement(*writes_, "INSERT INTO users (email, password_hash) VALUES (?, ?)")
            .bind(1, user.email)
            .bind(2, user.passwordHash)
            .step();
        const qint64 id = sqlite3_last_insert_rowid(db_);
        // Oldest first, so that rows tied on their date keep their order.
        for (auto it = notes.rbegin(); it != notes.rend(); ++it) {
            Statement(*writes_,
                      "INSERT INTO notes (key, user_id, text, created, modified, deleted, "
                      "version) VALUES (?, ?, ?, ?, ?, ?, ?)")
                .bind(1, it->key)
                .bind(2, id)
                .bind(3, it->text)
                .bind(4, it->createMicros)
                .bind(5, it->modifyMicros)
                .bind(6, qint64(it->deleted))
                .bind(7, it->version)
                .step();
        }
        execute("COMMIT");
    } catch (const std::invalid_argument&) {
        execute("ROLLBACK");
        return false;
    } catch (...) {
        execute("ROLLBACK");
        throw;
    }
    return true;
}

namespace {

// One process serves a SQLite file, so its own streams are all there are.
class LocalChanges : public NoteEvents {
public:
    explicit LocalChanges(NoteEvents& local) : local_(local) {}
    void noteChanged(qint64 userId, const QString& key) override {
        local_.noteChanged(userId, key);
    }
    // What another process (remove-user, passwd) ends is found at each stream's heartbeat.
    void accessEnded(qint64 userId) override { local_.accessEnded(userId); }

private:
    NoteEvents& local_;
};

}  // namespace

std::unique_ptr<ReadSnapshot> SqliteStore::readSnapshot() {
    struct Held : ReadSnapshot {
        explicit Held(ReadConnections& reads) : snapshot(reads) {}
        ReadConnections::Snapshot snapshot;
    };
    return std::make_unique<Held>(reads_);
}

std::unique_ptr<NoteEvents> SqliteStore::changeRelay(NoteEvents& local) {
    return std::make_unique<LocalChanges>(local);
}

}  // namespace notes
