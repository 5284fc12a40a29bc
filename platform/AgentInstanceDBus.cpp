// SPDX-License-Identifier: GPL-3.0-or-later
// The session's agent as a well-known name on the D-Bus session bus, the way Qt and KDE
// programs keep one instance: org.ferrybox.Agent, with one method, ShowPreferences, at
// /org/ferrybox/Agent.
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QObject>

#include "platform/AgentInstance.h"

namespace {

const QString kName = QStringLiteral("org.ferrybox.Agent");
const QString kPath = QStringLiteral("/org/ferrybox/Agent");
// An agent busy with a modal alert still answers from the alert's event loop; one that does not
// answer within this time is taken as stuck.
constexpr int kAnswerTimeoutMs = 5000;

class AgentService : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.ferrybox.Agent")

public:
    // A request that comes before the agent has its window is kept for it.
    void setShowPreferences(std::function<void()> handler) {
        showPreferences_ = std::move(handler);
        if (pending_ && showPreferences_) {
            pending_ = false;
            showPreferences_();
        }
    }

public Q_SLOTS:
    void ShowPreferences() {
        if (showPreferences_)
            showPreferences_();
        else
            pending_ = true;
    }

private:
    std::function<void()> showPreferences_;
    bool pending_ = false;
};

class DBusAgentInstance : public AgentInstance {
public:
    Claim claim() override {
        QDBusConnection bus = QDBusConnection::sessionBus();
        if (!bus.isConnected() || !bus.interface())
            return Unavailable;
        // The object is in place before the name is taken: a later agent may call at once.
        if (!bus.registerObject(kPath, &service_, QDBusConnection::ExportAllSlots))
            return Unavailable;
        const auto reply =
            bus.interface()->registerService(kName, QDBusConnectionInterface::DontQueueService,
                                             QDBusConnectionInterface::DontAllowReplacement);
        if (reply.isValid() && reply.value() == QDBusConnectionInterface::ServiceRegistered)
            return Claimed;
        bus.unregisterObject(kPath);
        return reply.isValid() ? RunningElsewhere : Unavailable;
    }

    void setShowPreferences(std::function<void()> handler) override {
        service_.setShowPreferences(std::move(handler));
    }

    bool showRunningAgent() override {
        const QDBusMessage call =
            QDBusMessage::createMethodCall(kName, kPath, kName, QStringLiteral("ShowPreferences"));
        const QDBusMessage reply =
            QDBusConnection::sessionBus().call(call, QDBus::Block, kAnswerTimeoutMs);
        return reply.type() == QDBusMessage::ReplyMessage;
    }

private:
    AgentService service_;
};

}  // namespace

// Never destroyed: the bus may still refer to its object while the process ends.
AgentInstance& AgentInstance::session() {
    static auto* instance = new DBusAgentInstance();
    return *instance;
}

#include "AgentInstanceDBus.moc"
