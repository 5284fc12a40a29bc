// SPDX-License-Identifier: GPL-3.0-or-later
// Login items on Linux desktops: an entry in the XDG autostart folder, in the Desktop Entry
// format, that starts the program by its absolute path.
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <optional>

#include "platform/LoginItemsList.h"

namespace {

QString autostartFolder() {
    QString config = qEnvironmentVariable("XDG_CONFIG_HOME");
    if (config.isEmpty())
        config = QDir::homePath() + QStringLiteral("/.config");
    return config + QStringLiteral("/autostart");
}

// The path as one argument of an Exec key: quoted when it needs to be, with the characters that
// are special inside quotes escaped, and then every backslash doubled as a string value wants.
QString execArgument(const QString& path) {
    static const QString reserved = QStringLiteral(" \t\n\"'\\><~|&;$*?#()`=%");
    if (std::none_of(path.begin(), path.end(), [](QChar c) { return reserved.contains(c); }))
        return path;
    QString quoted = QStringLiteral("\"");
    for (const QChar c : path) {
        if (c == QLatin1Char('"') || c == QLatin1Char('`') || c == QLatin1Char('$') ||
            c == QLatin1Char('\\')) {
            quoted += QLatin1Char('\\');
        }
        quoted += c == QLatin1Char('%') ? QStringLiteral("%%") : QString(c);
    }
    quoted += QLatin1Char('"');
    return quoted.replace(QLatin1Char('\\'), QStringLiteral("\\\\"));
}

// Entries this program wrote say so: only those are its to delete.
const QByteArray kWrittenHere = "X-Ferrybox-Login-Item=true\n";

QByteArray entryFor(const QString& programPath) {
    return QStringLiteral(
               "[Desktop Entry]\n"
               "Type=Application\n"
               "Name=Ferrybox\n"
               "GenericName=Download agent\n"
               "Comment=Downloads the links you write into a note\n"
               "Exec=%1\n"
               "Icon=ferrybox\n"
               "Terminal=false\n"
               "Categories=Network;FileTransfer;\n"
               "X-GNOME-Autostart-enabled=true\n")
               .arg(execArgument(programPath))
               .toUtf8() +
           kWrittenHere;
}

bool writeFile(const QString& path, const QByteArray& content) {
    QSaveFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size() &&
           file.commit();
}

QByteArray readFile(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// The entry is ferrybox.desktop. Listing the program writes it afresh unless it already starts
// this very program as written here: an entry for a program that has moved since, or one that
// the desktop's start-up settings switched off (Hidden, X-GNOME-Autostart-enabled), would
// otherwise be answered as it is and start nothing. Taking the program off deletes only an entry
// written here; as taking off first lists the program (see LoginItemController), an entry of
// someone else's that this listing replaced is put back as it was instead.
class XdgAutostart : public LoginItemsList {
public:
    QString insertItemURL(const QString& programPath) override {
        const QString entry = autostartFolder() + QStringLiteral("/ferrybox.desktop");
        const QByteArray wanted = entryFor(programPath);
        const QByteArray existing = readFile(entry);
        replaced_.reset();
        if (existing == wanted)
            return entry;
        if (!QDir().mkpath(autostartFolder()))
            return QString();
        if (!existing.isEmpty() && !existing.contains(kWrittenHere))
            replaced_ = existing;
        return writeFile(entry, wanted) ? entry : QString();
    }

    void removeItem(const QString& item) override {
        if (item.isEmpty())
            return;
        if (replaced_) {
            writeFile(item, *replaced_);
            replaced_.reset();
        } else if (readFile(item).contains(kWrittenHere)) {
            QFile::remove(item);
        }
    }

private:
    std::optional<QByteArray> replaced_;  // what the last listing wrote over
};

}  // namespace

LoginItemsList& LoginItemsList::sessionLoginItems() {
    static XdgAutostart list;
    return list;
}
