// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/OpenPanel.h"

#include "foundation/RunLoop.h"

namespace foundation {

namespace {

QString cancelled(const QString&) {
    return QString();
}

OpenPanel::Presenter& presenter() {
    static OpenPanel::Presenter current = &cancelled;
    return current;
}

}  // namespace

QString OpenPanel::chooseDirectory(const QString& startFolder) {
    RunLoop::DefaultModeHold hold;
    Presenter show = presenter();
    return show(startFolder);
}

OpenPanel::Presenter OpenPanel::setPresenter(Presenter next) {
    if (!next)
        next = &cancelled;
    Presenter previous = std::move(presenter());
    presenter() = std::move(next);
    return previous;
}

}  // namespace foundation
