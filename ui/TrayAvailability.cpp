// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/TrayAvailability.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusServiceWatcher>
#include <QDBusVariant>
#include <QGuiApplication>
#include <QSystemTrayIcon>

namespace ui {

namespace {

const QString kWatcher = QStringLiteral("org.kde.StatusNotifierWatcher");
const QString kWatcherPath = QStringLiteral("/StatusNotifierWatcher");
constexpr int kBusTimeoutMs = 2000;
constexpr int kXTrayPollMs = 2000;

QDBusMessage hostRegisteredQuery() {
    QDBusMessage call = QDBusMessage::createMethodCall(
        kWatcher, kWatcherPath, QStringLiteral("org.freedesktop.DBus.Properties"),
        QStringLiteral("Get"));
    call << kWatcher << QStringLiteral("IsStatusNotifierHostRegistered");
    call.setAutoStartService(false);
    return call;
}

bool hostRegistered(const QDBusMessage& reply) {
    return reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty() &&
           reply.arguments().first().value<QDBusVariant>().variant().toBool();
}

}  // namespace

TrayAvailability::TrayAvailability(QObject* parent) : QObject(parent) {
    QDBusConnection bus = QDBusConnection::sessionBus();
    viaBus_ = bus.isConnected() &&
              hostRegistered(bus.call(hostRegisteredQuery(), QDBus::Block, kBusTimeoutMs));
    // Qt decides by the same question, asked right here.
    const bool qtSees = QSystemTrayIcon::isSystemTrayAvailable();
    available_ = viaBus_ || qtSees;
    if (viaBus_) {
        auto* watcher =
            new QDBusServiceWatcher(kWatcher, bus, QDBusServiceWatcher::WatchForOwnerChange, this);
        QObject::connect(watcher, &QDBusServiceWatcher::serviceOwnerChanged, this,
                         &TrayAvailability::recheck);
        for (const char* signal :
             {"StatusNotifierHostRegistered", "StatusNotifierHostUnregistered"}) {
            bus.connect(kWatcher, kWatcherPath, kWatcher, QString::fromLatin1(signal), this,
                        SLOT(recheck()));
        }
        return;
    }
    // Qt's X11 platform tells of a tray that comes or goes with a signal of its native interface
    // (a QObject, though its class is not public); it is what Qt docks the icon on, so the two
    // agree at once. Asking every two seconds covers the rest.
    if (QGuiApplication::platformName() == QLatin1String("xcb")) {
        auto* native = reinterpret_cast<QObject*>(QGuiApplication::platformNativeInterface());
        QObject::connect(native, SIGNAL(systemTrayWindowChanged(QScreen*)), this, SLOT(recheck()));
    }
    poll_.setInterval(kXTrayPollMs);
    QObject::connect(&poll_, &QTimer::timeout, this, &TrayAvailability::recheck);
    poll_.start();
}

void TrayAvailability::recheck() {
    if (!viaBus_) {
        setAvailable(QSystemTrayIcon::isSystemTrayAvailable());
        return;
    }
    auto* pending = new QDBusPendingCallWatcher(
        QDBusConnection::sessionBus().asyncCall(hostRegisteredQuery(), kBusTimeoutMs), this);
    QObject::connect(pending, &QDBusPendingCallWatcher::finished, this,
                     [this](QDBusPendingCallWatcher* call) {
                         call->deleteLater();
                         setAvailable(hostRegistered(call->reply()));
                     });
}

void TrayAvailability::setAvailable(bool available) {
    if (available == available_)
        return;
    available_ = available;
    Q_EMIT availabilityChanged(available);
}

}  // namespace ui
