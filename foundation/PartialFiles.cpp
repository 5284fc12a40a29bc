// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/PartialFiles.h"

#include <sys/stat.h>
#include <unistd.h>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMessageAuthenticationCode>
#include <QRegularExpression>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <optional>
#include <set>
#include <string>

#include "foundation/Utf8.h"

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

constexpr qsizetype kMaxNameBytes = 255;

// ".NAME.HOST-PID-N.part", and ".NAME.PID-N.part" of older versions. Their ends differ (a "-"
// or a "." before PID), so that no name has both forms.
const QRegularExpression& currentForm() {
    static const QRegularExpression form(
        QStringLiteral("^\\..+\\.([0-9a-f]{8})-([0-9]+)-[0-9]+\\.part$"),
        QRegularExpression::DotMatchesEverythingOption);
    return form;
}

const QRegularExpression& olderForm() {
    static const QRegularExpression form(QStringLiteral("^\\..+\\.([0-9]+)-[0-9]+\\.part$"),
                                         QRegularExpression::DotMatchesEverythingOption);
    return form;
}

// The process that wrote a partial file on this machine, by the file's name; none for any other
// file. A name of the older form tells no machine: it counts as this one's, whose earlier
// Ferrybox wrote it.
std::optional<qint64> localWriter(const QString& name) {
    const QRegularExpressionMatch current = currentForm().match(name);
    if (current.hasMatch()) {
        if (current.captured(1) != PartialFiles::hostTag())
            return std::nullopt;
        return current.captured(2).toLongLong();
    }
    const QRegularExpressionMatch older = olderForm().match(name);
    if (older.hasMatch())
        return older.captured(1).toLongLong();
    return std::nullopt;
}

}  // namespace

QString PartialFiles::nameFor(const QString& fileName, qint64 pid, int serial) {
    return nameFor(fileName, pid, serial, hostTag());
}

QString PartialFiles::nameFor(const QString& fileName, qint64 pid, int serial,
                              const QString& host) {
    const QString ending = QStringLiteral(".%1-%2-%3.part").arg(host).arg(pid).arg(serial);
    const qsizetype room = kMaxNameBytes - 1 - ending.toUtf8().size();
    return QLatin1Char('.') + leadingUtf8Bytes(fileName, room) + ending;
}

// The machine id is not to be shown as it is (machine-id(5)): a hash keyed for this use is. The
// host name tells apart machines cloned with one id.
QString PartialFiles::hostTag() {
    static const QString tag = [] {
        QByteArray id;
        for (const char* path : {"/etc/machine-id", "/var/lib/dbus/machine-id"}) {
            QFile file(QString::fromLatin1(path));
            if (file.open(QIODevice::ReadOnly))
                id = file.readAll().trimmed();
            if (!id.isEmpty())
                break;
        }
        char host[256] = {};
        ::gethostname(host, sizeof host - 1);
        const QByteArray digest = QMessageAuthenticationCode::hash(
            id + '\n' + host, "Ferrybox partial files", QCryptographicHash::Sha256);
        return QString::fromLatin1(digest.toHex().left(8));
    }();
    return tag;
}

bool PartialFiles::isPartialName(const QString& fileName) {
    return currentForm().match(fileName).hasMatch() || olderForm().match(fileName).hasMatch();
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
    int removed = 0;
    const QDir dir(folder);
    const auto names = dir.entryList({QStringLiteral(".*.part")}, QDir::Files | QDir::Hidden);
    for (const QString& name : names) {
        const std::optional<qint64> writer = localWriter(name);
        const QString path = dir.filePath(name);
        struct stat info {};
        if (!writer || ::lstat(QFile::encodeName(path).constData(), &info) != 0 ||
            !S_ISREG(info.st_mode)) {
            continue;
        }
        const double modified = double(info.st_mtim.tv_sec) + info.st_mtim.tv_nsec / 1e9;
        if (!writerRuns(*writer, modified) && QFile::remove(path))
            ++removed;
    }
    return removed;
}

}  // namespace foundation
