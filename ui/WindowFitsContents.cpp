// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/WindowFitsContents.h"

#include <QEvent>
#include <QMainWindow>

WindowFitsContents::WindowFitsContents(QMainWindow* window) : QObject(window), window_(window) {
    window->centralWidget()->installEventFilter(this);
}

// A layout request means the contents' needs may have changed, and a narrower window has
// longer wrapped texts; they are measured once the layouts have settled.
bool WindowFitsContents::eventFilter(QObject* watched, QEvent* event) {
    const bool mayNeedMore =
        event->type() == QEvent::LayoutRequest || event->type() == QEvent::Resize;
    if (mayNeedMore && !fitPending_) {
        fitPending_ = true;
        QMetaObject::invokeMethod(
            this,
            [this] {
                fitPending_ = false;
                fit();
            },
            Qt::QueuedConnection);
    }
    return QObject::eventFilter(watched, event);
}

void WindowFitsContents::fit() {
    QWidget* contents = window_->centralWidget();
    const int needed = contents->heightForWidth(contents->width());
    if (needed > contents->height())
        window_->resize(window_->width(), window_->height() + needed - contents->height());
}
