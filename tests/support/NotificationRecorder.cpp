// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/support/NotificationRecorder.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>

namespace testsupport {

namespace {
const QString kService = QStringLiteral("org.freedesktop.Notifications");
}

NotificationRecorder::NotificationRecorder(const QStringList& capabilities)
    : connectionName_(
          QStringLiteral("notification-recorder-%1").arg(reinterpret_cast<quintptr>(this), 0, 16)),
      capabilities_(capabilities) {
    const QString address = qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS");
    QDBusConnection bus = QDBusConnection::connectToBus(address, connectionName_);
    registered_ = bus.isConnected() &&
                  bus.registerObject(QStringLiteral("/org/freedesktop/Notifications"), this,
                                     QDBusConnection::ExportAllSlots) &&
                  bus.registerService(kService);
}

NotificationRecorder::~NotificationRecorder() {
    {
        QDBusConnection bus(connectionName_);
        bus.unregisterService(kService);
        bus.unregisterObject(QStringLiteral("/org/freedesktop/Notifications"));
    }
    QDBusConnection::disconnectFromBus(connectionName_);
}

uint NotificationRecorder::Notify(const QString& appName, uint, const QString& appIcon,
                                  const QString& summary, const QString& body,
                                  const QStringList& actions, const QVariantMap& hints,
                                  int expireTimeout) {
    notifications_.append(
        RecordedNotification{appName, appIcon, summary, body, actions, hints, expireTimeout});
    return static_cast<uint>(notifications_.size());
}

QStringList NotificationRecorder::GetCapabilities() const {
    return capabilities_;
}

}  // namespace testsupport
