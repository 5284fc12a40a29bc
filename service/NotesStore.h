// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QString>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <vector>

#include "service/ReadConnections.h"

struct sqlite3;

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

// What appending a line to a note did.
struct Appended {
    QString key;
    bool added = false;  // false: the line was there already and nothing changed
};

struct User {
    qint64 id = 0;
    QString email;
    QString passwordHash;
};

// The service's SQLite database (WAL, every commit synced): users, hashed session tokens and
// notes. Writes go one at a time through one connection; reads run side by side on connections
// of their own. The schema carries its version (PRAGMA user_version) and is migrated forward on
// open; a database from a newer version, or a file that is not a database, is refused and left
// untouched.
class NotesStore {
public:
    static constexpr int kSchemaVersion = 3;
    // A device session nobody used for this long has ended.
    static constexpr qint64 kDeviceIdleMicros = 180LL * 24 * 3600 * 1000000;

    explicit NotesStore(const QString& path);
    ~NotesStore();
    NotesStore(const NotesStore&) = delete;
    NotesStore& operator=(const NotesStore&) = delete;

    // false when the address is taken.
    bool addUser(const QString& email, const QString& passwordHash);
    bool removeUser(const QString& email);
    std::optional<User> userByEmail(const QString& email);

    void addToken(qint64 userId, const QByteArray& tokenHash, qint64 expiresMicros);
    // The user whose live token hashes to tokenHash, if that user has this address.
    std::optional<qint64> userForToken(const QByteArray& tokenHash, const QString& email,
                                       qint64 nowMicros);

    qint64 addDevice(qint64 userId, const QByteArray& tokenHash, const QString& name,
                     qint64 nowMicros);
    // The live session whose token hashes to tokenHash; notes its use.
    std::optional<DeviceSession> deviceSession(const QByteArray& tokenHash, qint64 nowMicros);
    // Most recently used first.
    std::vector<Device> devices(qint64 userId, qint64 nowMicros);
    bool endDevice(qint64 userId, qint64 deviceId);

    // Adds line at the end of the newest live note whose text begins with header, unless it is
    // a line of that note already; with no such note, makes one of header and line. One write
    // at a time, so appends that race each other all land.
    Appended appendLine(qint64 userId, const QString& header, const QString& line,
                        qint64 nowMicros);

    QString createNote(qint64 userId, const QString& text, qint64 nowMicros);
    bool updateNote(qint64 userId, const QString& key, const QString& text, qint64 nowMicros);
    std::optional<Note> note(qint64 userId, const QString& key);
    bool markDeleted(qint64 userId, const QString& key, qint64 nowMicros);
    bool purge(qint64 userId, const QString& key);
    // Newest change first; deleted notes included.
    std::vector<Note> index(qint64 userId);
    // Notes not deleted whose text contains needle, without regard to case, newest change
    // first: the page [offset, offset + limit) and the count of every match.
    std::vector<Note> search(qint64 userId, const QString& needle, int limit, int offset,
                             qint64* total);

private:
    void execute(const char* sql);
    void migrate();

    sqlite3* db_ = nullptr;  // for writes
    std::mutex mutex_;       // one write at a time on db_
    ReadConnections reads_;
};

// "YYYY-MM-DD HH:MM:SS.ffffff" in UTC.
QString formatMicros(qint64 micros);
qint64 nowMicros();

}  // namespace notes
