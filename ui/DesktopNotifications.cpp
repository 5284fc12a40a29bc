// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/DesktopNotifications.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusReply>
#include <QVariantMap>
#include <deque>

namespace ui {

namespace {
const QString kService = QStringLiteral("org.freedesktop.Notifications");
const QString kPath = QStringLiteral("/org/freedesktop/Notifications");
// The desktop entry and the icon in the theme share the executable's name.
const QString kDesktopEntry = QStringLiteral("ferrybox");
constexpr int kCapabilitiesTimeoutMs = 1000;

// The few characters that markup gives a meaning to.
QString escaped(const QString& text) {
    QString out = text;
    out.replace(QLatin1Char('&'), QStringLiteral("&amp;"));
    out.replace(QLatin1Char('<'), QStringLiteral("&lt;"));
    out.replace(QLatin1Char('>'), QStringLiteral("&gt;"));
    return out;
}

struct Notice {
    QString title;
    QString body;
    QVariantMap hints;
};

// Sends notices in order, each body written for the service that shows it: whether it reads
// markup in bodies is asked once of each service that owns the name, without waiting; what is
// to be sent meanwhile waits for the answer.
class Sender : public QObject {
public:
    static Sender& instance() {
        static auto* sender = new Sender();  // as long as the process: the bus may answer late
        return *sender;
    }

    void send(Notice notice) {
        QDBusConnection bus = QDBusConnection::sessionBus();
        if (!bus.isConnected() || !bus.interface())
            return;
        const QString owner = bus.interface()->serviceOwner(kService).value();
        if (owner != owner_) {
            owner_ = owner;
            askCapabilities(bus);
        }
        waiting_.push_back(std::move(notice));
        if (!asking_)
            sendWaiting();
    }

private:
    void askCapabilities(QDBusConnection& bus) {
        asking_ = true;
        const QDBusMessage call = QDBusMessage::createMethodCall(kService, kPath, kService,
                                                                 QStringLiteral("GetCapabilities"));
        auto* answer =
            new QDBusPendingCallWatcher(bus.asyncCall(call, kCapabilitiesTimeoutMs), this);
        QObject::connect(answer, &QDBusPendingCallWatcher::finished, this,
                         [this](QDBusPendingCallWatcher* finished) {
                             finished->deleteLater();
                             const QDBusReply<QStringList> capabilities = finished->reply();
                             markup_ = capabilities.isValid() &&
                                       capabilities.value().contains(QStringLiteral("body-markup"));
                             asking_ = false;
                             sendWaiting();
                         });
    }

    void sendWaiting() {
        QDBusConnection bus = QDBusConnection::sessionBus();
        for (const Notice& notice : waiting_) {
            QDBusMessage call =
                QDBusMessage::createMethodCall(kService, kPath, kService, QStringLiteral("Notify"));
            call << notice.title << uint(0) << kDesktopEntry << notice.title
                 << (markup_ ? escaped(notice.body) : notice.body) << QStringList() << notice.hints
                 << int(-1);
            bus.send(call);
        }
        waiting_.clear();
    }

    QString owner_;
    bool asking_ = false;
    bool markup_ = false;
    std::deque<Notice> waiting_;
};

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

void DesktopNotifications::show(const QString& title, const QString& body, const QString& eventName,
                                Persistence persistence) {
    QVariantMap hints{
        {QStringLiteral("desktop-entry"), kDesktopEntry},
        {QStringLiteral("urgency"), QVariant::fromValue<uchar>(persistence == Transient ? 0 : 1)},
        {QStringLiteral("x-ferrybox-notification-name"), eventName},
    };
    if (persistence == Transient)
        hints.insert(QStringLiteral("transient"), true);
    Sender::instance().send({title, body, hints});
}

}  // namespace ui
