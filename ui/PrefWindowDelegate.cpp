// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/PrefWindowDelegate.h"

#include <QCloseEvent>
#include <QWidget>

void PrefWindowDelegate::attachTo(QWidget* window) {
    window->installEventFilter(this);
}

bool PrefWindowDelegate::windowShouldClose(QWidget* window) {
    window->hide();
    return false;
}

bool PrefWindowDelegate::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() == QEvent::Close && watched->isWidgetType()) {
        if (!windowShouldClose(static_cast<QWidget*>(watched))) {
            event->ignore();
            return true;
        }
    }
    return QObject::eventFilter(watched, event);
}
