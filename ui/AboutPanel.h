// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

namespace ui {

// The application's about panel: its name, version and icon. Not modal; shown again when asked
// for again.
void orderFrontStandardAboutPanel();

}  // namespace ui
