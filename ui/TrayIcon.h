// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

namespace ui {

// Gives every status item made from now on a tray icon that follows the item's image, alternate
// image (shown while its menu is open) and menu. While the menu is open the default run-loop mode
// is held, so a check never starts under the user's pointer.
void installTrayStatusBar();

}  // namespace ui
