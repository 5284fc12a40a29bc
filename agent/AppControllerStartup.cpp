// SPDX-License-Identifier: GPL-3.0-or-later
// Start-up: read every setting, write the defaults of missing ones, and either turn the agent on
// with the stored account or show the preferences window so the user can enter one.
#include <QCheckBox>
#include <QDir>
#include <QFileInfo>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>

#include "agent/AppController.h"
#include "foundation/Paths.h"
#include "foundation/UserDefaults.h"
#include "platform/KCKeychainItem.h"

namespace {

const QString kYes = QStringLiteral("yes");
const QString kNo = QStringLiteral("no");
const QString kKeychainService = QStringLiteral("Ferrybox");
const QString kDefaultDownloadDirectory = QStringLiteral("~/Downloads/Ferrybox");

foundation::UserDefaults& defaults() {
    return foundation::UserDefaults::standardUserDefaults();
}

void store(const QVariant& value, const QString& key) {
    defaults().setObject(value, key);
    defaults().synchronize();
}

// An absent setting compares equal to every value: that decides what a first start does.
bool matches(const QString& stored, const QString& value) {
    return stored.isNull() || stored == value;
}

}  // namespace

void AppController::awakeFromNib() {
    downloadList_.clear();
    appRunning_ = false;

    statusItem_ = StatusBar::systemStatusBar().statusItemWithLength(StatusItem::VariableLength);
    statusItem_->setImage(QStringLiteral("close_16.png"));
    statusItem_->setHighlightMode(true);
    statusItem_->setEnabled(true);

    const QString remembered = readAccountSettings();
    readCheckSettings();
    readNotificationSettings();
    readLogSettings();
    readFailedLinksSetting();
    readDownloadDirectorySetting();
    updateMenu();
    readOpenAtLoginSetting();
    readVideoPageSettings();
    // The keyring is asked last, when nothing else reads what it gives before: the status item
    // and its menu are there by then, and the desktop shows them while a slow keyring answers.
    if (!remembered.isNull()) {
        if (auto item = KCGenericKeychainItem::genericKeychainItemForService(kKeychainService,
                                                                             remembered)) {
            passwordField_->setText(item->password());
        }
    }

    if (!emailField_->text().isEmpty() && !passwordField_->text().isEmpty()) {
        turnFerryboxOn(nullptr);
    } else {
        showPreferencesWindow();
    }
}

void AppController::applicationDidFinishLaunching() {}

void AppController::setAccountOverride(const QString& email, const QString& password) {
    if (!email.isNull())
        emailOverride_ = email;
    if (!password.isNull())
        passwordOverride_ = password;
}

// Answers the address whose password the keychain is to give, null for none.
QString AppController::readAccountSettings() {
    // The address that will log in: the one given as an option, else the stored one. The
    // keychain is asked for that address's password, never another's.
    const QString email =
        emailOverride_ ? *emailOverride_ : defaults().stringForKey(QStringLiteral("email"));
    if (!email.isNull())
        emailField_->setText(email);

    QString remembered;
    const QString remember = defaults().stringForKey(QStringLiteral("shouldRememberPassword"));
    if (matches(remember, kYes) && !email.isNull()) {
        rememberInKeychainButton_->setChecked(true);
        if (!passwordOverride_)
            remembered = email;
    } else if (matches(remember, kNo)) {
        rememberInKeychainButton_->setChecked(false);
    } else {
        rememberInKeychainButton_->setChecked(true);
        store(kYes, QStringLiteral("shouldRememberPassword"));
    }

    if (passwordOverride_)
        passwordField_->setText(*passwordOverride_);
    return remembered;
}

void AppController::readCheckSettings() {
    const QVariant term = defaults().objectForKey(QStringLiteral("searchTerm"));
    if (!term.isValid()) {
        searchTerm_ = QStringLiteral("Ferrybox_Downloads");
        store(searchTerm_, QStringLiteral("searchTerm"));
    } else {
        searchTerm_ = term.toString();
    }

    const QVariant interval = defaults().objectForKey(QStringLiteral("interval"));
    interval_ = interval.isValid() ? interval : QVariant(10);
    store(interval_, QStringLiteral("interval"));
    intervalField_->setText(interval_.toString());
}

void AppController::readNotificationSettings() {
    const QString useGrowl = defaults().stringForKey(QStringLiteral("useGrowl"));
    if (useGrowl.isNull()) {
        store(kYes, QStringLiteral("useGrowl"));
        useGrowlButton_->setChecked(true);
    } else if (useGrowl == kYes) {
        useGrowlButton_->setChecked(true);
    } else if (useGrowl == kNo) {
        useGrowlButton_->setChecked(false);
    }

    growlInstalled_ = notificationServiceAvailable();
    if (!growlInstalled_) {
        useGrowlButton_->setChecked(false);
        useGrowlButton_->setEnabled(false);
    }
}

void AppController::readLogSettings() {
    const QString keepLog = defaults().stringForKey(QStringLiteral("keepLog"));
    if (keepLog.isNull()) {
        store(kNo, QStringLiteral("keepLog"));
        keepLogButton_->setChecked(false);
    } else if (keepLog == kYes) {
        keepLogButton_->setChecked(true);
        clearLogButton_->setEnabled(true);
    } else if (keepLog == kNo) {
        keepLogButton_->setChecked(false);
    }
}

void AppController::readDownloadDirectorySetting() {
    const QString directory = defaults().stringForKey(QStringLiteral("downloadDirectory"));
    if (!directory.isNull()) {
        setDownloadDirectory(directory);
        return;
    }
    const QString expanded = foundation::expandingTildeInPath(kDefaultDownloadDirectory);
    if (!QFileInfo::exists(expanded))
        QDir().mkpath(expanded);  // a failure shows at download time
    store(kDefaultDownloadDirectory, QStringLiteral("downloadDirectory"));
    setDownloadDirectory(kDefaultDownloadDirectory);
}

void AppController::setDownloadDirectory(const QString& directory) {
    downloadDirectory_ = directory;
    if (directoryField_)
        directoryField_->setText(directory);
}

void AppController::readOpenAtLoginSetting() {
    const QVariant openAtLogin = defaults().objectForKey(QStringLiteral("openAtLogin"));
    if (!openAtLogin.isValid()) {
        store(kNo, QStringLiteral("openAtLogin"));
        openAtLoginButton_->setChecked(false);
    } else if (openAtLogin.toString() == kYes) {
        openAtLoginButton_->setChecked(true);
    } else if (openAtLogin.toString() == kNo) {
        openAtLoginButton_->setChecked(false);
    }
}
