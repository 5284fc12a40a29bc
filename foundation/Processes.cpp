// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/Processes.h"

#include <unistd.h>
#include <QFile>
#include <QList>
#include <cerrno>
#include <csignal>

namespace foundation {

// The kernel counts a process's start in clock ticks since boot.
double processStartTime(qint64 pid) {
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    QFile system(QStringLiteral("/proc/stat"));
    if (!stat.open(QIODevice::ReadOnly) || !system.open(QIODevice::ReadOnly))
        return 0;
    // The command name in parentheses may hold blanks: the fields are counted after it.
    const QByteArray line = stat.readAll();
    const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
    constexpr int kStartTimeField = 22 - 3;  // field 22, counted from field 3
    if (fields.size() <= kStartTimeField)
        return 0;
    double bootTime = 0;
    for (const QByteArray& entry : system.readAll().split('\n')) {
        if (entry.startsWith("btime "))
            bootTime = entry.mid(6).toDouble();
    }
    return bootTime + fields[kStartTimeField].toDouble() / double(::sysconf(_SC_CLK_TCK));
}

bool processStillRuns(qint64 pid, double when) {
    if (pid <= 0 || (::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH))
        return false;
    const double started = processStartTime(pid);
    return started == 0 || started <= when;
}

}  // namespace foundation
