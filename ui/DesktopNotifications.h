// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

namespace ui {

// The desktop's notification service, org.freedesktop.Notifications on the session bus.
class DesktopNotifications {
public:
    // Whether the service runs now or the bus can start it on demand.
    static bool isAvailable();
    // Shows one notification under the application's name and icon. The name of the kind of
    // event travels as the hint "x-ferrybox-notification-name". A transient one is shown with
    // low urgency and not kept in the desktop's history. The body is shown as the text it is,
    // escaped for a service that reads markup in bodies. Nothing waits for the answer, and a
    // service that is gone or refuses is not reported.
    enum Persistence { Kept, Transient };
    static void show(const QString& title, const QString& body, const QString& eventName,
                     Persistence persistence = Kept);
};

}  // namespace ui
