// SPDX-License-Identifier: GPL-3.0-or-later
// ferrybox-quickstart: the account of `make run`. On first use it makes an account on the
// notes service of this computer, keeps its password in the desktop keyring (or, with no keyring,
// in a file only the user can read), points the agent's settings at it and says so once. Later
// uses change nothing. A user who already set up an account of their own is left alone.
//
// Usage: ferrybox-quickstart NOTES_BINARY WEB_PAGE_URL
// Standard output: the arguments the agent needs besides its settings, one a line (the password
// file, when there is one). Standard error: what was made, on the first use only.
#include <unistd.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QSaveFile>
#include <QTextStream>

#include "foundation/UserDefaults.h"
#include "platform/KCKeychainItem.h"

namespace {

const QString kKeychainService = QStringLiteral("Ferrybox");

QString configFolder() {
    return QFileInfo(foundation::UserDefaults::defaultFilePath()).absolutePath();
}

// The address of the account made here; its presence means the quick start has run.
QString accountRecord() {
    return configFolder() + QStringLiteral("/quick-start-account");
}

QString passwordFile() {
    return configFolder() + QStringLiteral("/quick-start-password");
}

// 192 random bits, as 32 characters that need no quoting anywhere.
QString randomPassword() {
    quint32 words[6];
    QRandomGenerator::system()->fillRange(words);
    const QByteArray bytes(reinterpret_cast<const char*>(words), sizeof words);
    return QString::fromLatin1(bytes.toBase64(QByteArray::Base64UrlEncoding));
}

bool writePrivately(const QString& path, const QByteArray& content) {
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    file.setPermissions(QFile::ReadOwner | QFile::WriteOwner);
    file.write(content);
    return file.commit();
}

// Makes an account on the service's default database: the login name at localhost, or with a
// number added when an earlier quick start, since forgotten, took that address.
QString addAccount(const QString& notes, const QString& password, QString* error) {
    QString name = qEnvironmentVariable("USER");
    if (name.isEmpty())
        name = QStringLiteral("me");
    for (int attempt = 1; attempt <= 20; ++attempt) {
        const QString address = attempt == 1
                                    ? name + QStringLiteral("@localhost")
                                    : QStringLiteral("%1+%2@localhost").arg(name).arg(attempt);
        QProcess add;
        add.start(notes, {QStringLiteral("add-user"), address});
        add.write(password.toUtf8() + "\n");
        add.closeWriteChannel();
        if (!add.waitForFinished(60000)) {
            *error = QStringLiteral("%1 add-user did not finish").arg(notes);
            return QString();
        }
        if (add.exitCode() == 0)
            return address;
        const QString why = QString::fromUtf8(add.readAllStandardError()).trimmed();
        if (!why.contains(QLatin1String("exists already"))) {
            *error = why.isEmpty() ? QStringLiteral("%1 add-user failed").arg(notes) : why;
            return QString();
        }
    }
    *error = QStringLiteral("every quick-start address is taken");
    return QString();
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QTextStream out(stdout);
    QTextStream err(stderr);
    const QStringList args = app.arguments();
    if (args.size() != 3) {
        err << "usage: ferrybox-quickstart NOTES_BINARY WEB_PAGE_URL\n";
        return 2;
    }
    const QString notes = args[1];
    const QString webPage = args[2];
    auto& settings = foundation::UserDefaults::standardUserDefaults();

    if (QFileInfo::exists(accountRecord())) {
        if (QFileInfo::exists(passwordFile()))
            out << "--password-file\n" << passwordFile() << "\n";
        return 0;
    }
    if (!settings.stringForKey(QStringLiteral("email")).isEmpty())
        return 0;

    const QString password = randomPassword();
    QString error;
    const QString address = addAccount(notes, password, &error);
    if (address.isNull()) {
        err << "ferrybox-quickstart: cannot make an account: " << error << "\n";
        return 1;
    }
    QDir().mkpath(configFolder());
    const bool inKeyring = KCGenericKeychainItem::addGenericKeychainItemForService(
                               kKeychainService, address, password) != nullptr;
    if (!inKeyring && !writePrivately(passwordFile(), password.toUtf8() + "\n")) {
        err << "ferrybox-quickstart: cannot write " << passwordFile() << "\n";
        return 1;
    }
    settings.setObject(address, QStringLiteral("email"));
    settings.setObject(inKeyring ? QStringLiteral("yes") : QStringLiteral("no"),
                       QStringLiteral("shouldRememberPassword"));
    if (!settings.synchronize() || !writePrivately(accountRecord(), address.toUtf8() + "\n")) {
        err << "ferrybox-quickstart: cannot write the settings in " << configFolder() << "\n";
        return 1;
    }
    if (!inKeyring)
        out << "--password-file\n" << passwordFile() << "\n";

    err << "\nFerrybox made a notes account for you on this computer.\n"
        << "  Web page:  " << webPage << "  (paste links into the note \"Ferrybox_Downloads\")\n"
        << "  Account:   " << address << "\n"
        << "  Password:  " << password << "\n"
        << "             kept "
        << (inKeyring ? QStringLiteral("in your desktop keyring")
                      : QStringLiteral("in %1, readable only by you").arg(passwordFile()))
        << "; this is the only time it is shown.\n\n";
    return 0;
}
