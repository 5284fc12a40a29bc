// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/OpenPanel.h"

#include "foundation/RunLoop.h"

namespace foundation {

namespace {

QString cancelled(const QString&) {
    return QString();
}

OpenPanel::Presenter& folderPresenter() {
    static OpenPanel::Presenter current = &cancelled;
    return current;
}

OpenPanel::Presenter& programPresenter() {
    static OpenPanel::Presenter current = &cancelled;
    return current;
}

QString present(const OpenPanel::Presenter& presenter, const QString& start) {
    RunLoop::DefaultModeHold hold;
    // A copy: the presenter may replace itself while it shows.
    OpenPanel::Presenter show = presenter;
    return show(start);
}

OpenPanel::Presenter replace(OpenPanel::Presenter& current, OpenPanel::Presenter next) {
    if (!next)
        next = &cancelled;
    OpenPanel::Presenter previous = std::move(current);
    current = std::move(next);
    return previous;
}

}  // namespace

QString OpenPanel::chooseDirectory(const QString& startFolder) {
    return present(folderPresenter(), startFolder);
}

QString OpenPanel::chooseProgram(const QString& start) {
    return present(programPresenter(), start);
}

OpenPanel::Presenter OpenPanel::setPresenter(Presenter next) {
    return replace(folderPresenter(), std::move(next));
}

OpenPanel::Presenter OpenPanel::setProgramPresenter(Presenter next) {
    return replace(programPresenter(), std::move(next));
}

}  // namespace foundation
