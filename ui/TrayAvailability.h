// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>
#include <QTimer>

namespace ui {

// Whether the desktop shows tray icons now, and word when that changes (a panel started or
// closed after the agent).
//
// Qt shows the icon through one of two kinds of tray, chosen once per process when it first
// looks: a StatusNotifierItem host on the session bus when one is registered then, else an
// XEmbed system tray on the X display. Only the chosen kind can show the icon, so only that kind
// is watched: the bus's watcher service and its host signals, or the X display's tray.
class TrayAvailability : public QObject {
    Q_OBJECT

public:
    // Makes Qt choose its kind of tray now, and watches that kind.
    explicit TrayAvailability(QObject* parent = nullptr);

    bool isAvailable() const { return available_; }

Q_SIGNALS:
    void availabilityChanged(bool available);

private Q_SLOTS:
    void recheck();

private:
    void setAvailable(bool available);

    bool viaBus_ = false;
    bool available_ = false;
    QTimer poll_;
};

}  // namespace ui
