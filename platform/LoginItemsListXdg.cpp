// Login items on Linux desktops: an entry in the XDG autostart folder, in the Desktop Entry
// format, that starts the program by its absolute path.
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

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

class XdgAutostart : public LoginItemsList {
public:
    QString insertItemURL(const QString& programPath) override {
        const QString entry = autostartFolder() + QStringLiteral("/ferrybox.desktop");
        if (QFileInfo::exists(entry))
            return entry;
        if (!QDir().mkpath(autostartFolder()))
            return QString();
        QSaveFile file(entry);
        if (!file.open(QIODevice::WriteOnly))
            return QString();
        file.write(QStringLiteral("[Desktop Entry]\n"
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
                       .toUtf8());
        return file.commit() ? entry : QString();
    }

    void removeItem(const QString& item) override {
        if (!item.isEmpty())
            QFile::remove(item);
    }
};

}  // namespace

LoginItemsList& LoginItemsList::sessionLoginItems() {
    static XdgAutostart list;
    return list;
}
