// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>

class QCheckBox;

// Owns the open-at-login checkbox and its action: it lists Ferrybox among the programs the
// desktop starts at login, or takes it off, and records the choice in "openAtLogin". The list
// and the setting are not reconciled: at start-up the checkbox shows the setting.
class LoginItemController : public QObject {
public:
    QCheckBox* openAtLoginButton() const { return openAtLoginButton_; }
    void setOpenAtLoginButton(QCheckBox* button) { openAtLoginButton_ = button; }

    void addToLoginItems(QObject* sender);

private:
    QCheckBox* openAtLoginButton_ = nullptr;
};
