// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QString>
#include <memory>

// The store behind the keychain items: passwords found and kept by kind of item (generic:
// service and account; internet: server, account, path, port, protocol), one item changed at a
// time. KeychainStore::defaultStore() picks the store of this system: the desktop's Secret Service
// (GNOME Keyring, KWallet, KeePassXC...) on Linux. Where it cannot be reached, lookups find
// nothing and adds fail, and the log says so once.
//
// Attribute tags are the four-character codes of the items' attributes: 'acct' account, 'labl'
// label, 'svce' service, 'srvr' server, 'path' path, 'port' port, 'ptcl' protocol. A protocol is a
// four-character code too ('http', 'ftp ', 'ftpa'...).

// An item of the store, held for as long as someone holds the reference.
using KeychainItemRef = std::shared_ptr<void>;

struct KeychainResult {
    KeychainItemRef item;  // null when nothing was found or added
    // The password's bytes, for a lookup; null when the item holds none the store can give.
    QByteArray password;
    // What went wrong, by the symbolic name of the store's own status; empty on success.
    QString status;
};

constexpr quint32 fourCharCode(const char (&code)[5]) {
    return (quint32(quint8(code[0])) << 24) | (quint32(quint8(code[1])) << 16) |
           (quint32(quint8(code[2])) << 8) | quint32(quint8(code[3]));
}

class KeychainStore {
public:
    virtual ~KeychainStore() = default;
    static KeychainStore& defaultStore();

    // Strings travel as their UTF-8 bytes.
    virtual KeychainResult findGenericPassword(const QByteArray& service,
                                               const QByteArray& account) = 0;
    // An item that exists already for the service and account is not replaced: the add fails.
    virtual KeychainResult addGenericPassword(const QByteArray& service, const QByteArray& account,
                                              const QByteArray& password) = 0;
    virtual KeychainResult findInternetPassword(const QByteArray& server, const QByteArray& account,
                                                const QByteArray& path, quint16 port,
                                                quint32 protocol) = 0;
    virtual KeychainResult addInternetPassword(const QByteArray& server, const QByteArray& account,
                                               const QByteArray& password, const QByteArray& path,
                                               quint16 port, quint32 protocol) = 0;
    // Each answers the status name, empty on success.
    virtual QString modifyAttribute(const KeychainItemRef& item, quint32 tag,
                                    const QByteArray& value) = 0;
    virtual QString modifyPasswordData(const KeychainItemRef& item, const QByteArray& password) = 0;
    virtual QString deleteItem(const KeychainItemRef& item) = 0;
    // The user's default collection of passwords.
    virtual void lock() = 0;
    virtual void unlock() = 0;
};
