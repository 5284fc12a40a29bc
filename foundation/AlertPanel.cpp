// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/AlertPanel.h"

#include "foundation/Log.h"
#include "foundation/RunLoop.h"

namespace foundation {

namespace {

AlertPanel::Presenter& presenter() {
    static AlertPanel::Presenter current = &AlertPanel::logAndAnswerDefault;
    return current;
}

}  // namespace

AlertPanel::Response AlertPanel::runModal(const Alert& alert) {
    RunLoop::DefaultModeHold hold;
    Presenter show = presenter();
    return show(alert);
}

AlertPanel::Presenter AlertPanel::setPresenter(Presenter next) {
    if (!next)
        next = &AlertPanel::logAndAnswerDefault;
    Presenter previous = std::move(presenter());
    presenter() = std::move(next);
    return previous;
}

AlertPanel::Response AlertPanel::logAndAnswerDefault(const Alert& alert) {
    log(QStringLiteral("alert: %1: %2").arg(alert.title, alert.message));
    return DefaultReturn;
}

}  // namespace foundation
