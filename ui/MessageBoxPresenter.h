#pragma once

namespace ui {

// Shows alerts as modal message boxes.
void installMessageBoxPresenter();

}  // namespace ui
