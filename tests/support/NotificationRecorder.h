// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include "tests/support/QtPrinters.h"

namespace testsupport {

struct RecordedNotification {
    QString appName;
    QString appIcon;
    QString summary;
    QString body;
    QStringList actions;
    QVariantMap hints;
    int expireTimeout = 0;
};

// The desktop's notification service as the tests see it: it owns org.freedesktop.Notifications
// on the session bus (the private one of the test process), on a connection of its own, and
// records every notification instead of showing it.
class NotificationRecorder : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")

public:
    // capabilities: what GetCapabilities answers.
    explicit NotificationRecorder(const QStringList& capabilities = {QStringLiteral("body")});
    ~NotificationRecorder() override;

    bool isRegistered() const { return registered_; }
    const QList<RecordedNotification>& notifications() const { return notifications_; }
    void clear() { notifications_.clear(); }

public Q_SLOTS:
    uint Notify(const QString& appName, uint replacesId, const QString& appIcon,
                const QString& summary, const QString& body, const QStringList& actions,
                const QVariantMap& hints, int expireTimeout);
    QStringList GetCapabilities() const;

private:
    QString connectionName_;
    bool registered_ = false;
    QList<RecordedNotification> notifications_;
    QStringList capabilities_;
};

}  // namespace testsupport
