// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QMenu>
#include <functional>

namespace ui {

// The tray's own menu, kept equal to the controller's newest one.
//
// The controller builds a new menu on every change of its state, a running download's every
// piece of data included, and lets the previous one go. A desktop's tray cannot follow that:
// Qt's D-Bus tray keeps a pointer into the menu it was given (it exports it over dbusmenu) and
// touches it again at the next change, after the controller has deleted it. So the tray is given
// this one menu, which lives as long as the tray, and every change is copied into it item by
// item. An item that stays where it was keeps its identity, so a panel showing the menu while
// progress changes reads the new texts and its clicks still reach the right command.
//
// A chosen item sends the action of the command of the same text in the controller's current
// menu (the copy may be up to a tenth of a second older), as work of the default run-loop mode,
// as a menu's choice is on the Mac: after the menu has closed, and not while the mode is held. A
// panel that waits for the answer to its click is not held up by an alert that the action
// opens.
class TrayMenuMirror {
public:
    // currentSource answers the controller's newest menu.
    explicit TrayMenuMirror(std::function<const QMenu*()> currentSource);
    ~TrayMenuMirror();
    TrayMenuMirror(const TrayMenuMirror&) = delete;
    TrayMenuMirror& operator=(const TrayMenuMirror&) = delete;

    QMenu* menu() { return &menu_; }

    // Copies the source's items (texts, enabled states, separators, submenus) into menu().
    // A null source empties it.
    void mirror(const QMenu* source);

    // How a text has to be written so that the tray shows it exactly as the controller built it:
    // an XEmbed tray shows this menu as a Qt menu, which takes "&" as a mnemonic mark; a D-Bus
    // tray hands it to the panel as a dbusmenu label, where "_" is the mark.
    static QString label(const QString& text, bool exportedOverDBus);

    // Called when a person chooses an item, before its action runs; and on any other sign of
    // life from the open menu (a submenu opened, an item hovered).
    std::function<void()> onChosen;
    std::function<void()> onActivity;

private:
    void mirrorInto(QMenu* target, const QMenu* source, bool exportedOverDBus);
    QAction* copyOf(QMenu* target, QAction* item, bool exportedOverDBus);
    void update(QAction* copy, QAction* item, bool exportedOverDBus);
    void choose(QAction* copy);
    void watch(QMenu* menu);

    std::function<const QMenu*()> currentSource_;
    // Each copy keeps the text it was made from as its data.
    QMenu menu_;
};

}  // namespace ui
