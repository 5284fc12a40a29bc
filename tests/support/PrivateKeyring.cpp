// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/support/PrivateKeyring.h"

#include <libsecret/secret.h>

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDir>

#include "tests/support/StopProcess.h"
#include "tests/support/Wait.h"

namespace testsupport {

namespace {

const QByteArray kPassword = "test keyring password";
const QString kSecrets = QStringLiteral("org.freedesktop.secrets");
const QString kLogin = QStringLiteral("/org/freedesktop/secrets/collection/login");

bool registered() {
    QDBusConnectionInterface* bus = QDBusConnection::sessionBus().interface();
    return bus && bus->isServiceRegistered(kSecrets).value();
}

}  // namespace

PrivateKeyring& PrivateKeyring::shared() {
    static auto* keyring = new PrivateKeyring();  // lives as long as the process
    return *keyring;
}

PrivateKeyring::PrivateKeyring() {
    QDir(dir_.path()).mkpath(QStringLiteral("data"));
    QDir(dir_.path()).mkpath(QStringLiteral("run"));
    QFile::setPermissions(dir_.path() + QStringLiteral("/run"),
                          QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("HOME"), dir_.path());
    env.insert(QStringLiteral("XDG_DATA_HOME"), dir_.path() + QStringLiteral("/data"));
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), dir_.path() + QStringLiteral("/run"));
    daemon_.setProcessEnvironment(env);
    daemon_.setStandardErrorFile(QProcess::nullDevice());  // its warnings about prompts
    daemon_.start(QStringLiteral("gnome-keyring-daemon"),
                  {QStringLiteral("--foreground"), QStringLiteral("--unlock"),
                   QStringLiteral("--components=secrets")});
    if (!daemon_.waitForStarted(5000))
        return;
    daemon_.write(kPassword);
    daemon_.closeWriteChannel();
    running_ = waitUntil(registered, 10000);
}

PrivateKeyring::~PrivateKeyring() {
    stop();
}

void PrivateKeyring::stop() {
    stopProcess(daemon_);
    running_ = false;
    waitUntil([] { return !registered(); }, 5000);
    // libsecret's shared connection to the service would otherwise go on calling the daemon that
    // is gone until it hears of the name's new owner.
    secret_service_disconnect();
}

void PrivateKeyring::clear() {
    GError* error = nullptr;
    SecretService* service = secret_service_get_sync(SECRET_SERVICE_NONE, nullptr, &error);
    if (!service) {
        g_clear_error(&error);
        return;
    }
    GHashTable* any = g_hash_table_new(g_str_hash, g_str_equal);
    GList* items = secret_service_search_sync(
        service, nullptr, any,
        static_cast<SecretSearchFlags>(SECRET_SEARCH_ALL | SECRET_SEARCH_UNLOCK), nullptr, &error);
    for (GList* item = items; item; item = item->next)
        secret_item_delete_sync(static_cast<SecretItem*>(item->data), nullptr, nullptr);
    g_list_free_full(items, g_object_unref);
    g_hash_table_unref(any);
    g_clear_error(&error);
    g_object_unref(service);
}

// gnome-keyring's own interface for unlocking without a prompt, which the desktop's login uses.
bool PrivateKeyring::unlockLoginKeyring() {
    // A session without encryption carries the password.
    QDBusMessage open = QDBusMessage::createMethodCall(
        kSecrets, QStringLiteral("/org/freedesktop/secrets"),
        QStringLiteral("org.freedesktop.Secret.Service"), QStringLiteral("OpenSession"));
    open << QStringLiteral("plain") << QVariant::fromValue(QDBusVariant(QString()));
    const QDBusMessage opened = QDBusConnection::sessionBus().call(open);
    if (opened.type() != QDBusMessage::ReplyMessage || opened.arguments().size() < 2)
        return false;
    const QDBusObjectPath session = opened.arguments().at(1).value<QDBusObjectPath>();

    QDBusMessage call = QDBusMessage::createMethodCall(
        kSecrets, QStringLiteral("/org/freedesktop/secrets"),
        QStringLiteral("org.gnome.keyring.InternalUnsupportedGuiltRiddenInterface"),
        QStringLiteral("UnlockWithMasterPassword"));
    // The secret is (session, parameters, value, content type).
    QDBusArgument secret;
    secret.beginStructure();
    secret << session << QByteArray() << kPassword << QStringLiteral("text/plain");
    secret.endStructure();
    call << QVariant::fromValue(QDBusObjectPath(kLogin)) << QVariant::fromValue(secret);
    const QDBusMessage reply = QDBusConnection::sessionBus().call(call);
    if (reply.type() != QDBusMessage::ReplyMessage)
        qWarning("unlocking the test keyring: %s", qPrintable(reply.errorMessage()));
    return reply.type() == QDBusMessage::ReplyMessage;
}

bool PrivateKeyring::isLoginKeyringLocked() {
    QDBusMessage call = QDBusMessage::createMethodCall(
        kSecrets, kLogin, QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    call << QStringLiteral("org.freedesktop.Secret.Collection") << QStringLiteral("Locked");
    const QDBusMessage reply = QDBusConnection::sessionBus().call(call);
    return reply.arguments().value(0).value<QDBusVariant>().variant().toBool();
}

QString PrivateKeyring::loginCollection() {
    return kLogin;
}

bool PrivateKeyring::setDefaultCollection(const QString& path) {
    QDBusMessage call = QDBusMessage::createMethodCall(
        kSecrets, QStringLiteral("/org/freedesktop/secrets"),
        QStringLiteral("org.freedesktop.Secret.Service"), QStringLiteral("SetAlias"));
    call << QStringLiteral("default")
         << QVariant::fromValue(QDBusObjectPath(path.isEmpty() ? QStringLiteral("/") : path));
    return QDBusConnection::sessionBus().call(call).type() == QDBusMessage::ReplyMessage;
}

}  // namespace testsupport
