// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/support/PrivateSessionBus.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <csignal>
#include <cstdio>

namespace testsupport {

namespace {

// Anyone may own any name and talk to anyone; no service files, so nothing of the machine's
// own (a notification daemon, a keyring) is ever started on this bus.
const char kConfig[] =
    R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:tmpdir=/tmp</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";

QByteArray readLine(int fd) {
    QByteArray line;
    char c;
    while (::read(fd, &c, 1) == 1 && c != '\n')
        line += c;
    return line;
}

}  // namespace

PrivateSessionBus::PrivateSessionBus(bool becomeTheSessionBus) {
    const QString configPath =
        QDir::temp().filePath(QStringLiteral("ferrybox-test-bus-%1.conf").arg(::getpid()));
    QFile config(configPath);
    if (!config.open(QIODevice::WriteOnly) || config.write(kConfig) < 0)
        return;
    config.close();
    const QByteArray configArgument = "--config-file=" + QFile::encodeName(configPath);

    int pipeFds[2];
    if (::pipe(pipeFds) != 0)
        return;
    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent)
            ::_exit(1);
        ::close(pipeFds[0]);
        ::dup2(pipeFds[1], STDOUT_FILENO);
        // Its complaints (it cannot raise its file limit when run as root) are noise here.
        const int devNull = ::open("/dev/null", O_WRONLY);
        ::dup2(devNull, STDERR_FILENO);
        ::execlp("dbus-daemon", "dbus-daemon", configArgument.constData(), "--nofork",
                 "--print-address=1", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(pipeFds[1]);
    if (pid_ > 0)
        address_ = QString::fromLocal8Bit(readLine(pipeFds[0]));
    ::close(pipeFds[0]);
    QFile::remove(configPath);
    if (address_.isEmpty()) {
        std::fprintf(stderr, "test support: could not start a private dbus-daemon\n");
        return;
    }
    if (becomeTheSessionBus)
        qputenv("DBUS_SESSION_BUS_ADDRESS", address_.toLocal8Bit());
}

PrivateSessionBus::~PrivateSessionBus() {
    if (pid_ <= 0)
        return;
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
}

}  // namespace testsupport
