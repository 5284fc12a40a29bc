// Desktop notifications. Detection is real; sending comes with the notification work.
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusReply>

#include "agent/AppController.h"

namespace {
const QString kNotificationService = QStringLiteral("org.freedesktop.Notifications");
}

void AppController::sendGrowlNotification(const QString&, const QString&) {}

// Installed means the notification service runs now or the bus can start it on demand.
bool AppController::notificationServiceAvailable() const {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) return false;
    QDBusConnectionInterface* busInterface = bus.interface();
    if (!busInterface) return false;
    if (busInterface->isServiceRegistered(kNotificationService).value()) return true;
    QDBusReply<QStringList> activatable = busInterface->call(
        QStringLiteral("ListActivatableNames"));
    return activatable.isValid() && activatable.value().contains(kNotificationService);
}
