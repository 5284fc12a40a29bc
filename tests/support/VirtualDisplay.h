// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <sys/types.h>
#include <QImage>
#include <QRect>
#include <QString>
#include <QStringList>
#include <cstdint>
#include <optional>
#include <vector>

#include "tests/support/QtPrinters.h"

struct xcb_connection_t;

namespace testsupport {

// An X display of the test's own: an Xvfb server on a free display number, with no window
// manager, and the few things a person does on a desktop, done the way the desktop does them
// (closing a window asks it through WM_DELETE_WINDOW; pointer and keys go through the X server's
// XTEST, driven by xdotool). The server dies with the test process, even one that crashes.
class VirtualDisplay {
public:
    using Window = std::uint32_t;

    VirtualDisplay();
    ~VirtualDisplay();
    VirtualDisplay(const VirtualDisplay&) = delete;
    VirtualDisplay& operator=(const VirtualDisplay&) = delete;

    // ":N"; empty when the server could not be started.
    QString name() const { return name_; }
    bool isRunning() const { return !name_.isEmpty(); }
    // Paints the desktop's background in this colour (0xRRGGBB).
    void setBackground(std::uint32_t rgb);
    // Ends the server at once, as a session that ends takes its display away.
    void kill();

    // Mapped windows (not pop-ups) whose title is this, anywhere in the window tree.
    std::vector<Window> viewableWindowsTitled(const QString& title);
    // Whether the window exists and is not withdrawn (mapped; minimised counts as mapped).
    bool isViewable(Window window);
    // Whether an XEmbed tray (a system tray manager) serves the screen.
    bool hasTrayManager();
    // Whether the window asks to be shown minimised (iconic), as a window manager reads it.
    bool isMinimized(Window window);
    // The window that a tray's client embeds (it carries _XEMBED_INFO), mapped; none when no
    // icon is docked.
    std::optional<Window> dockedTrayIcon();
    // Mapped pop-ups: a menu, a submenu beside it.
    std::vector<Window> popupMenus();
    // The window's place on the screen.
    QRect geometry(Window window);
    // Asks the window to close, as a window manager's close button does.
    void requestClose(Window window);
    // What the screen shows in this rectangle, cut to the screen.
    QImage grab(const QRect& area);

    // Runs xdotool with these arguments on this display; true when it succeeded.
    bool xdotool(const QStringList& arguments);
    // A click (button 1 left, 3 right) in the middle of the window.
    bool click(Window window, int button = 1);

private:
    bool connect();
    std::vector<Window> children(Window parent);
    std::vector<Window> descendants(Window ancestor);
    std::uint32_t atom(const char* name);
    bool isPopup(Window window);
    QString title(Window window);

    pid_t pid_ = -1;
    QString name_;
    xcb_connection_t* connection_ = nullptr;
    Window root_ = 0;
};

}  // namespace testsupport
