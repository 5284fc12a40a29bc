#pragma once

#include <QString>
#include <memory>

// A password kept in the user's keychain. Until the Secret Service backend lands, the keychain
// holds nothing: look-ups find no item and additions keep nothing.
class KCKeychainItem {
public:
    virtual ~KCKeychainItem() = default;
    virtual QString password() const = 0;
};

class KCGenericKeychainItem : public KCKeychainItem {
public:
    static std::shared_ptr<KCGenericKeychainItem> genericKeychainItemForService(
        const QString& service, const QString& username);
    static std::shared_ptr<KCGenericKeychainItem> addGenericKeychainItemForService(
        const QString& service, const QString& username, const QString& password);

    QString password() const override { return password_; }

private:
    QString password_;
};
