// The status menu. For now the item keeps the image it was given at start-up; the menu built
// from the agent's state comes with the download list.
#include <QApplication>
#include <QScreen>
#include <QWidget>

#include "agent/AppController.h"

void AppController::updateMenu() {}

void AppController::showPreferences(QObject*) {
    if (const QScreen* screen = prefsWindow_->screen()) {
        QRect frame = prefsWindow_->frameGeometry();
        frame.moveCenter(screen->availableGeometry().center());
        prefsWindow_->move(frame.topLeft());
    }
    prefsWindow_->show();
    prefsWindow_->raise();
    prefsWindow_->activateWindow();
}
