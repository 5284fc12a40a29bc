// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/PostgresStore.h"

#include <QStringList>

#include "service/NoteMerge.h"
#include "service/PgChangeRelay.h"
#include "service/TextMatch.h"

namespace notes {

namespace {

const char* const kMigrations[] = {
    // 0 -> 1
    "CREATE EXTENSION IF NOT EXISTS pg_trgm;"
    "CREATE TABLE users (id bigserial PRIMARY KEY, email text NOT NULL UNIQUE,"
    "  password_hash text NOT NULL);"
    "CREATE TABLE tokens (token_hash bytea PRIMARY KEY, user_id bigint NOT NULL"
    "  REFERENCES users(id) ON DELETE CASCADE, expires bigint NOT NULL);"
    "CREATE INDEX tokens_by_expiry ON tokens(expires);"
    // folded: the text as foldForSearch makes it, which the trigram index covers.
    "CREATE TABLE notes (id bigserial PRIMARY KEY, key text NOT NULL UNIQUE, user_id bigint"
    "  NOT NULL REFERENCES users(id) ON DELETE CASCADE, text text NOT NULL,"
    "  folded text NOT NULL, created bigint NOT NULL, modified bigint NOT NULL,"
    "  deleted boolean NOT NULL DEFAULT false);"
    "CREATE INDEX notes_by_change ON notes(user_id, modified, id);"
    "CREATE INDEX notes_by_text ON notes USING gin (folded gin_trgm_ops);"
    "CREATE TABLE devices (id bigserial PRIMARY KEY, user_id bigint NOT NULL"
    "  REFERENCES users(id) ON DELETE CASCADE, token_hash bytea NOT NULL UNIQUE,"
    "  name text NOT NULL, created bigint NOT NULL, last_seen bigint NOT NULL);"
    "CREATE INDEX devices_by_user ON devices(user_id);"
    "CREATE TABLE login_failures (email text NOT NULL, address text NOT NULL,"
    "  at timestamptz NOT NULL DEFAULT clock_timestamp());"
    "CREATE INDEX login_failures_by_who ON login_failures(email, address, at);"
    "CREATE INDEX login_failures_by_age ON login_failures(at);",
    // 1 -> 2: the trigram index takes each change in at once. Left to gather changes in a
    // pending list, every search reads that whole list, and the planner, counting it in,
    // reads every note of the table instead (three times slower on 10,000 notes) until
    // autovacuum comes round.
    "ALTER INDEX notes_by_text SET (fastupdate = off);"
    "SELECT gin_clean_pending_list('notes_by_text');",
    // 2 -> 3: every note counts its writes, and keeps its latest past texts, so that a write
    // based on an older version can be merged with what was written since.
    "ALTER TABLE notes ADD COLUMN version bigint NOT NULL DEFAULT 1;"
    "CREATE TABLE note_versions (note_id bigint NOT NULL REFERENCES notes(id) ON DELETE CASCADE,"
    "  version bigint NOT NULL, text text NOT NULL, PRIMARY KEY (note_id, version));",
    // 3 -> 4: failed logins are counted per address too.
    "CREATE INDEX login_failures_by_address ON login_failures(address, at);",
};
static_assert(std::size(kMigrations) == PostgresStore::kSchemaVersion);

// The advisory lock under which one node at a time makes or migrates the schema; the
// two-number form, whose keys never meet the one-number keys taken per account.
constexpr const char* kSchemaLock = "SELECT pg_advisory_xact_lock(1179796018, 1)";

// LIKE's wildcards and escape character, taken literally.
QString likeLiteral(const QString& text) {
    QString escaped;
    escaped.reserve(text.size());
    for (const QChar c : text) {
        if (c == QLatin1Char('\\') || c == QLatin1Char('%') || c == QLatin1Char('_'))
            escaped += QLatin1Char('\\');
        escaped += c;
    }
    return escaped;
}

// From column first on: key, text, created, modified, deleted, version.
Note readNote(const PgResult& r, int row, int first = 0) {
    return Note{r.text(row, first),        r.text(row, first + 1),    r.integer(row, first + 2),
                r.integer(row, first + 3), r.boolean(row, first + 4), r.integer(row, first + 5)};
}

std::vector<Note> readNotes(const PgResult& r) {
    std::vector<Note> list;
    list.reserve(std::size_t(r.rows()));
    for (int row = 0; row < r.rows(); ++row)
        list.push_back(readNote(r, row));
    return list;
}

constexpr const char* kInsertNote =
    "INSERT INTO notes (key, user_id, text, folded, created, modified, deleted, version) "
    "VALUES ($1, $2, $3, $4, $5, $6, $7, $8)";

PgParams noteRow(const QString& key, qint64 userId, const QString& text, qint64 created,
                 qint64 modified, bool deleted, qint64 version = 1) {
    return std::move(PgParams()
                         .add(key)
                         .add(userId)
                         .add(text)
                         .add(foldForSearch(text))
                         .add(created)
                         .add(modified)
                         .add(QString::fromLatin1(deleted ? "true" : "false"))
                         .add(version));
}

// Before a write of the note (locked by the caller): its present text joins its past
// versions, of which the oldest beyond what is kept go.
void keepPastVersion(PgConnections::Lease& lease, qint64 noteId) {
    lease.run(
        "WITH kept AS (INSERT INTO note_versions (note_id, version, text) "
        "  SELECT id, version, text FROM notes WHERE id = $1 RETURNING version) "
        "DELETE FROM note_versions WHERE note_id = $1 "
        "AND version <= (SELECT version FROM kept) - $2",
        PgParams().add(noteId).add(NotesStore::kVersionsKept));
}

// The text of the note at version, or at the oldest version kept after it; null when none is.
QString pastText(PgConnections::Lease& lease, qint64 noteId, qint64 version) {
    const PgResult r = lease.run(
        "SELECT text FROM note_versions WHERE note_id = $1 AND version >= $2 "
        "ORDER BY version LIMIT 1",
        PgParams().add(noteId).add(version));
    return r.rows() ? r.text(0, 0) : QString();
}

// A write of the note's row that counts as a new version.
constexpr const char* kWriteText =
    "UPDATE notes SET text = $1, folded = $2, modified = $3, version = version + 1 "
    "WHERE id = $4";

}  // namespace

PostgresStore::PostgresStore(const QString& location)
    : location_(location), connections_(location), logins_(connections_) {
    migrate();
}

PostgresStore::~PostgresStore() = default;

void PostgresStore::migrate() {
    auto lease = connections_.take();
    PgTransaction transaction(lease);
    lease.execute(kSchemaLock);
    lease.execute("CREATE TABLE IF NOT EXISTS ferrybox_schema (version integer NOT NULL)");
    const PgResult current = lease.run("SELECT version FROM ferrybox_schema");
    const int version = current.rows() ? static_cast<int>(current.integer(0, 0)) : 0;
    if (version > kSchemaVersion) {
        throw StoreError("schema version " + std::to_string(version) +
                         " is newer than this program knows");
    }
    for (int v = version; v < kSchemaVersion; ++v)
        lease.execute(kMigrations[v]);
    if (version == 0)
        lease.execute("INSERT INTO ferrybox_schema VALUES (0)");
    lease.run("UPDATE ferrybox_schema SET version = $1", PgParams().add(kSchemaVersion));
    transaction.commit();
}

bool PostgresStore::addUser(const QString& email, const QString& passwordHash) {
    auto lease = connections_.take();
    try {
        lease.run("INSERT INTO users (email, password_hash) VALUES ($1, $2)",
                  PgParams().add(email).add(passwordHash));
    } catch (const std::invalid_argument&) {
        return false;
    }
    return true;
}

namespace {

// Every node's change streams opened with what ended hear of it when (and only if) it is
// committed: NOTIFY waits for the end of its transaction.
constexpr const char* kAnnounceEnd = "SELECT pg_notify($1, $2)";

PgParams accessEnded(qint64 userId) {
    return std::move(
        PgParams().add(QString::fromLatin1(kAccessEndedChannel)).add(QString::number(userId)));
}

}  // namespace

bool PostgresStore::removeUser(const QString& email) {
    auto lease = connections_.take();
    const PgResult gone = lease.run(
        "WITH gone AS (DELETE FROM users WHERE email = $1 RETURNING id) "
        "SELECT pg_notify($2, id::text) FROM gone",
        PgParams().add(email).add(QString::fromLatin1(kAccessEndedChannel)));
    return gone.rows() > 0;
}

bool PostgresStore::changePassword(const QString& email, const QString& passwordHash) {
    auto lease = connections_.take();
    PgTransaction transaction(lease);
    const PgResult changed =
        lease.run("UPDATE users SET password_hash = $2 WHERE email = $1 RETURNING id",
                  PgParams().add(email).add(passwordHash));
    if (!changed.rows())
        return false;
    const qint64 id = changed.integer(0, 0);
    lease.run("DELETE FROM tokens WHERE user_id = $1", PgParams().add(id));
    lease.run("DELETE FROM devices WHERE user_id = $1", PgParams().add(id));
    lease.run(kAnnounceEnd, accessEnded(id));
    transaction.commit();
    return true;
}

void PostgresStore::endSessions(qint64 userId) {
    auto lease = connections_.take();
    PgTransaction transaction(lease);
    lease.run("DELETE FROM tokens WHERE user_id = $1", PgParams().add(userId));
    lease.run("DELETE FROM devices WHERE user_id = $1", PgParams().add(userId));
    lease.run(kAnnounceEnd, accessEnded(userId));
    transaction.commit();
}

std::optional<User> PostgresStore::userByEmail(const QString& email) {
    auto lease = connections_.take();
    const PgResult r = lease.run("SELECT id, email, password_hash FROM users WHERE email = $1",
                                 PgParams().add(email));
    if (!r.rows())
        return std::nullopt;
    return User{r.integer(0, 0), r.text(0, 1), r.text(0, 2)};
}

void PostgresStore::addToken(qint64 userId, const QByteArray& tokenHash, qint64 expiresMicros) {
    auto lease = connections_.take();
    lease.run(
        "WITH expired AS (DELETE FROM tokens WHERE expires < $4) "
        "INSERT INTO tokens (token_hash, user_id, expires) VALUES ($1, $2, $3)",
        PgParams().addBytes(tokenHash).add(userId).add(expiresMicros).add(nowMicros()));
}

std::optional<Access> PostgresStore::tokenAccess(const QByteArray& tokenHash, const QString& email,
                                                 qint64 now) {
    auto lease = connections_.take();
    const PgResult r = lease.run(
        "SELECT users.id, tokens.expires FROM tokens JOIN users ON users.id = tokens.user_id "
        "WHERE tokens.token_hash = $1 AND users.email = $2 AND tokens.expires > $3",
        PgParams().addBytes(tokenHash).add(email).add(now));
    if (!r.rows())
        return std::nullopt;
    return Access{r.integer(0, 0), 0, tokenHash, r.integer(0, 1)};
}

bool PostgresStore::stillGranted(const Access& access, qint64 now) {
    auto lease = connections_.take();
    if (access.deviceId) {
        return lease
                   .run("SELECT 1 FROM devices WHERE id = $1 AND user_id = $2 AND last_seen > $3",
                        PgParams()
                            .add(access.deviceId)
                            .add(access.userId)
                            .add(now - kDeviceIdleMicros))
                   .rows() > 0;
    }
    return lease
               .run("SELECT 1 FROM tokens WHERE token_hash = $1 AND user_id = $2 AND expires > $3",
                    PgParams().addBytes(access.tokenHash).add(access.userId).add(now))
               .rows() > 0;
}

qint64 PostgresStore::addDevice(qint64 userId, const QByteArray& tokenHash, const QString& name,
                                qint64 now) {
    auto lease = connections_.take();
    const PgResult r = lease.run(
        "WITH ended AS (DELETE FROM devices WHERE last_seen < $5) "
        "INSERT INTO devices (user_id, token_hash, name, created, last_seen) "
        "VALUES ($1, $2, $3, $4, $4) RETURNING id",
        PgParams().add(userId).addBytes(tokenHash).add(name).add(now).add(now - kDeviceIdleMicros));
    return r.integer(0, 0);
}

std::optional<DeviceSession> PostgresStore::deviceSession(const QByteArray& tokenHash, qint64 now) {
    auto lease = connections_.take();
    const PgResult r = lease.run(
        "SELECT devices.id, devices.user_id, users.email, devices.last_seen "
        "FROM devices JOIN users ON users.id = devices.user_id "
        "WHERE devices.token_hash = $1 AND devices.last_seen > $2",
        PgParams().addBytes(tokenHash).add(now - kDeviceIdleMicros));
    if (!r.rows())
        return std::nullopt;
    const DeviceSession session{r.integer(0, 1), r.integer(0, 0), r.text(0, 2)};
    if (now - r.integer(0, 3) > kDeviceUseGranularityMicros) {
        lease.run("UPDATE devices SET last_seen = $1 WHERE id = $2",
                  PgParams().add(now).add(session.deviceId));
    }
    return session;
}

std::vector<Device> PostgresStore::devices(qint64 userId, qint64 now) {
    auto lease = connections_.take();
    const PgResult r = lease.run(
        "SELECT id, name, created, last_seen FROM devices "
        "WHERE user_id = $1 AND last_seen > $2 ORDER BY last_seen DESC, id DESC",
        PgParams().add(userId).add(now - kDeviceIdleMicros));
    std::vector<Device> list;
    for (int row = 0; row < r.rows(); ++row)
        list.push_back(
            Device{r.integer(row, 0), r.text(row, 1), r.integer(row, 2), r.integer(row, 3)});
    return list;
}

bool PostgresStore::endDevice(qint64 userId, qint64 deviceId) {
    auto lease = connections_.take();
    return lease
               .run(
                   "WITH ended AS (DELETE FROM devices WHERE id = $1 AND user_id = $2 "
                   "RETURNING user_id) SELECT pg_notify($3, user_id::text) FROM ended",
                   PgParams().add(deviceId).add(userId).add(
                       QString::fromLatin1(kAccessEndedChannel)))
               .rows() > 0;
}

Appended PostgresStore::appendLine(qint64 userId, const QString& header, const QString& line,
                                   qint64 now, const std::optional<SeenVersion>& seen,
                                   qint64 maxBase64Bytes) {
    auto lease = connections_.take();
    PgTransaction transaction(lease);
    // One append per account at a time, on every node: two shares made at the same moment
    // must not both decide that there is no note yet, nor both rewrite the same one.
    lease.run("SELECT pg_advisory_xact_lock($1)", PgParams().add(userId));
    const PgResult found = lease.run(
        "SELECT key, text, version, id FROM notes WHERE user_id = $1 AND NOT deleted "
        "AND left(text, $2) = $3 ORDER BY modified DESC, id DESC LIMIT 1 FOR UPDATE",
        PgParams().add(userId).add(qint64(header.size())).add(header));
    Appended appended;
    if (!found.rows()) {
        const QString made = header + QLatin1Char('\n') + line;
        if (base64Length(made) > maxBase64Bytes)
            return {QString(), false, 0, true};
        appended = {newNoteKey(), true, 1};
        lease.run(kInsertNote, noteRow(appended.key, userId, made, now, now, false));
    } else {
        appended.key = found.text(0, 0);
        const QString text = found.text(0, 1);
        appended.version = found.integer(0, 2);
        const qint64 id = found.integer(0, 3);
        const QString seenText =
            seen && seen->key == appended.key && seen->version < appended.version
                ? pastText(lease, id, seen->version)
                : QString();
        appended.added = appendAdds(line, text, seenText);
        const QString stored = appended.added ? appendedText(text, line) : QString();
        if (appended.added && base64Length(stored) > maxBase64Bytes) {
            appended.added = false;
            appended.tooLong = true;
        }
        if (appended.added) {
            keepPastVersion(lease, id);
            lease.run(kWriteText,
                      PgParams().add(stored).add(foldForSearch(stored)).add(now).add(id));
            ++appended.version;
        }
    }
    transaction.commit();
    return appended;
}

QString PostgresStore::createNote(qint64 userId, const QString& text, qint64 now) {
    auto lease = connections_.take();
    const QString key = newNoteKey();
    lease.run(kInsertNote, noteRow(key, userId, text, now, now, false));
    return key;
}

std::optional<Written> PostgresStore::updateNote(qint64 userId, const QString& key,
                                                 const QString& text, qint64 now,
                                                 std::optional<qint64> baseVersion) {
    auto lease = connections_.take();
    PgTransaction transaction(lease);
    const PgResult found =
        lease.run("SELECT id, text, version FROM notes WHERE key = $1 AND user_id = $2 FOR UPDATE",
                  PgParams().add(key).add(userId));
    if (!found.rows())
        return std::nullopt;
    const qint64 id = found.integer(0, 0);
    const QString current = found.text(0, 1);
    const qint64 version = found.integer(0, 2);
    Written written{version + 1, baseVersion && *baseVersion < version};
    QString stored = text;
    if (written.merged) {
        const QString base = pastText(lease, id, *baseVersion);
        stored = mergeNoteText(base.isNull() ? current : base, text, current);
    }
    keepPastVersion(lease, id);
    lease.run(kWriteText, PgParams().add(stored).add(foldForSearch(stored)).add(now).add(id));
    transaction.commit();
    return written;
}

std::optional<Note> PostgresStore::note(qint64 userId, const QString& key) {
    auto lease = connections_.take();
    const PgResult r = lease.run(
        "SELECT key, text, created, modified, deleted, version FROM notes "
        "WHERE key = $1 AND user_id = $2",
        PgParams().add(key).add(userId));
    if (!r.rows())
        return std::nullopt;
    return readNote(r, 0);
}

bool PostgresStore::markDeleted(qint64 userId, const QString& key, qint64 now) {
    auto lease = connections_.take();
    PgTransaction transaction(lease);
    const PgResult found =
        lease.run("SELECT id FROM notes WHERE key = $1 AND user_id = $2 FOR UPDATE",
                  PgParams().add(key).add(userId));
    if (!found.rows())
        return false;
    const qint64 id = found.integer(0, 0);
    keepPastVersion(lease, id);
    lease.run("UPDATE notes SET deleted = true, modified = $1, version = version + 1 WHERE id = $2",
              PgParams().add(now).add(id));
    transaction.commit();
    return true;
}

bool PostgresStore::purge(qint64 userId, const QString& key) {
    auto lease = connections_.take();
    return lease
               .run("DELETE FROM notes WHERE key = $1 AND user_id = $2",
                    PgParams().add(key).add(userId))
               .changed() > 0;
}

std::vector<Note> PostgresStore::index(qint64 userId) {
    return listNotes(userId, false);
}

std::vector<Note> PostgresStore::listNotes(qint64 userId, bool withText) {
    auto lease = connections_.take();
    return readNotes(
        lease.run(withText ? "SELECT key, text, created, modified, deleted, version FROM notes "
                             "WHERE user_id = $1 ORDER BY modified DESC, id DESC"
                           : "SELECT key, '', created, modified, deleted, version FROM notes "
                             "WHERE user_id = $1 ORDER BY modified DESC, id DESC",
                  PgParams().add(userId)));
}

std::vector<Note> PostgresStore::search(qint64 userId, const QString& needle, int limit, int offset,
                                        qint64* total) {
    // No note holds a NUL character (the service refuses such text), and a parameter would end
    // at it.
    if (needle.contains(QChar(0))) {
        *total = 0;
        return {};
    }
    auto lease = connections_.take();
    // One statement, so the count and the page come from one snapshot; the count's row is
    // there even when the page is empty.
    const PgResult r = lease.runPlannedForValues(
        "WITH hits AS MATERIALIZED (SELECT id, modified FROM notes "
        "  WHERE user_id = $1 AND NOT deleted AND folded LIKE $2), "
        "page AS (SELECT id FROM hits ORDER BY modified DESC, id DESC LIMIT $3 OFFSET $4) "
        "SELECT counted.total, n.key, n.text, n.created, n.modified, n.deleted, n.version "
        "FROM (SELECT count(*) AS total FROM hits) counted "
        "LEFT JOIN (page JOIN notes n USING (id)) ON true "
        "ORDER BY n.modified DESC, n.id DESC",
        PgParams()
            .add(userId)
            .add(QLatin1Char('%') + likeLiteral(foldForSearch(needle)) + QLatin1Char('%'))
            .add(qint64(limit))
            .add(qint64(offset)));
    *total = r.integer(0, 0);
    std::vector<Note> page;
    for (int row = 0; row < r.rows(); ++row) {
        if (!r.isNull(row, 1))
            page.push_back(readNote(r, row, 1));
    }
    return page;
}

std::vector<User> PostgresStore::users() {
    auto lease = connections_.take();
    const PgResult r = lease.run("SELECT id, email, password_hash FROM users ORDER BY id");
    std::vector<User> list;
    for (int row = 0; row < r.rows(); ++row)
        list.push_back(User{r.integer(row, 0), r.text(row, 1), r.text(row, 2)});
    return list;
}

std::vector<Note> PostgresStore::notes(qint64 userId) {
    return listNotes(userId, true);
}

// The planner's picture of each table otherwise comes from autovacuum a while later; until then
// it guesses how many notes a search pattern or an account holds.
void PostgresStore::importsDone() {
    connections_.take().execute("ANALYZE users, notes");
}

bool PostgresStore::importAccount(const User& user, const std::vector<Note>& notes) {
    auto lease = connections_.take();
    PgTransaction transaction(lease);
    qint64 id = 0;
    try {
        id = lease
                 .run("INSERT INTO users (email, password_hash) VALUES ($1, $2) RETURNING id",
                      PgParams().add(user.email).add(user.passwordHash))
                 .integer(0, 0);
    } catch (const std::invalid_argument&) {
        return false;
    }
    // Oldest first, so that notes tied on their date keep their order.
    for (auto it = notes.rbegin(); it != notes.rend(); ++it) {
        lease.run(kInsertNote, noteRow(it->key, id, it->text, it->createMicros, it->modifyMicros,
                                       it->deleted, it->version));
    }
    transaction.commit();
    return true;
}

std::unique_ptr<NoteEvents> PostgresStore::changeRelay(NoteEvents& local) {
    return std::make_unique<PgChangeRelay>(connections_, local);
}

}  // namespace notes
