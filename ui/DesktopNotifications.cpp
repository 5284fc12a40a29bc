#include "ui/DesktopNotifications.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QVariantMap>

namespace ui {

namespace {
const QString kService = QStringLiteral("org.freedesktop.Notifications");
const QString kPath = QStringLiteral("/org/freedesktop/Notifications");
// The desktop entry and the icon in the theme share the executable's name.
const QString kDesktopEntry = QStringLiteral("ferrybox");
}  // namespace

bool DesktopNotifications::isAvailable() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return false;
    QDBusConnectionInterface* busInterface = bus.interface();
    if (!busInterface)
        return false;
    if (busInterface->isServiceRegistered(kService).value())
        return true;
    QDBusReply<QStringList> activatable =
        busInterface->call(QStringLiteral("ListActivatableNames"));
    return activatable.isValid() && activatable.value().contains(kService);
}

void DesktopNotifications::show(const QString& title, const QString& body,
                                const QString& eventName) {
    QDBusMessage call =
        QDBusMessage::createMethodCall(kService, kPath, kService, QStringLiteral("Notify"));
    const QVariantMap hints{
        {QStringLiteral("desktop-entry"), kDesktopEntry},
        {QStringLiteral("urgency"), QVariant::fromValue<uchar>(1)},  // normal
        {QStringLiteral("x-ferrybox-notification-name"), eventName},
    };
    call << title << uint(0) << kDesktopEntry << title << body << QStringList() << hints << int(-1);
    QDBusConnection::sessionBus().send(call);
}

}  // namespace ui
