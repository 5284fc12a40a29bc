// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

// The account's e-mail address and session token in the user's settings, under
// "simplenote-email" and "simplenote-authToken". Every write reaches the disk at once. The
// password is never kept here.
class LWSimplenoteCredentialStore {
public:
    LWSimplenoteCredentialStore() = delete;

    // Null when absent.
    static QString defaultValueForKey(const QString& key);
    // A null value removes the setting.
    static void setDefaultValue(const QString& value, const QString& key);

    static QString email();
    static QString authToken();
    static void setEmail(const QString& email);
    static void setAuthToken(const QString& authToken);

    // "setEmail:" -> "email": the key a setter's name stands for.
    static QString keyForSetter(const QString& setterName);
};
