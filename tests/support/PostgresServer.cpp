// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/support/PostgresServer.h"

#include <pwd.h>
#include <unistd.h>

#include <QCollator>
#include <QDir>
#include <QProcess>

#include "tests/support/NotesServerProcess.h"

namespace testsupport {

namespace {

// The newest installed server's programs, e.g. /usr/lib/postgresql/15/bin.
QString serverPrograms() {
    QStringList versions =
        QDir(QStringLiteral("/usr/lib/postgresql")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    QCollator numeric;
    numeric.setNumericMode(true);
    std::sort(versions.begin(), versions.end(), numeric);
    for (auto it = versions.rbegin(); it != versions.rend(); ++it) {
        const QString bin = QStringLiteral("/usr/lib/postgresql/%1/bin").arg(*it);
        if (QFile::exists(bin + QStringLiteral("/pg_ctl")))
            return bin;
    }
    return QString();
}

}  // namespace

PostgresServer::PostgresServer() {
    bin_ = serverPrograms();
    if (bin_.isEmpty()) {
        log_ = QStringLiteral(
            "PostgreSQL is not installed (no /usr/lib/postgresql/*/bin/pg_ctl); "
            "`make deps` installs it");
        return;
    }
    if (::geteuid() == 0) {
        const passwd* postgres = ::getpwnam("postgres");
        if (!postgres || ::chown(dir_.path().toLocal8Bit().constData(), postgres->pw_uid,
                                 postgres->pw_gid) != 0) {
            log_ = QStringLiteral("cannot hand %1 to the postgres user").arg(dir_.path());
            return;
        }
    }
    port_ = NotesServerProcess::freePort();
    // No syncing: these clusters live for one test run, and the tests are about the service.
    if (!run(QStringLiteral("initdb"),
             {QStringLiteral("-D"), dir_.filePath(QStringLiteral("data")), QStringLiteral("-U"),
              QStringLiteral("ferrybox"), QStringLiteral("--auth=trust"), QStringLiteral("-E"),
              QStringLiteral("UTF8"), QStringLiteral("--locale=C.UTF-8"),
              QStringLiteral("--no-sync")})) {
        return;
    }
    if (start())
        watchOwner();
}

void PostgresServer::watchOwner() {
    // A test program killed halfway (a time-out, a broken pipe) runs no destructor: this
    // watchdog, in a session of its own, sees its standard input close when the program is
    // gone, and stops the server then.
    QStringList stop =
        commandLine(QStringLiteral("pg_ctl"),
                    {QStringLiteral("-D"), dir_.filePath(QStringLiteral("data")),
                     QStringLiteral("-m"), QStringLiteral("immediate"), QStringLiteral("stop")});
    for (QString& word : stop)
        word = QLatin1Char('\'') + word + QLatin1Char('\'');
    watchdog_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    watchdog_.start(QStringLiteral("setsid"),
                    {QStringLiteral("sh"), QStringLiteral("-c"),
                     QStringLiteral("cat >/dev/null; exec %1 >/dev/null 2>&1")
                         .arg(stop.join(QLatin1Char(' ')))});
    watchdog_.waitForStarted(5000);
}

PostgresServer::~PostgresServer() {
    if (running_)
        stop();
    watchdog_.kill();
    watchdog_.waitForFinished(2000);
}

PostgresServer& PostgresServer::shared() {
    static PostgresServer server;
    return server;
}

QString PostgresServer::url(const QString& database) const {
    return QStringLiteral("postgresql://ferrybox@127.0.0.1:%1/%2").arg(port_).arg(database);
}

QStringList PostgresServer::commandLine(const QString& program,
                                        const QStringList& arguments) const {
    const QString path = bin_ + QLatin1Char('/') + program;
    if (::geteuid() != 0)
        return QStringList{path} + arguments;
    return QStringList{QStringLiteral("runuser"), QStringLiteral("-u"), QStringLiteral("postgres"),
                       QStringLiteral("--"), path} +
           arguments;
}

bool PostgresServer::run(const QString& program, const QStringList& arguments) {
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    QStringList command = commandLine(program, arguments);
    process.start(command.takeFirst(), command);
    const bool finished = process.waitForFinished(60000);
    log_ += QString::fromUtf8(process.readAll());
    return finished && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

bool PostgresServer::start() {
    const QString options = QStringLiteral(
                                "-p %1 -k %2 -c listen_addresses=127.0.0.1 -c fsync=off "
                                "-c full_page_writes=off -c max_connections=300")
                                .arg(port_)
                                .arg(dir_.path());
    running_ = run(QStringLiteral("pg_ctl"),
                   {QStringLiteral("-D"), dir_.filePath(QStringLiteral("data")),
                    QStringLiteral("-l"), dir_.filePath(QStringLiteral("server.log")),
                    QStringLiteral("-o"), options, QStringLiteral("-w"), QStringLiteral("start")});
    return running_;
}

bool PostgresServer::stop() {
    running_ =
        !run(QStringLiteral("pg_ctl"),
             {QStringLiteral("-D"), dir_.filePath(QStringLiteral("data")), QStringLiteral("-m"),
              QStringLiteral("fast"), QStringLiteral("-w"), QStringLiteral("stop")});
    return !running_;
}

QString PostgresServer::newDatabase() {
    if (!running_)
        return QString();
    const QString name = QStringLiteral("notes%1").arg(++databases_);
    const bool made =
        run(QStringLiteral("createdb"),
            {QStringLiteral("-h"), QStringLiteral("127.0.0.1"), QStringLiteral("-p"),
             QString::number(port_), QStringLiteral("-U"), QStringLiteral("ferrybox"), name});
    return made ? url(name) : QString();
}

}  // namespace testsupport
