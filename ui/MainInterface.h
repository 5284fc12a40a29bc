// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QMainWindow>
#include <QMenu>
#include <memory>

#include "agent/AppController.h"
#include "platform/LoginItemController.h"
#include "ui/PrefWindowDelegate.h"

namespace Ui {
class PreferencesWindow;
}

// What the application's interface definition holds: the preferences window built from
// PreferencesWindow.ui, the controller with every outlet connected, the window's delegate and
// the login-item controller. Loading it connects the controls' actions; awakeFromNib() is left
// to the caller.
class MainInterface {
public:
    MainInterface();
    ~MainInterface();

    AppController& controller() { return controller_; }
    QMainWindow& window() { return window_; }
    PrefWindowDelegate& windowDelegate() { return delegate_; }
    LoginItemController& loginItemController() { return loginItems_; }
    // Shown at the top of the window while the desktop has no tray: why there is no icon, and
    // a Quit button.
    QWidget& noTrayNotice();

private:
    void connectOutlets();
    void connectActions();
    QList<QAction*> paneActions() const;
    void showPane(int index);

    QMainWindow window_;
    // The application menu outlet: an unparented menu that nothing shows. A menu bar holding only
    // it would be empty, and the tray has a menu of its own.
    QMenu appMenu_;
    std::unique_ptr<Ui::PreferencesWindow> form_;
    AppController controller_;
    PrefWindowDelegate delegate_;
    LoginItemController loginItems_;
};
