// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

namespace ui {

// Lets the user choose folders in the desktop's folder dialog.
void installFolderDialogPresenter();

}  // namespace ui
