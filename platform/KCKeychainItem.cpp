// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/KCKeychainItem.h"

#include "foundation/Assert.h"
#include "foundation/Log.h"
#include "foundation/Utf8.h"

namespace {

std::mutex& classMutex() {
    static std::mutex mutex;
    return mutex;
}
bool gLogsErrors = false;

// A missing argument is no lookup and no add.
bool anyNull(std::initializer_list<const QString*> values) {
    for (const QString* value : values) {
        if (value->isNull())
            return true;
    }
    return false;
}

// The same string object, as far as a QString has one: the same shared text.
bool sameObject(const QString& a, const QString& b) {
    return a.isSharedWith(b) && a.isNull() == b.isNull();
}

// A secret the store could not give is no password, nor are bytes that are no UTF-8 text.
QString passwordText(const QByteArray& bytes) {
    return bytes.isNull() ? QString() : foundation::strictUtf8(bytes);
}

QByteArray integerBytes(quint32 value) {
    return QByteArray(reinterpret_cast<const char*>(&value), sizeof value);
}

}  // namespace

KCKeychainItem::KCKeychainItem(KeychainItemRef item, const QString& username,
                               const QString& password)
    : mUsername(username), mPassword(password), mCoreKeychainItem(std::move(item)) {}

void KCKeychainItem::lockKeychain() {
    KeychainStore::defaultStore().lock();
}

void KCKeychainItem::unlockKeychain() {
    KeychainStore::defaultStore().unlock();
}

bool KCKeychainItem::logsErrors() {
    std::lock_guard lock(classMutex());
    return gLogsErrors;
}

void KCKeychainItem::setLogsErrors(bool logsErrors) {
    std::lock_guard lock(classMutex());
    gLogsErrors = logsErrors;
}

void KCKeychainItem::logError(const char* method, const QString& status) {
    if (logsErrors())
        foundation::log(QStringLiteral("Error (%1) - %2").arg(QLatin1String(method), status));
}

QString KCKeychainItem::username() const {
    std::lock_guard lock(mutex_);
    return mUsername;
}

QString KCKeychainItem::password() const {
    std::lock_guard lock(mutex_);
    return mPassword;
}

QString KCKeychainItem::label() const {
    std::lock_guard lock(mutex_);
    return mLabel;
}

void KCKeychainItem::setUsername(const QString& username) {
    std::lock_guard lock(mutex_);
    if (sameObject(username, mUsername))
        return;
    mUsername = username;
    modifyStringAttribute(fourCharCode("acct"), username);
}

void KCKeychainItem::setLabel(const QString& label) {
    std::lock_guard lock(mutex_);
    if (sameObject(label, mLabel))
        return;
    mLabel = label;
    modifyStringAttribute(fourCharCode("labl"), label);
}

// No check that the item is still there: the keychain is simply told.
void KCKeychainItem::setPassword(const QString& password) {
    std::lock_guard lock(mutex_);
    if (sameObject(password, mPassword))
        return;
    mPassword = password;
    KeychainStore::defaultStore().modifyPasswordData(mCoreKeychainItem, password.toUtf8());
}

void KCKeychainItem::removeFromKeychain() {
    if (!mCoreKeychainItem) {
        foundation::failAssertion(QStringLiteral("Core keychain item is nil. You cannot remove a "
                                                 "keychain item that is not in the keychain "
                                                 "already."),
                                  "-[KCKeychainItem removeFromKeychain]", "KCKeychainItem", 171);
    }
    if (KeychainStore::defaultStore().deleteItem(mCoreKeychainItem).isEmpty())
        mCoreKeychainItem.reset();
}

void KCKeychainItem::modifyAttributeWithTag(quint32 tag, const void* value, quint32 length) {
    if (!mCoreKeychainItem) {
        foundation::failAssertion(
            QStringLiteral("Core keychain item is nil. You cannot modify a keychain item that is "
                           "not in the keychain."),
            "-[KCKeychainItem _modifyAttributeWithTag:toBeValue:ofLength:]", "KCKeychainItem", 92);
    }
    KeychainStore::defaultStore().modifyAttribute(
        mCoreKeychainItem, tag,
        QByteArray(static_cast<const char*>(value), static_cast<qsizetype>(length)));
}

void KCKeychainItem::modifyStringAttribute(quint32 tag, const QString& value) {
    const QByteArray bytes = value.toUtf8();
    modifyAttributeWithTag(tag, bytes.constData(), static_cast<quint32>(bytes.size()));
}

// --- generic items

KCGenericKeychainItem::KCGenericKeychainItem(KeychainItemRef item, const QString& serviceName,
                                             const QString& username, const QString& password)
    : KCKeychainItem(std::move(item), username, password), mServiceName(serviceName) {}

std::shared_ptr<KCGenericKeychainItem> KCGenericKeychainItem::genericKeychainItemForService(
    const QString& service, const QString& username) {
    if (anyNull({&service, &username}))
        return nullptr;
    KeychainResult found =
        KeychainStore::defaultStore().findGenericPassword(service.toUtf8(), username.toUtf8());
    if (!found.item) {
        logError("genericKeychainItemForService:withUsername:", found.status);
        return nullptr;
    }
    return std::shared_ptr<KCGenericKeychainItem>(new KCGenericKeychainItem(
        std::move(found.item), service, username, passwordText(found.password)));
}

