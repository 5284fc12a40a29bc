#include "foundation/UserDefaults.h"

#include <QDir>
#include <QSettings>
#include <QStandardPaths>

#include "foundation/SettingsFormat.h"

namespace foundation {

namespace {

std::unique_ptr<UserDefaults>& standardInstance() {
    static std::unique_ptr<UserDefaults> instance;
    return instance;
}

}  // namespace

UserDefaults& UserDefaults::standardUserDefaults() {
    auto& instance = standardInstance();
    if (!instance)
        instance = std::make_unique<UserDefaults>(defaultFilePath());
    return *instance;
}

void UserDefaults::resetStandardUserDefaults() {
    standardInstance().reset();
}

UserDefaults::UserDefaults(const QString& filePath)
    : settings_(std::make_unique<QSettings>(filePath, typedIniFormat())) {}

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
    return settings_->status() == QSettings::NoError;
}

}  // namespace foundation
