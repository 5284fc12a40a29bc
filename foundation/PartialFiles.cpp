// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/PartialFiles.h"

#include <sys/stat.h>
#include <unistd.h>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <set>
#include <string>

namespace foundation {

namespace {

std::set<std::string>& tracked() {
    static auto* paths = new std::set<std::string>();  // outlives every static destructor
    return *paths;
}

void removeTracked() {
    for (const std::string& path : tracked())
        ::unlink(path.c_str());
}

// When the process with this id started, in seconds since the epoch; 0 when it cannot be told.
// The kernel counts a process's start in clock ticks since boot.
double processStart(qint64 pid) {
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

// Whether the process that wrote a file last modified at this time still runs. A process of
// that id that started after the file's last write is another one that was given the id later.
bool writerRuns(qint64 pid, double modified) {
    if (pid <= 0 || (::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH))
        return false;
    const double started = processStart(pid);
    return started == 0 || started <= modified;
}

}  // namespace

QString PartialFiles::nameFor(const QString& fileName, qint64 pid, int serial) {
    return QStringLiteral(".%1.%2-%3.part").arg(fileName).arg(pid).arg(serial);
}

void PartialFiles::track(const QString& path) {
    static const bool registered = std::atexit(removeTracked) == 0;
    (void)registered;
    tracked().insert(QFile::encodeName(path).toStdString());
}

void PartialFiles::untrack(const QString& path) {
    tracked().erase(QFile::encodeName(path).toStdString());
}

int PartialFiles::removeStale(const QString& folder) {
    static const QRegularExpression pattern(QStringLiteral("^\\..+\\.([0-9]+)-[0-9]+\\.part$"));
    int removed = 0;
    const QDir dir(folder);
    const auto names = dir.entryList({QStringLiteral(".*.part")}, QDir::Files | QDir::Hidden);
    for (const QString& name : names) {
        const QRegularExpressionMatch match = pattern.match(name);
        const QString path = dir.filePath(name);
        struct stat info {};
        if (!match.hasMatch() || ::lstat(QFile::encodeName(path).constData(), &info) != 0 ||
            !S_ISREG(info.st_mode)) {
            continue;
        }
        const double modified = double(info.st_mtim.tv_sec) + info.st_mtim.tv_nsec / 1e9;
        if (!writerRuns(match.captured(1).toLongLong(), modified) && QFile::remove(path))
            ++removed;
    }
    return removed;
}

}  // namespace foundation
