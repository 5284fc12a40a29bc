// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QString>
#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

#include "service/Credentials.h"
#include "service/NoteEvents.h"

namespace notes {

// A failure to open, read or write the database; what() says what and where.
class StoreError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Note {
    QString key;
    QString text;
    qint64 createMicros = 0;  // microseconds since the epoch, UTC
    qint64 modifyMicros = 0;
    bool deleted = false;
    // Grows by one with every write of the note, its text or its deleted flag; 1 when made.
    qint64 version = 1;
};

// What a write of a note's text stored.
struct Written {
    qint64 version = 0;
    bool merged = false;  // the note had moved on since the writer's base: others' lines kept
};

// A note as a writer last saw it: a write or an append based on it leaves what others changed
// since then.
struct SeenVersion {
    QString key;
    qint64 version = 0;
};

// A browser signed in to the web page, known by the hash of the token in its cookie.
struct Device {
    qint64 id = 0;
    QString name;  // "Chrome on Android"
    qint64 createdMicros = 0;
    qint64 lastSeenMicros = 0;
};

struct DeviceSession {
    qint64 userId = 0;
    qint64 deviceId = 0;
    QString email;
};

// What a request was let in by: an API token or a web page's device session, of one account.
// A change stream lasts only as long as what it was opened with.
struct Access {
    qint64 userId = 0;
    qint64 deviceId = 0;       // the device session's; 0 for a token
    QByteArray tokenHash;      // the token's SHA-256; empty for a device session
    qint64 expiresMicros = 0;  // when the token ends; 0 for a device session
};

// What appending a line to a note did.
struct Appended {
    QString key;
    bool added = false;  // false: the line was there already (or was taken since), nothing changed
    qint64 version = 0;  // the note's, after the append
    bool tooLong = false;  // not added: the note would have grown past the limit
};

struct User {
    qint64 id = 0;
    QString email;
    QString passwordHash;
};

// A database refused to answer right now (unreachable, restarting); the request can be tried
// again later and nothing it asked for was done.
class StoreUnavailable : public StoreError {
public:
    using StoreError::StoreError;
};

// Held by a request that only reads; see NotesStore::readSnapshot.
class ReadSnapshot {
public:
    virtual ~ReadSnapshot() = default;
};

// Everything the service keeps: accounts, hashed session tokens, device sessions and notes. One
// interface, two backends: SQLite in one file (one process serves it) and PostgreSQL (any number
// of processes, "nodes", serve it at once). Writes are durable before they return.
class NotesStore {
public:
    // The past texts of a note kept for merging writes based on them: this many of its newest
    // versions before the present one. A writer whose base is older than that (a page left
    // open for long while many links came and went) is merged against the oldest kept.
    static constexpr qint64 kVersionsKept = 64;
    // A device session nobody used for this long has ended.
    static constexpr qint64 kDeviceIdleMicros = 180LL * 24 * 3600 * 1000000;
    // A device's use is written down at most this often, so that a busy page does not cost a
    // durable write for every request.
    static constexpr qint64 kDeviceUseGranularityMicros = 60LL * 1000000;

    virtual ~NotesStore() = default;

    // false when the address is taken. An account's id is never given to another account,
    // not even after it was removed: whatever still knows the old id (a change stream of the
    // removed account, say) must never hear of the newcomer's notes.
    virtual bool addUser(const QString& email, const QString& passwordHash) = 0;
    // Ends the account's sessions with it.
    virtual bool removeUser(const QString& email) = 0;
    virtual std::optional<User> userByEmail(const QString& email) = 0;
    // A new password, and every token and device session of the account ended: whoever knew
    // the old one is out. False when there is no such account.
    virtual bool changePassword(const QString& email, const QString& passwordHash) = 0;

    virtual void addToken(qint64 userId, const QByteArray& tokenHash, qint64 expiresMicros) = 0;
    // The live token that hashes to tokenHash, if its account has this address.
    virtual std::optional<Access> tokenAccess(const QByteArray& tokenHash, const QString& email,
                                              qint64 nowMicros) = 0;
    // Whether the token or device session is still live (not ended, not expired, its account
    // still there).
    virtual bool stillGranted(const Access& access, qint64 nowMicros) = 0;
    // Every token and device session of the account ends ("sign out everywhere").
    virtual void endSessions(qint64 userId) = 0;

