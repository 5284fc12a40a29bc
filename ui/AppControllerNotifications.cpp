// SPDX-License-Identifier: GPL-3.0-or-later
// Desktop notifications: one entry point turns an event word and a detail into a notification
// titled "Ferrybox", filed under the event's name.
#include <QCheckBox>

#include "agent/AppController.h"
#include "client/LWSNObject.h"
#include "ui/DesktopNotifications.h"

void AppController::sendGrowlNotification(const QString& kind, const QString& detail) {
    if (!growlInstalled_ || !useGrowlButton_->isChecked())
        return;
    // An unknown word still notifies, with an empty name and an empty text.
    QString name;
    QString description;
    if (kind == QLatin1String("checking")) {
        name = QStringLiteral("Checking for downloads");
        description = QStringLiteral("Checking for new downloads");
    } else if (kind == QLatin1String("downloading")) {
        name = QStringLiteral("Downloading file");
        description = QStringLiteral("Downloading: %1").arg(LWSNObject::orNullText(detail));
    } else if (kind == QLatin1String("download complete")) {
        name = QStringLiteral("Download complete");
        description = QStringLiteral("Download complete: %1").arg(LWSNObject::orNullText(detail));
    } else if (kind == QLatin1String("error")) {
        name = QStringLiteral("Error");
        description = QStringLiteral("Error: %1").arg(LWSNObject::orNullText(detail));
    }
    // A check every few minutes would fill the desktop's history: its notice shows and goes.
    ui::DesktopNotifications::show(QStringLiteral("Ferrybox"), description, name,
                                   kind == QLatin1String("checking")
                                       ? ui::DesktopNotifications::Transient
                                       : ui::DesktopNotifications::Kept);
}

bool AppController::notificationServiceAvailable() const {
    return ui::DesktopNotifications::isAvailable();
}
