// SPDX-License-Identifier: GPL-3.0-or-later
#include "agent/StatusItem.h"

void StatusItem::setImage(const QString& name) {
    image_ = name;
    changed();
}

void StatusItem::setAlternateImage(const QString& name) {
    alternateImage_ = name;
    changed();
}

void StatusItem::setHighlightMode(bool on) {
    highlightMode_ = on;
    changed();
}

void StatusItem::setEnabled(bool on) {
    enabled_ = on;
    changed();
}

void StatusItem::setMenu(QMenu* menu) {
    menu_ = menu;
    changed();
}

void StatusItem::setChangeHandler(std::function<void(StatusItem&)> handler) {
    changeHandler_ = std::move(handler);
    changed();
}

void StatusItem::changed() {
    if (changeHandler_)
        changeHandler_(*this);
}

StatusBar& StatusBar::systemStatusBar() {
    static StatusBar bar;
    return bar;
}

std::shared_ptr<StatusItem> StatusBar::statusItemWithLength(double length) {
    std::shared_ptr<StatusItem> item(new StatusItem(length));
    if (hook_)
        hook_(item);
    return item;
}
