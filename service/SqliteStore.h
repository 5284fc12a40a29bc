// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <mutex>

#include "service/NotesStore.h"
#include "service/ReadConnections.h"

struct sqlite3;

namespace notes {

// The store in one SQLite file (WAL, every commit synced), served by one process. Writes go one
// at a time through one connection; reads run side by side on connections of their own. The
// schema carries its version (PRAGMA user_version) and is migrated forward on open; a database
// from a newer version, or a file that is not a database, is refused and left untouched.
class SqliteStore : public NotesStore {
public:
    static constexpr int kSchemaVersion = 6;

    explicit SqliteStore(const QString& path);
    ~SqliteStore() override;
    SqliteStore(const SqliteStore&) = delete;
    SqliteStore& operator=(const SqliteStore&) = delete;

    bool addUser(const QString& email, const QString& passwordHash) override;
    bool removeUser(const QString& email) override;
    std::optional<User> userByEmail(const QString& email) override;
    void addToken(qint64 userId, const QByteArray& tokenHash, qint64 expiresMicros) override;
    bool changePassword(const QString& email, const QString& passwordHash) override;
    std::optional<Access> tokenAccess(const QByteArray& tokenHash, const QString& email,
                                      qint64 nowMicros) override;
    bool stillGranted(const Access& access, qint64 nowMicros) override;
    void endSessions(qint64 userId) override;
    qint64 addDevice(qint64 userId, const QByteArray& tokenHash, const QString& name,
                     qint64 nowMicros) override;
    std::optional<DeviceSession> deviceSession(const QByteArray& tokenHash,
                                               qint64 nowMicros) override;
    std::vector<Device> devices(qint64 userId, qint64 nowMicros) override;
    bool endDevice(qint64 userId, qint64 deviceId) override;
    Appended appendLine(qint64 userId, const QString& header, const QString& line, qint64 nowMicros,
                        const std::optional<SeenVersion>& seen, qint64 maxBase64Bytes) override;
    QString createNote(qint64 userId, const QString& text, qint64 nowMicros) override;
    std::optional<Written> updateNote(qint64 userId, const QString& key, const QString& text,
                                      qint64 nowMicros, std::optional<qint64> baseVersion) override;
    std::optional<Note> note(qint64 userId, const QString& key) override;
    bool markDeleted(qint64 userId, const QString& key, qint64 nowMicros) override;
    bool purge(qint64 userId, const QString& key) override;
    std::vector<Note> index(qint64 userId) override;
    std::vector<Note> search(qint64 userId, const QString& needle, int limit, int offset,
                             qint64* total) override;
    std::vector<User> users() override;
    std::vector<Note> notes(qint64 userId) override;
    bool importAccount(const User& user, const std::vector<Note>& notes) override;
    LoginLimiter& logins() override { return logins_; }
    std::unique_ptr<NoteEvents> changeRelay(NoteEvents& local) override;
    std::unique_ptr<ReadSnapshot> readSnapshot() override;

private:
    void closeWriter();
    void execute(const char* sql);
    void migrate();
    // The account's notes, newest change first; their texts only when asked.
    std::vector<Note> listNotes(qint64 userId, bool withText);
    void refoldIfUnicodeChanged();

    sqlite3* db_ = nullptr;                       // for writes
    std::unique_ptr<PreparedStatements> writes_;  // db_'s
    std::mutex mutex_;                            // one write at a time on db_
    ReadConnections reads_;
    LoginThrottle logins_;
};

}  // namespace notes
