// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/support/StatusNotifierHost.h"

#include <unistd.h>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QDir>
#include <QIcon>
#include <QImage>
#include <QtEndian>

namespace testsupport {

struct StatusNotifierHost::MenuNode {
    int id = 0;
    QVariantMap properties;
    QList<MenuNode> children;
};

namespace {

const QString kWatcher = QStringLiteral("org.kde.StatusNotifierWatcher");
const QString kItemInterface = QStringLiteral("org.kde.StatusNotifierItem");
const QString kMenuInterface = QStringLiteral("com.canonical.dbusmenu");
const QString kProperties = QStringLiteral("org.freedesktop.DBus.Properties");

using MenuNode = StatusNotifierHost::MenuNode;

// A dbusmenu layout node: (ia{sv}av), each child a variant holding another node.
void readNode(const QDBusArgument& argument, MenuNode& node) {
    argument.beginStructure();
    argument >> node.id >> node.properties;
    argument.beginArray();
    while (!argument.atEnd()) {
        QDBusVariant child;
        argument >> child;
        MenuNode childNode;
        readNode(child.variant().value<QDBusArgument>(), childNode);
        node.children << childNode;
    }
    argument.endArray();
    argument.endStructure();
}

// What a panel draws for a dbusmenu label: "__" is one underscore, any other underscore only
// marks the access key and is not shown.
QString shownLabel(const QString& label) {
    QString out;
    for (qsizetype i = 0; i < label.size(); ++i) {
        if (label[i] != QLatin1Char('_')) {
            out += label[i];
        } else if (i + 1 < label.size() && label[i + 1] == QLatin1Char('_')) {
            out += QLatin1Char('_');
            ++i;
        }
    }
    return out;
}

bool isVisible(const MenuNode& node) {
    return node.properties.value(QStringLiteral("visible"), true).toBool();
}

void addLines(const MenuNode& menu, const QString& indent, QStringList& lines) {
    for (const MenuNode& item : menu.children) {
        if (!isVisible(item))
            continue;
        if (item.properties.value(QStringLiteral("type")).toString() ==
            QLatin1String("separator")) {
            lines << indent + QStringLiteral("-");
            continue;
        }
        const QString label = shownLabel(item.properties.value(QStringLiteral("label")).toString());
        const bool enabled = item.properties.value(QStringLiteral("enabled"), true).toBool();
        lines << indent + (enabled ? label : QStringLiteral("[%1]").arg(label));
        addLines(item, indent + QStringLiteral("  "), lines);
    }
}

int findId(const MenuNode& menu, const QString& label) {
    for (const MenuNode& item : menu.children) {
        if (isVisible(item) &&
            shownLabel(item.properties.value(QStringLiteral("label")).toString()) == label) {
            return item.id;
        }
        if (const int id = findId(item, label))
            return id;
    }
    return 0;
}

// The 16-pixel image of an IconPixmap property, a(iiay) of ARGB32 in network byte order.
QImage smallImage(const QDBusArgument& argument) {
    QImage found;
    argument.beginArray();
    while (!argument.atEnd()) {
        int width = 0;
        int height = 0;
        QByteArray data;
        argument.beginStructure();
        argument >> width >> height >> data;
        argument.endStructure();
        if (width != 16 || height != 16 || data.size() != 16 * 16 * 4)
            continue;
        found = QImage(16, 16, QImage::Format_ARGB32);
        qFromBigEndian<quint32>(data.constData(), 16 * 16, found.bits());
    }
    argument.endArray();
    return found;
}

}  // namespace

StatusNotifierHost::StatusNotifierHost(const QString& imageFolder)
    : connectionName_(
          QStringLiteral("status-notifier-host-%1").arg(reinterpret_cast<quintptr>(this), 0, 16)),
      imageFolder_(imageFolder) {
    const QString address = qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS");
    QDBusConnection bus = QDBusConnection::connectToBus(address, connectionName_);
    registered_ =
        bus.isConnected() &&
        bus.registerObject(QStringLiteral("/StatusNotifierWatcher"), this,
                           QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals |
                               QDBusConnection::ExportAllProperties) &&
        bus.registerService(QStringLiteral("org.kde.StatusNotifierHost-%1").arg(getpid())) &&
        bus.registerService(kWatcher);
}

StatusNotifierHost::~StatusNotifierHost() {
    unregister();
    QDBusConnection::disconnectFromBus(connectionName_);
}

void StatusNotifierHost::unregister() {
    if (!registered_)
        return;
    QDBusConnection bus(connectionName_);
    bus.unregisterService(kWatcher);
    bus.unregisterObject(QStringLiteral("/StatusNotifierWatcher"));
    registered_ = false;
    itemService_.clear();
}

// An item names either its bus name (its object then sits at the usual path) or its path on
// the caller's connection.
void StatusNotifierHost::RegisterStatusNotifierItem(const QString& service,
                                                    const QDBusMessage& message) {
    if (service.startsWith(QLatin1Char('/'))) {
        itemService_ = message.service();
        itemPath_ = service;
    } else {
        itemService_ = service;
        itemPath_ = QStringLiteral("/StatusNotifierItem");
    }
    Q_EMIT StatusNotifierItemRegistered(itemService_ + itemPath_);
}

void StatusNotifierHost::RegisterStatusNotifierHost(const QString&) {}

QStringList StatusNotifierHost::registeredItems() const {
    return hasItem() ? QStringList{itemService_ + itemPath_} : QStringList{};
}

QVariant StatusNotifierHost::itemProperty(const QString& name) const {
    QDBusMessage call =
        QDBusMessage::createMethodCall(itemService_, itemPath_, kProperties, QStringLiteral("Get"));
    call << kItemInterface << name;
    const QDBusMessage reply = QDBusConnection(connectionName_).call(call, QDBus::Block, 5000);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return QVariant();
    return reply.arguments().first().value<QDBusVariant>().variant();
}

QString StatusNotifierHost::iconName() {
    if (!hasItem())
        return QString();
    const QImage shown =
        smallImage(itemProperty(QStringLiteral("IconPixmap")).value<QDBusArgument>());
    if (shown.isNull())
        return QStringLiteral("?");
    const QStringList names = QDir(imageFolder_).entryList({QStringLiteral("*.png")});
    for (const QString& name : names) {
        const QImage image = QIcon(QDir(imageFolder_).filePath(name))
                                 .pixmap(16, 16)
                                 .toImage()
                                 .convertToFormat(QImage::Format_ARGB32);
        if (image == shown)
            return name;
    }
    return QStringLiteral("?");
}

QDBusMessage StatusNotifierHost::menuMessage(const QString& method,
                                             const QVariantList& arguments) const {
    const QString path = itemProperty(QStringLiteral("Menu")).value<QDBusObjectPath>().path();
    QDBusMessage call = QDBusMessage::createMethodCall(itemService_, path, kMenuInterface, method);
    call.setArguments(arguments);
    return call;
}

QDBusMessage StatusNotifierHost::menuCall(const QString& method,
                                          const QVariantList& arguments) const {
    return QDBusConnection(connectionName_)
        .call(menuMessage(method, arguments), QDBus::Block, 5000);
}

bool StatusNotifierHost::readLayout(MenuNode& root) const {
    if (!hasItem())
        return false;
    const QDBusMessage reply = menuCall(QStringLiteral("GetLayout"), {0, -1, QStringList()});
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() < 2)
        return false;
    readNode(reply.arguments().at(1).value<QDBusArgument>(), root);
    return true;
}

