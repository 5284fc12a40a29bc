// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

// The programs the desktop starts when the user logs in. LoginItemsList::sessionLoginItems()
// picks the list of this system: on Linux the XDG autostart folder, $XDG_CONFIG_HOME/autostart,
// where Ferrybox's entry is the file ferrybox.desktop.
class LoginItemsList {
public:
    virtual ~LoginItemsList() = default;
    static LoginItemsList& sessionLoginItems();

    // Lists the program at this absolute path, at the end of the list; when it is listed already
    // the existing item is answered and the list is left as it is. The answer identifies the item
    // for removeItem(); empty when nothing could be listed.
    virtual QString insertItemURL(const QString& programPath) = 0;
    virtual void removeItem(const QString& item) = 0;
};
