// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

namespace ui {

// Lets the user choose folders and programs in the desktop's file dialogs.
void installFileDialogPresenters();

}  // namespace ui