QStringList StatusNotifierHost::menuLines() {
    MenuNode root;
    QStringList lines;
    if (readLayout(root))
        addLines(root, QString(), lines);
    return lines;
}

// A panel does not wait for the application to act on a click: the event is sent, not called.
bool StatusNotifierHost::click(const QString& label) {
    MenuNode root;
    const int id = readLayout(root) ? findId(root, label) : 0;
    if (id == 0)
        return false;
    return QDBusConnection(connectionName_)
        .send(menuMessage(
            QStringLiteral("Event"),
            {id, QStringLiteral("clicked"), QVariant::fromValue(QDBusVariant(0)), uint(0)}));
}

void StatusNotifierHost::openMenu() {
    menuCall(QStringLiteral("AboutToShow"), {0});
    menuCall(QStringLiteral("Event"),
             {0, QStringLiteral("opened"), QVariant::fromValue(QDBusVariant(0)), uint(0)});
}

void StatusNotifierHost::closeMenu() {
    menuCall(QStringLiteral("Event"),
             {0, QStringLiteral("closed"), QVariant::fromValue(QDBusVariant(0)), uint(0)});
}

void StatusNotifierHost::activate() {
    QDBusMessage call = QDBusMessage::createMethodCall(itemService_, itemPath_, kItemInterface,
                                                       QStringLiteral("Activate"));
    call << 0 << 0;
    QDBusConnection(connectionName_).send(call);
}

}  // namespace testsupport
