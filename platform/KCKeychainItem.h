// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <memory>
#include <mutex>

#include "platform/KeychainStore.h"

// One password item of the user's keychain (on Linux the desktop's Secret Service, see
// KeychainStore). An object is made by a lookup or an add and holds the item until
// removeFromKeychain() succeeds or the object goes; every setter writes its change straight to
// the item. Lookups and adds give nothing for a missing argument (silently) and for any failure
// of the keychain (with the line "Error (METHOD) - STATUS" in the log, but only while
// logsErrors() is set). Setters do not report what the keychain answers: the object holds the
// new value whatever it said. Neither the password nor the account is ever logged.
class KCKeychainItem {
public:
    virtual ~KCKeychainItem() = default;
    KCKeychainItem(const KCKeychainItem&) = delete;
    KCKeychainItem& operator=(const KCKeychainItem&) = delete;

    // The user's default collection of passwords; unlocking lets the desktop ask for its
    // password.
    static void lockKeychain();
    static void unlockKeychain();
    static bool logsErrors();
    static void setLogsErrors(bool logsErrors);

    QString username() const;
    // Null when the item's password is not UTF-8 text.
    QString password() const;
    // Null until setLabel(); lookups do not read it.
    QString label() const;
    void setUsername(const QString& username);
    void setPassword(const QString& password);
    void setLabel(const QString& label);
    // Deletes the item from the keychain. Throws foundation::AssertionFailure when the object no
    // longer holds an item (it was removed before); a delete the keychain refuses keeps it.
    void removeFromKeychain();
    bool isInKeychain() const { return mCoreKeychainItem != nullptr; }

protected:
    KCKeychainItem(KeychainItemRef item, const QString& username, const QString& password);
    // Writes one attribute of the item. Throws foundation::AssertionFailure when the object
    // holds no item.
    void modifyAttributeWithTag(quint32 tag, const void* value, quint32 length);
    void modifyStringAttribute(quint32 tag, const QString& value);
    // Logs "Error (METHOD) - STATUS" when logsErrors() is set.
    static void logError(const char* method, const QString& status);

    mutable std::mutex mutex_;

private:
    QString mUsername;
    QString mPassword;
    QString mLabel;
    KeychainItemRef mCoreKeychainItem;
};

// A password for a service and an account. The agent keeps its password as one, with the
// service "Ferrybox" and the e-mail address as the account.
class KCGenericKeychainItem : public KCKeychainItem {
public:
    static std::shared_ptr<KCGenericKeychainItem> genericKeychainItemForService(
        const QString& service, const QString& username);
    // An item that exists already for the service and account is not replaced: nothing is
    // answered, and the stored password stays.
    static std::shared_ptr<KCGenericKeychainItem> addGenericKeychainItemForService(
        const QString& service, const QString& username, const QString& password);

    QString serviceName() const;
    void setServiceName(const QString& serviceName);

private:
    KCGenericKeychainItem(KeychainItemRef item, const QString& serviceName, const QString& username,
                          const QString& password);
    QString mServiceName;
};

// A password for an account on a server, by path, port and protocol (a four-character code:
// 'http', 'ftp ', 'ftpa' ...). The port is kept and matched by its low 16 bits.
class KCInternetKeychainItem : public KCKeychainItem {
public:
    static constexpr quint32 kProtocolFTP = fourCharCode("ftp ");
    static constexpr quint32 kProtocolFTPAccount = fourCharCode("ftpa");

    // An ftp lookup that finds nothing looks once more for ftpa, and the item found says ftpa.
    static std::shared_ptr<KCInternetKeychainItem> internetKeychainItemForServer(
        const QString& server, const QString& username, const QString& path, qint64 port,
        quint32 protocol);
    static std::shared_ptr<KCInternetKeychainItem> addInternetKeychainItemForServer(
        const QString& server, const QString& username, const QString& password,
        const QString& path, qint64 port, quint32 protocol);

    QString server() const;
    QString path() const;
    qint64 port() const { return mPort; }
    quint32 protocol() const { return mProtocol; }
    void setServer(const QString& server);
    // Unlike the other setters it takes no lock, as the original does.
    void setPath(const QString& path);
    void setPort(qint64 port);
    void setProtocol(quint32 protocol);

private:
    KCInternetKeychainItem(KeychainItemRef item, const QString& server, const QString& username,
                           const QString& password, const QString& path, qint64 port,
                           quint32 protocol);
    QString mServer;
    QString mPath;
    qint64 mPort;
    quint32 mProtocol;
};
