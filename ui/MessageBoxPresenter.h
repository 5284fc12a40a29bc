// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

namespace ui {

// Shows alerts as modal message boxes.
void installMessageBoxPresenter();

}  // namespace ui
