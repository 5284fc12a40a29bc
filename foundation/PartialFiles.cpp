// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/PartialFiles.h"

#include <sys/stat.h>
#include <unistd.h>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMessageAuthenticationCode>
#include <QRegularExpression>
#include <cstdlib>
#include <optional>
#include <set>
#include <string>

#include "foundation/Processes.h"
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

int PartialFiles::removeStale(const QString& folder, const QStringList& keep) {
    int removed = 0;
    const QDir dir(folder);
    const auto names = dir.entryList({QStringLiteral(".*.part")}, QDir::Files | QDir::Hidden);
    for (const QString& name : names) {
        const std::optional<qint64> writer = localWriter(name);
        const QString path = dir.filePath(name);
        struct stat info {};
        if (!writer || keep.contains(QFileInfo(path).absoluteFilePath()) ||
            ::lstat(QFile::encodeName(path).constData(), &info) != 0 || !S_ISREG(info.st_mode)) {
            continue;
        }
        const double modified = double(info.st_mtim.tv_sec) + info.st_mtim.tv_nsec / 1e9;
        if (!processStillRuns(*writer, modified) && QFile::remove(path))
            ++removed;
    }
    return removed;
}

}  // namespace foundation
