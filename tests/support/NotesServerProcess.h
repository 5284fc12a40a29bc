// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

#include "tests/support/QtPrinters.h"

namespace testsupport {

// The real ferrybox-notes on a free loopback port with a database of its own: a SQLite file in a
// temporary folder, or the database given (a PostgreSQL URL). Password hashing is made cheap
// for tests through FERRYBOX_NOTES_HASH_ITERATIONS.
class NotesServerProcess {
public:
    explicit NotesServerProcess(const QStringList& extraServeArguments = {},
                                const QProcessEnvironment& extraEnvironment = {},
                                const QString& database = {});
    ~NotesServerProcess();
    NotesServerProcess(const NotesServerProcess&) = delete;
    NotesServerProcess& operator=(const NotesServerProcess&) = delete;

    bool isRunning() const { return running_; }
    QString baseUrl() const;  // "http://127.0.0.1:PORT"
    QString apiUrl() const { return baseUrl() + QStringLiteral("/api"); }
    // What --db says: the SQLite file's path or the database's URL.
    QString dbPath() const {
        return database_.isEmpty() ? dir_.path() + QStringLiteral("/notes.db") : database_;
    }
    QString folder() const { return dir_.path(); }
    int port() const { return port_; }
    qint64 pid() const { return process_.processId(); }
    // What the server wrote to standard error so far.
    QString log();

    bool addUser(const QString& email, const QString& password);
    // Runs the binary with these arguments against this database; its exit code and output.
    int runCommand(const QStringList& arguments, const QByteArray& input = {},
                   QString* output = nullptr);
    void killHard();
    // SIGTERM, as systemd stops a service: whether it ended within ms.
    bool terminate(int ms);
    bool restart();

    static QString binaryPath();
    static int freePort();

private:
    bool start();
    QProcessEnvironment environment() const;

    QTemporaryDir dir_;
    QString database_;
    QStringList extraArguments_;
    QProcessEnvironment extraEnvironment_;
    QProcess process_;
    QByteArray log_;
    int port_ = 0;
    bool running_ = false;
};

}  // namespace testsupport
