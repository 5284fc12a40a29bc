// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

namespace testsupport {

// A private PostgreSQL server for tests: Debian's initdb and pg_ctl make and run a cluster in a
// temporary folder, on a free loopback port, with no password (trust) for the user "ferrybox".
// As root, the server runs as the "postgres" user, which PostgreSQL requires. Without
// PostgreSQL installed it does not run, and isRunning() and log() say why.
class PostgresServer {
public:
    PostgresServer();
    ~PostgresServer();
    PostgresServer(const PostgresServer&) = delete;
    PostgresServer& operator=(const PostgresServer&) = delete;

    // The server the tests of one test program share, started at its first use.
    static PostgresServer& shared();

    bool isRunning() const { return running_; }
    QString log() const { return log_; }
    int port() const { return port_; }
    // "postgresql://ferrybox@127.0.0.1:PORT/DATABASE".
    QString url(const QString& database) const;
    // A new, empty database; its URL, or an empty string (see log()).
    QString newDatabase();

    // A fast shutdown (clients are cut off) and a start on the same port and data.
    bool stop();
    bool start();

private:
    // Runs one of PostgreSQL's programs, as the server's user; true when it exits with 0.
    bool run(const QString& program, const QStringList& arguments);

    // The command line that runs program as the server's user.
    QStringList commandLine(const QString& program, const QStringList& arguments) const;
    // Stops the server when this process ends, however it ends.
    void watchOwner();

    QTemporaryDir dir_;
    QProcess watchdog_;
    QString bin_;
    int port_ = 0;
    int databases_ = 0;
    bool running_ = false;
    QString log_;
};

}  // namespace testsupport
