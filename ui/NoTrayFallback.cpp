// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/NoTrayFallback.h"

#include <QEvent>
#include <QTimer>
#include <QWidget>

#include "ui/TrayAvailability.h"

namespace ui {

NoTrayFallback::NoTrayFallback(TrayAvailability& tray, QWidget& window, QWidget& notice,
                               std::function<void()> showWindow)
    : tray_(tray), window_(window), notice_(notice), showWindow_(std::move(showWindow)) {
    QObject::connect(&tray_, &TrayAvailability::availabilityChanged, this,
                     [this](bool available) { trayChanged(available); });
    window_.installEventFilter(this);
}

NoTrayFallback::~NoTrayFallback() {
    window_.removeEventFilter(this);
}

void NoTrayFallback::start() {
    if (!tray_.isAvailable())
        trayChanged(false);
}

void NoTrayFallback::trayChanged(bool available) {
    notice_.setVisible(!available);
    if (available)
        return;
    // Room for the notice, however the window was sized before.
    window_.resize(window_.size().expandedTo(window_.sizeHint()));
    showWindow_();
}

// A hide asked for by the program itself is turned into minimising, once it is done; one that
// the desktop reports (the window minimised) is left alone.
bool NoTrayFallback::eventFilter(QObject* watched, QEvent* event) {
    if (watched == &window_ && event->type() == QEvent::Hide && !event->spontaneous() &&
        !tray_.isAvailable()) {
        QTimer::singleShot(0, &window_, [this] {
            if (!window_.isVisible() && !tray_.isAvailable())
                window_.showMinimized();
        });
    }
    return QObject::eventFilter(watched, event);
}

}  // namespace ui
