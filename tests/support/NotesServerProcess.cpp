// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/support/NotesServerProcess.h"

#include <QTcpServer>
#include <QTcpSocket>

#include "tests/support/StopProcess.h"
#include "tests/support/Wait.h"

namespace testsupport {

NotesServerProcess::NotesServerProcess(const QStringList& extraServeArguments,
                                       const QProcessEnvironment& extraEnvironment,
                                       const QString& database)
    : database_(database),
      extraArguments_(extraServeArguments),
      extraEnvironment_(extraEnvironment) {
    port_ = freePort();
    running_ = start();
}

NotesServerProcess::~NotesServerProcess() {
    stopProcess(process_);
}

QString NotesServerProcess::binaryPath() {
    return qEnvironmentVariable("FERRYBOX_BUILD_DIR") + QStringLiteral("/service/ferrybox-notes");
}

int NotesServerProcess::freePort() {
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

QString NotesServerProcess::baseUrl() const {
    return QStringLiteral("http://127.0.0.1:%1").arg(port_);
}

QProcessEnvironment NotesServerProcess::environment() const {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("FERRYBOX_NOTES_HASH_ITERATIONS"), QStringLiteral("1000"));
    for (const QString& key : extraEnvironment_.keys())
        env.insert(key, extraEnvironment_.value(key));
    return env;
}

bool NotesServerProcess::start() {
    process_.setProcessEnvironment(environment());
    process_.setProcessChannelMode(QProcess::SeparateChannels);
    process_.setReadChannel(QProcess::StandardError);
    QObject::connect(&process_, &QProcess::readyReadStandardError,
                     [this] { log_ += process_.readAllStandardError(); });
    process_.start(binaryPath(), QStringList{QStringLiteral("serve"), QStringLiteral("--listen"),
                                             QStringLiteral("127.0.0.1:%1").arg(port_),
                                             QStringLiteral("--db"), dbPath()} +
                                     extraArguments_);
    if (!process_.waitForStarted(5000))
        return false;
    // Ready once it accepts a connection.
    return waitUntil(
               [this] {
                   if (process_.state() == QProcess::NotRunning)
                       return true;
                   QTcpSocket socket;
                   socket.connectToHost(QHostAddress::LocalHost, static_cast<quint16>(port_));
                   return socket.waitForConnected(100);
               },
               10000) &&
           process_.state() == QProcess::Running;
}

QString NotesServerProcess::log() {
    // Whatever the server wrote by now is in the pipe; take it all.
    while (process_.state() == QProcess::Running && process_.waitForReadyRead(100)) {
    }
    log_ += process_.readAllStandardError();
    return QString::fromUtf8(log_);
}

int NotesServerProcess::runCommand(const QStringList& arguments, const QByteArray& input,
                                   QString* output) {
    QProcess command;
    command.setProcessEnvironment(environment());
    command.setProcessChannelMode(QProcess::MergedChannels);
    command.start(binaryPath(), arguments + QStringList{QStringLiteral("--db"), dbPath()});
    command.write(input);
    command.closeWriteChannel();
    if (!command.waitForFinished(30000))
        return -1;
    if (output)
        *output = QString::fromUtf8(command.readAll());
    return command.exitCode();
}

bool NotesServerProcess::addUser(const QString& email, const QString& password) {
    return runCommand({QStringLiteral("add-user"), email}, password.toUtf8() + '\n') == 0;
}

void NotesServerProcess::killHard() {
    process_.kill();
    process_.waitForFinished(5000);
    running_ = false;
}

bool NotesServerProcess::terminate(int ms) {
    process_.terminate();
    running_ = !process_.waitForFinished(ms);
    return !running_;
}

bool NotesServerProcess::restart() {
    stopProcess(process_);
    QObject::disconnect(&process_, nullptr, nullptr, nullptr);
    running_ = start();
    return running_;
}

}  // namespace testsupport
