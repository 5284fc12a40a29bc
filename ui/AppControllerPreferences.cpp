// SPDX-License-Identifier: GPL-3.0-or-later
// The preferences window's actions: the interval, keeping the password, the download folder,
// notifications, the interval's help, and showing the window.
#include <QCheckBox>
#include <QDir>
#include <QLabel>
#include <QLineEdit>
#include <QScreen>
#include <QWidget>
#include <limits>

#include "agent/AppController.h"
#include "foundation/AlertPanel.h"
#include "foundation/Log.h"
#include "foundation/OpenPanel.h"
#include "foundation/Paths.h"
#include "foundation/Timer.h"
#include "foundation/UserDefaults.h"
#include "platform/KCKeychainItem.h"

namespace {

const QString kKeychainService = QStringLiteral("Ferrybox");

void store(const QVariant& value, const QString& key) {
    auto& defaults = foundation::UserDefaults::standardUserDefaults();
    defaults.setObject(value, key);
    defaults.synchronize();
}

// The text's integer value as a text field gives it: leading blanks, a sign and the digits up
// to the first other character; 0 when there are none, the nearest limit when they are too many.
int intValue(const QString& text) {
    qsizetype i = 0;
    while (i < text.size() && text[i].isSpace())
        ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == QLatin1Char('-') || text[i] == QLatin1Char('+')))
        negative = text[i++] == QLatin1Char('-');
    qint64 value = 0;
    for (; i < text.size() && text[i] >= QLatin1Char('0') && text[i] <= QLatin1Char('9'); ++i) {
        value = std::min<qint64>(value * 10 + (text[i].unicode() - '0'),
                                 qint64(std::numeric_limits<int>::max()) + 1);
    }
    if (negative)
        return static_cast<int>(std::max<qint64>(-value, std::numeric_limits<int>::min()));
    return static_cast<int>(std::min<qint64>(value, std::numeric_limits<int>::max()));
}

// The home folder written as "~", as the setting keeps it.
QString abbreviatingWithTildeInPath(const QString& path) {
    const QString home = QDir::homePath();
    if (path == home)
        return QStringLiteral("~");
    if (path.startsWith(home + QLatin1Char('/')))
        return QLatin1Char('~') + path.mid(home.size());
    return path;
}

}  // namespace

// No range is checked here; the field itself takes nothing under one minute.
void AppController::controlTextDidEndEditing(QObject*) {
    interval_ = QVariant(intValue(intervalField_->text()));
    store(interval_, QStringLiteral("interval"));
    if (appRunning_) {
        if (timer_)
            timer_->invalidate();
        armCheckTimer();
    }
}

// The item is added after each login, as always. An add is refused when an item is there
// already, which keeps that item's password: after a change of password every later start would
// fail, so a password that differs replaces the stored one. An item that can be neither added
// nor found means the keyring keeps nothing (none runs, it is locked, it has nowhere to put it),
// and the person is told.
void AppController::rememberPassword() {
    const QString email = emailField_->text();
    const QString password = passwordField_->text();
    if (KCGenericKeychainItem::addGenericKeychainItemForService(kKeychainService, email,
                                                                password)) {
        setKeyringNotice(QString());
        return;
    }
    if (auto item = KCGenericKeychainItem::genericKeychainItemForService(kKeychainService, email)) {
        if (item->password() != password)
            item->setPassword(password);
        setKeyringNotice(QString());
        return;
    }
    setKeyringNotice(
        QStringLiteral("The keyring could not keep the password: Ferrybox will ask "
                       "for it at the next start."));
}

void AppController::setKeyringNotice(const QString& text) {
    if (!keyringLabel_)
        return;
    keyringLabel_->setText(text);
    keyringLabel_->setVisible(!text.isEmpty());
}

// Switching off forgets the whole account: the keyring's item, the password and the address.
void AppController::toggleRememberInKeychain(QObject*) {
    switch (rememberInKeychainButton_->checkState()) {
        case Qt::Checked:
            store(QStringLiteral("yes"), QStringLiteral("shouldRememberPassword"));
            if (auto item = KCGenericKeychainItem::genericKeychainItemForService(
                    kKeychainService, emailField_->text())) {
                passwordField_->setText(item->password());
            }
            break;
        case Qt::Unchecked:
            store(QStringLiteral("no"), QStringLiteral("shouldRememberPassword"));
            if (auto item = KCGenericKeychainItem::genericKeychainItemForService(
                    kKeychainService, emailField_->text())) {
                item->removeFromKeychain();
            }
            passwordField_->clear();
            emailField_->clear();
            setKeyringNotice(QString());
            break;
        default:
            foundation::log(QStringLiteral("Error while toggling keychain preference"));
            foundation::UserDefaults::standardUserDefaults().synchronize();
            break;
    }
}

// The folder is neither created nor tested: downloads whose destination is decided from now on
// go there.
void AppController::changeDownloadDirectory(QObject*) {
    const QString chosen = foundation::OpenPanel::chooseDirectory(
        foundation::expandingTildeInPath(downloadDirectory_));
    if (chosen.isNull())
        return;
    setDownloadDirectory(abbreviatingWithTildeInPath(chosen));
    store(downloadDirectory_, QStringLiteral("downloadDirectory"));
}

// The setting seeds the checkbox at the next start; notifications follow the checkbox.
void AppController::toggleGrowl(QObject*) {
    store(
        useGrowlButton_->checkState() == Qt::Checked ? QStringLiteral("yes") : QStringLiteral("no"),
        QStringLiteral("useGrowl"));
}

void AppController::showIntervalHelp(QObject*) {
    foundation::AlertPanel::runModal(
        {QStringLiteral("Interval Information"),
         QStringLiteral("The interval is how often the note is checked for new downloads."),
         QStringLiteral("OK"), QString(), QString()});
}

void AppController::showPreferences(QObject*) {
    if (const QScreen* screen = prefsWindow_->screen()) {
        QRect frame = prefsWindow_->frameGeometry();
        frame.moveCenter(screen->availableGeometry().center());
        prefsWindow_->move(frame.topLeft());
    }
    prefsWindow_->setWindowState(prefsWindow_->windowState() & ~Qt::WindowMinimized);
    prefsWindow_->show();
    prefsWindow_->raise();
    prefsWindow_->activateWindow();
}