std::shared_ptr<KCGenericKeychainItem> KCGenericKeychainItem::addGenericKeychainItemForService(
    const QString& service, const QString& username, const QString& password) {
    if (anyNull({&service, &username, &password}))
        return nullptr;
    KeychainResult added = KeychainStore::defaultStore().addGenericPassword(
        service.toUtf8(), username.toUtf8(), password.toUtf8());
    if (!added.item) {
        logError("addGenericKeychainItemForService:withUsername:password:", added.status);
        return nullptr;
    }
    return std::shared_ptr<KCGenericKeychainItem>(
        new KCGenericKeychainItem(std::move(added.item), service, username, password));
}

QString KCGenericKeychainItem::serviceName() const {
    std::lock_guard lock(mutex_);
    return mServiceName;
}

void KCGenericKeychainItem::setServiceName(const QString& serviceName) {
    std::lock_guard lock(mutex_);
    if (sameObject(serviceName, mServiceName))
        return;
    mServiceName = serviceName;
    modifyStringAttribute(fourCharCode("svce"), serviceName);
}

// --- internet items

KCInternetKeychainItem::KCInternetKeychainItem(KeychainItemRef item, const QString& server,
                                               const QString& username, const QString& password,
                                               const QString& path, qint64 port, quint32 protocol)
    : KCKeychainItem(std::move(item), username, password),
      mServer(server),
      mPath(path),
      mPort(port),
      mProtocol(protocol) {}

std::shared_ptr<KCInternetKeychainItem> KCInternetKeychainItem::internetKeychainItemForServer(
    const QString& server, const QString& username, const QString& path, qint64 port,
    quint32 protocol) {
    if (anyNull({&server, &username}))
        return nullptr;
    KeychainStore& store = KeychainStore::defaultStore();
    const auto lookup = [&](quint32 code) {
        return store.findInternetPassword(server.toUtf8(), username.toUtf8(),
                                          path.isEmpty() ? QByteArray("") : path.toUtf8(),
                                          static_cast<quint16>(port), code);
    };
    quint32 foundProtocol = protocol;
    KeychainResult found = lookup(protocol);
    if (!found.item && protocol == kProtocolFTP) {
        foundProtocol = kProtocolFTPAccount;
        found = lookup(foundProtocol);
    }
    if (!found.item) {
        logError("internetKeychainItemForServer:withUsername:path:port:protocol:", found.status);
        return nullptr;
    }
    return std::shared_ptr<KCInternetKeychainItem>(
        new KCInternetKeychainItem(std::move(found.item), server, username,
                                   passwordText(found.password), path, port, foundProtocol));
}

std::shared_ptr<KCInternetKeychainItem> KCInternetKeychainItem::addInternetKeychainItemForServer(
    const QString& server, const QString& username, const QString& password, const QString& path,
    qint64 port, quint32 protocol) {
    if (anyNull({&server, &username, &password}))
        return nullptr;
    KeychainResult added = KeychainStore::defaultStore().addInternetPassword(
        server.toUtf8(), username.toUtf8(), password.toUtf8(),
        path.isEmpty() ? QByteArray("") : path.toUtf8(), static_cast<quint16>(port), protocol);
    if (!added.item) {
        logError("addInternetKeychainItemForServer:withUsername:password:path:port:protocol:",
                 added.status);
        return nullptr;
    }
    return std::shared_ptr<KCInternetKeychainItem>(new KCInternetKeychainItem(
        std::move(added.item), server, username, password, path, port, protocol));
}

QString KCInternetKeychainItem::server() const {
    std::lock_guard lock(mutex_);
    return mServer;
}

QString KCInternetKeychainItem::path() const {
    std::lock_guard lock(mutex_);
    return mPath;
}

void KCInternetKeychainItem::setServer(const QString& server) {
    std::lock_guard lock(mutex_);
    if (sameObject(server, mServer))
        return;
    mServer = server;
    modifyStringAttribute(fourCharCode("srvr"), server);
}

void KCInternetKeychainItem::setPath(const QString& path) {
    if (sameObject(path, mPath))
        return;
    mPath = path;
    modifyStringAttribute(fourCharCode("path"), path);
}

void KCInternetKeychainItem::setPort(qint64 port) {
    std::lock_guard lock(mutex_);
    if (port == mPort)
        return;
    mPort = port;
    const QByteArray bytes = integerBytes(static_cast<quint32>(port));
    modifyAttributeWithTag(fourCharCode("port"), bytes.constData(), 4);
}

void KCInternetKeychainItem::setProtocol(quint32 protocol) {
    std::lock_guard lock(mutex_);
    if (protocol == mProtocol)
        return;
    mProtocol = protocol;
    const QByteArray bytes = integerBytes(protocol);
    modifyAttributeWithTag(fourCharCode("ptcl"), bytes.constData(), 4);
}
