// SPDX-License-Identifier: GPL-3.0-or-later
// The keychain store of Linux desktops: the Secret Service on the session bus, through
// libsecret. Generic items use a schema of our own, "org.ferrybox.GenericPassword", with the
// attributes "service" and "account"; internet items use libsecret's network-password schema
// ("org.gnome.keyring.NetworkPassword": "server", "user", "object" for the path, "port",
// "protocol", "authtype"), which other programs of the desktop understand. A protocol code is
// stored as its four characters without trailing blanks ("http", "ftp", "ftpa"), the
// authentication type of an added item as "dflt". The label is the item's label.
//
// Every call is answered within a few seconds: a keyring that takes longer (a hung daemon, a
// prompt nobody answers) counts as one that cannot be reached, for that call. The desktop goes on
// showing the agent meanwhile (see foundation::runWithin).
#include <libsecret/secret.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <utility>

#include "foundation/BoundedWait.h"
#include "foundation/Log.h"
#include "platform/KeychainStore.h"

namespace {

const SecretSchema kGenericSchema = {"org.ferrybox.GenericPassword",
                                     SECRET_SCHEMA_NONE,
                                     {{"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                      {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                      {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
                                     0,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     nullptr};

const SecretSchema* networkSchema() {
    return SECRET_SCHEMA_COMPAT_NETWORK;
}

const QString kNotFound = QStringLiteral("SECRET_ERROR_NO_SUCH_OBJECT");
const QString kTimedOut = QStringLiteral("G_IO_ERROR_TIMED_OUT");
constexpr int kKeyringAnswerMs = 3000;

// Owns one reference to the item.
struct Handle {
    Handle(SecretItem* item, bool internet) : item(item), internet(internet) {}
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() { g_object_unref(item); }
    SecretItem* item;
    bool internet;
};

SecretItem* itemOf(const KeychainItemRef& ref) {
    return ref ? static_cast<Handle*>(ref.get())->item : nullptr;
}

KeychainItemRef refTo(SecretItem* item, bool internet) {
    return std::make_shared<Handle>(item, internet);
}

// The symbolic name of an error: the enum value's name where GLib knows it, the remote name
// of a D-Bus error.
QString statusName(const GError* error) {
    if (!error)
        return kNotFound;
    if (error->domain == SECRET_ERROR) {
        switch (error->code) {
            case SECRET_ERROR_PROTOCOL:
                return QStringLiteral("SECRET_ERROR_PROTOCOL");
            case SECRET_ERROR_IS_LOCKED:
                return QStringLiteral("SECRET_ERROR_IS_LOCKED");
            case SECRET_ERROR_NO_SUCH_OBJECT:
                return kNotFound;
            case SECRET_ERROR_ALREADY_EXISTS:
                return QStringLiteral("SECRET_ERROR_ALREADY_EXISTS");
            default:
                break;
        }
    }
    if (g_dbus_error_is_remote_error(error)) {
        gchar* remote = g_dbus_error_get_remote_error(error);
        const QString name = QString::fromUtf8(remote);
        g_free(remote);
        return name;
    }
    const GType type = error->domain == G_IO_ERROR     ? G_TYPE_IO_ERROR_ENUM
                       : error->domain == G_DBUS_ERROR ? G_TYPE_DBUS_ERROR
                                                       : G_TYPE_INVALID;
    if (type != G_TYPE_INVALID) {
        auto* enumClass = static_cast<GEnumClass*>(g_type_class_ref(type));
        const GEnumValue* value = g_enum_get_value(enumClass, error->code);
        const QString name = value ? QString::fromUtf8(value->value_name) : QString();
        g_type_class_unref(enumClass);
        if (!name.isEmpty())
            return name;
    }
    return QStringLiteral("%1 %2")
        .arg(QString::fromUtf8(g_quark_to_string(error->domain)))
        .arg(error->code);
}

// Once per run, whichever call finds it so first.
void tellUnreachable(const QString& why) {
    static std::atomic<bool> told = false;
    if (!told.exchange(true)) {
        foundation::log(QStringLiteral("The keyring cannot be reached (%1): passwords are "
                                       "neither read from it nor kept in it")
                            .arg(why));
    }
}

// Takes the error: its name, and one line in the log the first time the store cannot be
// reached at all.
QString consume(GError* error) {
    const QString name = statusName(error);
    if (error && error->domain != SECRET_ERROR)
        tellUnreachable(QString::fromUtf8(error->message));
    if (error)
        g_error_free(error);
    return name;
}

// The call's answer, or the given one when the keyring has not answered in time.
template <class T>
T answered(std::function<T()> call, T unanswered) {
    auto answer = std::make_shared<T>();
    if (foundation::runWithin(kKeyringAnswerMs,
                              [call = std::move(call), answer] { *answer = call(); })) {
        return std::move(*answer);
    }
    tellUnreachable(
        QStringLiteral("it has not answered within %1 seconds").arg(kKeyringAnswerMs / 1000));
    return unanswered;
}

KeychainResult unanswered() {
    KeychainResult result;
    result.status = kTimedOut;
    return result;
}

// Whether the service names a collection as its default: it answers the root path when none.
bool hasDefaultCollection(SecretService* secrets, GError** error) {
    GVariant* answer = g_dbus_proxy_call_sync(G_DBUS_PROXY(secrets), "ReadAlias",
                                              g_variant_new("(s)", SECRET_COLLECTION_DEFAULT),
                                              G_DBUS_CALL_FLAGS_NONE, -1, nullptr, error);
    if (!answer)
        return false;
    const gchar* path = nullptr;
    g_variant_get(answer, "(&o)", &path);
    const bool named = std::strcmp(path, "/") != 0;
    g_variant_unref(answer);
    return named;
}

// The collection new items go to: the one the service names as the default, else one made as
// libsecret itself makes it, the login collection under that alias. Where neither is to be had,
// passwords cannot be kept, and the log says so once. Answers null with the status then.
SecretCollection* defaultCollection(SecretService* secrets, QString* status) {
    GError* error = nullptr;
    const bool named = hasDefaultCollection(secrets, &error);
    if (error) {
        *status = consume(error);
        return nullptr;
    }
    if (named) {
        SecretCollection* collection = secret_collection_for_alias_sync(
            secrets, SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, nullptr, &error);
        if (!collection)
            *status = error ? consume(error) : kNotFound;
        return collection;
    }
    SecretCollection* made =
        secret_collection_create_sync(secrets, "Login", SECRET_COLLECTION_DEFAULT,
                                      SECRET_COLLECTION_CREATE_NONE, nullptr, &error);
    if (made)
        return made;
    *status = error ? statusName(error) : kNotFound;
    static std::atomic<bool> told = false;
    if (!told.exchange(true)) {
        foundation::log(QStringLiteral("The keyring has no collection to keep passwords in (none "
                                       "is its default, and making one failed: %1): passwords "
                                       "are not remembered")
                            .arg(error ? QString::fromUtf8(error->message) : *status));
    }
    if (error)
        g_error_free(error);
    return nullptr;
}

SecretService* service(GError** error) {
    return secret_service_get_sync(SECRET_SERVICE_OPEN_SESSION, nullptr, error);
}

QString protocolText(quint32 code) {
    QByteArray text(4, ' ');
    for (int i = 0; i < 4; ++i)
        text[i] = static_cast<char>((code >> (24 - 8 * i)) & 0xff);
    return QString::fromLatin1(text).trimmed();
}

// Attribute names to values, as libsecret takes them.
struct Attributes {
    GHashTable* table = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free);
    Attributes() = default;
    Attributes(Attributes&& other) noexcept : table(std::exchange(other.table, nullptr)) {}
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;
    ~Attributes() {
        if (table)
            g_hash_table_unref(table);
    }
    void set(const char* name, const QByteArray& value) {
        g_hash_table_replace(table, g_strdup(name), g_strdup(value.constData()));
    }
};

Attributes genericAttributes(const QByteArray& service, const QByteArray& account) {
    Attributes a;
    a.set("service", service);
    a.set("account", account);
    return a;
}

Attributes internetAttributes(const QByteArray& server, const QByteArray& account,
                              const QByteArray& path, quint16 port, quint32 protocol) {
    Attributes a;
    a.set("server", server);
    a.set("user", account);
    a.set("object", path);
    a.set("port", QByteArray::number(port));
    a.set("protocol", protocolText(protocol).toLatin1());
    return a;
}

// The first item that matches, with its secret.
KeychainResult find(const SecretSchema* schema, const Attributes& attributes, bool internet) {
    KeychainResult result;
    GError* error = nullptr;
    SecretService* secrets = service(&error);
    if (!secrets) {
        result.status = consume(error);
        return result;
    }
    GList* items = secret_service_search_sync(
        secrets, schema, attributes.table,
        static_cast<SecretSearchFlags>(SECRET_SEARCH_UNLOCK | SECRET_SEARCH_LOAD_SECRETS), nullptr,
        &error);
    g_object_unref(secrets);
    if (!items) {
        result.status = consume(error);
        return result;
    }
    auto* item = static_cast<SecretItem*>(g_object_ref(items->data));
    g_list_free_full(items, g_object_unref);
    // Still locked: nobody was there to give the keyring's password.
    if (secret_item_get_locked(item)) {
        g_object_unref(item);
        result.status = QStringLiteral("SECRET_ERROR_IS_LOCKED");
        return result;
    }
    if (SecretValue* secret = secret_item_get_secret(item)) {
        gsize length = 0;
        const gchar* bytes = secret_value_get(secret, &length);
        result.password = QByteArray(bytes, static_cast<qsizetype>(length));
        secret_value_unref(secret);
    }
    result.item = refTo(item, internet);
    return result;
}

KeychainResult add(const SecretSchema* schema, const Attributes& attributes, const QString& label,
                   const QByteArray& password, bool internet) {
    KeychainResult result;
    GError* error = nullptr;
    SecretService* secrets = service(&error);
    if (!secrets) {
        result.status = consume(error);
        return result;
    }
    // The service would keep a second item beside the first; the keychain refuses instead.
    GList* existing = secret_service_search_sync(secrets, schema, attributes.table,
                                                 SECRET_SEARCH_NONE, nullptr, &error);
    if (existing || error) {
        g_list_free_full(existing, g_object_unref);
        g_object_unref(secrets);
        result.status = error ? consume(error) : QStringLiteral("SECRET_ERROR_ALREADY_EXISTS");
        return result;
    }
    SecretCollection* collection = defaultCollection(secrets, &result.status);
    g_object_unref(secrets);
    if (!collection)
        return result;
    SecretValue* secret = secret_value_new(password.constData(), password.size(), "text/plain");
    SecretItem* item =
        secret_item_create_sync(collection, schema, attributes.table, label.toUtf8().constData(),
                                secret, SECRET_ITEM_CREATE_NONE, nullptr, &error);
    secret_value_unref(secret);
    g_object_unref(collection);
    if (!item) {
        result.status = consume(error);
        return result;
    }
    result.item = refTo(item, internet);
    return result;
}

// The attribute a tag names, for each kind of item; null where the kind has none.
const char* attributeName(quint32 tag, bool internet) {
    if (tag == fourCharCode("acct"))
        return internet ? "user" : "account";
    if (tag == fourCharCode("svce"))
        return internet ? nullptr : "service";
    if (tag == fourCharCode("srvr"))
        return internet ? "server" : nullptr;
    if (tag == fourCharCode("path"))
        return internet ? "object" : nullptr;
    if (tag == fourCharCode("port"))
        return internet ? "port" : nullptr;
    if (tag == fourCharCode("ptcl"))
        return internet ? "protocol" : nullptr;
    return nullptr;
}

quint32 integerValue(const QByteArray& value) {
    quint32 n = 0;
    std::memcpy(&n, value.constData(), std::min<std::size_t>(sizeof n, value.size()));
    return n;
}

class SecretServiceStore : public KeychainStore {
public:
    KeychainResult findGenericPassword(const QByteArray& service,
                                       const QByteArray& account) override {
        return answered<KeychainResult>(
            [=] { return find(&kGenericSchema, genericAttributes(service, account), false); },
            unanswered());
    }
    KeychainResult addGenericPassword(const QByteArray& service, const QByteArray& account,
                                      const QByteArray& password) override {
        return answered<KeychainResult>(
            [=] {
                return add(&kGenericSchema, genericAttributes(service, account),
                           QString::fromUtf8(service), password, false);
            },
            unanswered());
    }
    KeychainResult findInternetPassword(const QByteArray& server, const QByteArray& account,
                                        const QByteArray& path, quint16 port,
                                        quint32 protocol) override {
        return answered<KeychainResult>(
            [=] {
                return find(networkSchema(),
                            internetAttributes(server, account, path, port, protocol), true);
            },
            unanswered());
    }
    KeychainResult addInternetPassword(const QByteArray& server, const QByteArray& account,
                                       const QByteArray& password, const QByteArray& path,
                                       quint16 port, quint32 protocol) override {
        return answered<KeychainResult>(
            [=] {
                Attributes attributes = internetAttributes(server, account, path, port, protocol);
                attributes.set("authtype", "dflt");
                return add(networkSchema(), attributes, QString::fromUtf8(server), password, true);
            },
            unanswered());
    }

    QString modifyAttribute(const KeychainItemRef& ref, quint32 tag,
                            const QByteArray& value) override {
        return answered<QString>([=] { return modifyAttributeNow(ref, tag, value); }, kTimedOut);
    }
    QString modifyPasswordData(const KeychainItemRef& ref, const QByteArray& password) override {
        return answered<QString>([=] { return modifyPasswordDataNow(ref, password); }, kTimedOut);
    }
    QString deleteItem(const KeychainItemRef& ref) override {
        return answered<QString>([=] { return deleteItemNow(ref); }, kTimedOut);
    }
    void lock() override {
        answered<bool>([] { return lockDefaultCollection(true), true; }, false);
    }
    void unlock() override {
        answered<bool>([] { return lockDefaultCollection(false), true; }, false);
    }

private:
    static QString modifyAttributeNow(const KeychainItemRef& ref, quint32 tag,
                                      const QByteArray& value) {
        SecretItem* item = itemOf(ref);
        if (!item)
            return kNotFound;
        GError* error = nullptr;
        if (tag == fourCharCode("labl")) {
            secret_item_set_label_sync(item, value.constData(), nullptr, &error);
            return error ? consume(error) : QString();
        }
        const bool internet = static_cast<Handle*>(ref.get())->internet;
        const char* name = attributeName(tag, internet);
        if (!name)
            return QStringLiteral("SECRET_ERROR_NO_SUCH_ATTRIBUTE");
        QByteArray text = value;
        if (tag == fourCharCode("port"))
            text = QByteArray::number(integerValue(value) & 0xffff);
        else if (tag == fourCharCode("ptcl"))
            text = protocolText(integerValue(value)).toLatin1();
        GHashTable* attributes = secret_item_get_attributes(item);
        g_hash_table_replace(attributes, g_strdup(name), g_strdup(text.constData()));
        secret_item_set_attributes_sync(item, nullptr, attributes, nullptr, &error);
        g_hash_table_unref(attributes);
        return error ? consume(error) : QString();
    }

    static QString modifyPasswordDataNow(const KeychainItemRef& ref, const QByteArray& password) {
        SecretItem* item = itemOf(ref);
        if (!item)
            return kNotFound;
        GError* error = nullptr;
        SecretValue* secret = secret_value_new(password.constData(), password.size(), "text/plain");
        secret_item_set_secret_sync(item, secret, nullptr, &error);
        secret_value_unref(secret);
        return error ? consume(error) : QString();
    }

    static QString deleteItemNow(const KeychainItemRef& ref) {
        SecretItem* item = itemOf(ref);
        if (!item)
            return kNotFound;
        GError* error = nullptr;
        return secret_item_delete_sync(item, nullptr, &error) ? QString() : consume(error);
    }

    static void lockDefaultCollection(bool lock) {
        GError* error = nullptr;
        SecretService* secrets = service(&error);
        if (!secrets) {
            consume(error);
            return;
        }
        SecretCollection* collection = secret_collection_for_alias_sync(
            secrets, SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, nullptr, &error);
        if (collection) {
            GList* objects = g_list_append(nullptr, collection);
            if (lock) {
                secret_service_lock_sync(secrets, objects, nullptr, nullptr, &error);
            } else {
                secret_service_unlock_sync(secrets, objects, nullptr, nullptr, &error);
            }
            g_list_free(objects);
            g_object_unref(collection);
        }
        if (error)
            consume(error);
        g_object_unref(secrets);
    }
};

}  // namespace

KeychainStore& KeychainStore::defaultStore() {
    static SecretServiceStore store;
    return store;
}
