// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <memory>

#include "service/NotesStore.h"
#include "service/PgConnections.h"
#include "service/PgLoginLimiter.h"

namespace notes {

// The store in a PostgreSQL database, which any number of service processes ("nodes") share:
// nothing one of them must know lives only in another's memory. Every write is committed
// (synchronous commit) before it returns. The schema is made or brought forward at start, one
// node at a time (an advisory lock), and carries its version in ferrybox_schema. Search uses a
// pg_trgm index over each note's case-folded text. Whatever ends tokens or device sessions
// announces it to every node (kAccessEndedChannel) in the same transaction, so that the change
// streams opened with them end, whichever process ended them: a node, or a command beside them.
class PostgresStore : public NotesStore {
public:
    static constexpr int kSchemaVersion = 4;

    // location: a libpq connection URI. Throws StoreUnavailable when the database cannot be
    // reached, StoreError when its schema is newer than this program or cannot be made.
    explicit PostgresStore(const QString& location);
    ~PostgresStore() override;

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
    void importsDone() override;
    LoginLimiter& logins() override { return logins_; }
    std::unique_ptr<NoteEvents> changeRelay(NoteEvents& local) override;

private:
    void migrate();
    // The account's notes, newest change first; their texts only when asked.
    std::vector<Note> listNotes(qint64 userId, bool withText);

    const QString location_;
    PgConnections connections_;
    PgLoginLimiter logins_;
};

}  // namespace notes
