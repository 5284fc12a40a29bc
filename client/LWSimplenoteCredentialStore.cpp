// SPDX-License-Identifier: GPL-3.0-or-later
#include "client/LWSimplenoteCredentialStore.h"

#include "foundation/UserDefaults.h"

namespace {

QString storeKey(const QString& key) {
    return QStringLiteral("simplenote-") + key;
}

}  // namespace

QString LWSimplenoteCredentialStore::defaultValueForKey(const QString& key) {
    return foundation::UserDefaults::standardUserDefaults().stringForKey(storeKey(key));
}

void LWSimplenoteCredentialStore::setDefaultValue(const QString& value, const QString& key) {
    auto& defaults = foundation::UserDefaults::standardUserDefaults();
    defaults.setObject(value.isNull() ? QVariant() : QVariant(value), storeKey(key));
    defaults.synchronize();
}

QString LWSimplenoteCredentialStore::email() {
    return defaultValueForKey(QStringLiteral("email"));
}

QString LWSimplenoteCredentialStore::authToken() {
    return defaultValueForKey(QStringLiteral("authToken"));
}

void LWSimplenoteCredentialStore::setEmail(const QString& email) {
    setDefaultValue(email, keyForSetter(QStringLiteral("setEmail:")));
}

void LWSimplenoteCredentialStore::setAuthToken(const QString& authToken) {
    setDefaultValue(authToken, keyForSetter(QStringLiteral("setAuthToken:")));
}

QString LWSimplenoteCredentialStore::keyForSetter(const QString& setterName) {
    QString key = setterName;
    if (key.startsWith(QStringLiteral("set")))
        key.remove(0, 3);
    if (key.endsWith(QLatin1Char(':')))
        key.chop(1);
    if (!key.isEmpty())
        key[0] = key[0].toLower();
    return key;
}
