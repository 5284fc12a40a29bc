// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/UserDefaults.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QStandardPaths>

#include "foundation/SettingsFormat.h"

namespace foundation {

namespace {

std::unique_ptr<UserDefaults>& standardInstance() {
    static std::unique_ptr<UserDefaults> instance;
    return instance;
}

constexpr QFile::Permissions kOwnerOnly = QFile::ReadOwner | QFile::WriteOwner;

// The settings hold the notes service's session token: only their owner may read them, whatever
// the umask or an earlier version left.
void keepPrivate(const QString& file) {
    constexpr QFile::Permissions kOthers = QFile::ReadGroup | QFile::WriteGroup | QFile::ExeGroup |
                                           QFile::ReadOther | QFile::WriteOther | QFile::ExeOther;
    if (QFileInfo::exists(file) && (QFile::permissions(file) & kOthers))
        QFile::setPermissions(file, kOwnerOnly);
}

}  // namespace

// The folder is made private before anything is written into it, so that the settings file is
// never readable by others, not even for the moment between its creation and its chmod.
UserDefaults& UserDefaults::standardUserDefaults() {
    auto& instance = standardInstance();
    if (!instance) {
        const QString file = defaultFilePath();
        const QString folder = QFileInfo(file).path();
        QDir().mkpath(folder);
        QFile::setPermissions(folder, kOwnerOnly | QFile::ExeOwner);
        instance = std::make_unique<UserDefaults>(file);
    }
    return *instance;
}

void UserDefaults::resetStandardUserDefaults() {
    standardInstance().reset();
}

UserDefaults::UserDefaults(const QString& filePath)
    : settings_(std::make_unique<QSettings>(filePath, typedIniFormat())) {
    keepPrivate(filePath);
}

UserDefaults::~UserDefaults() = default;

QString UserDefaults::defaultFilePath() {
    QString config = qEnvironmentVariable("XDG_CONFIG_HOME");
    if (config.isEmpty())
        config = QDir::homePath() + QStringLiteral("/.config");
    return config + QStringLiteral("/Ferrybox/Ferrybox.conf");
}

QString UserDefaults::filePath() const {
    return settings_->fileName();
}

QVariant UserDefaults::objectForKey(const QString& key) const {
    return settings_->value(key);
}

QString UserDefaults::stringForKey(const QString& key) const {
    const QVariant value = settings_->value(key);
    return value.isValid() ? value.toString() : QString();
}

void UserDefaults::setObject(const QVariant& value, const QString& key) {
    if (!value.isValid()) {
        settings_->remove(key);
        return;
    }
    settings_->setValue(key, value);
}

void UserDefaults::removeObjectForKey(const QString& key) {
    settings_->remove(key);
}

bool UserDefaults::synchronize() {
    settings_->sync();
    keepPrivate(settings_->fileName());
    return settings_->status() == QSettings::NoError;
}

}  // namespace foundation
