// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>
#include <functional>

class QWidget;

namespace ui {

class TrayAvailability;

// Without a tray there is no icon and no menu: the preferences window is the agent's only face.
// While the desktop shows no tray, the window says why at its top (with a Quit button), shows at
// start-up and when a tray goes away, and is never withdrawn: whatever would hide it (its close
// button, a login that succeeds) minimises it instead, so it stays in the desktop's task list and
// overview, and starting Ferrybox again brings it back (the session's one agent shows it).
class NoTrayFallback : public QObject {
public:
    NoTrayFallback(TrayAvailability& tray, QWidget& window, QWidget& notice,
                   std::function<void()> showWindow);
    ~NoTrayFallback() override;

    // At the end of start-up.
    void start();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void trayChanged(bool available);

    TrayAvailability& tray_;
    QWidget& window_;
    QWidget& notice_;
    std::function<void()> showWindow_;
};

}  // namespace ui