    virtual qint64 addDevice(qint64 userId, const QByteArray& tokenHash, const QString& name,
                             qint64 nowMicros) = 0;
    // The live session whose token hashes to tokenHash; notes its use.
    virtual std::optional<DeviceSession> deviceSession(const QByteArray& tokenHash,
                                                       qint64 nowMicros) = 0;
    // Most recently used first.
    virtual std::vector<Device> devices(qint64 userId, qint64 nowMicros) = 0;
    virtual bool endDevice(qint64 userId, qint64 deviceId) = 0;

    // Adds line at the end of the newest live note whose text begins with header, unless it is
    // a line of that note already; with no such note, makes one of header and line. Appends
    // that race each other, from any process, all land. When the writer saw that note at an
    // older version that held the line, and the line is gone since (the agent took it), it is
    // not added again. Nor when the note's text would grow past maxBase64Bytes in base64 (the
    // measure of a note body): then nothing changes and the answer says tooLong.
    virtual Appended appendLine(qint64 userId, const QString& header, const QString& line,
                                qint64 nowMicros, const std::optional<SeenVersion>& seen,
                                qint64 maxBase64Bytes) = 0;

    // Note texts never hold a NUL character (PostgreSQL's text cannot).
    virtual QString createNote(qint64 userId, const QString& text, qint64 nowMicros) = 0;
    // Replaces the note's text, or, when the note has moved on since baseVersion, stores the
    // merge of the writer's text with what the others wrote since (NoteMerge.h), in one
    // transaction. A base older than the versions kept is merged against the oldest kept; no
    // base, or one not older than the note, overwrites. Empty when there is no such note.
    virtual std::optional<Written> updateNote(qint64 userId, const QString& key,
                                              const QString& text, qint64 nowMicros,
                                              std::optional<qint64> baseVersion) = 0;
    virtual std::optional<Note> note(qint64 userId, const QString& key) = 0;
    virtual bool markDeleted(qint64 userId, const QString& key, qint64 nowMicros) = 0;
    virtual bool purge(qint64 userId, const QString& key) = 0;
    // Newest change first (the later written first on a tie); deleted notes included, texts
    // left empty.
    virtual std::vector<Note> index(qint64 userId) = 0;
    // Notes not deleted whose text contains needle, without regard to case (as
    // QString::contains with Qt::CaseInsensitive decides it), newest change first: the page
    // [offset, offset + limit) and the count of every match.
    virtual std::vector<Note> search(qint64 userId, const QString& needle, int limit, int offset,
                                     qint64* total) = 0;

    // Moving a service from one store to another: every account, and every note of one with
    // its text, in index order.
    virtual std::vector<User> users() = 0;
    virtual std::vector<Note> notes(qint64 userId) = 0;
    // Adds an account with its notes as they are (keys, dates, deleted flags), all or nothing;
    // false when the address is taken.
    virtual bool importAccount(const User& user, const std::vector<Note>& notes) = 0;
    // After the imports: the database learns what it now holds, where it plans by that.
    virtual void importsDone() {}

    // Where failed logins are counted: the memory of the one process that serves a SQLite
    // file; the database itself when several processes share it, so that guesses spread over
    // them add up.
    virtual LoginLimiter& logins() = 0;
    // Tells a change to the event streams of every process serving this store; local stands
    // for this process's own streams. SQLite: local itself.
    virtual std::unique_ptr<NoteEvents> changeRelay(NoteEvents& local) = 0;
    // For a request that only reads: until the value is dropped, this thread's reads see one
    // state of the store, and cost less. Null where each read stands alone anyway.
    virtual std::unique_ptr<ReadSnapshot> readSnapshot() { return nullptr; }
};

// The store at location: a postgresql:// or postgres:// URI (libpq's connection URI), or else
// the path of a SQLite file. The schema is made or brought up to date first.
std::unique_ptr<NotesStore> openNotesStore(const QString& location);
bool isDatabaseUrl(const QString& location);

// A new note's key: 128 random bits in hex, opaque, URL-safe and unguessable.
QString newNoteKey();

// How long the text is as a note body: its UTF-8 in base64, padding included.
qint64 base64Length(const QString& text);

// "YYYY-MM-DD HH:MM:SS.ffffff" in UTC.
QString formatMicros(qint64 micros);
qint64 nowMicros();

}  // namespace notes
