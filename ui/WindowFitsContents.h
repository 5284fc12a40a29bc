// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>

class QMainWindow;

// Grows a window when its contents need more height than it has: a text that wraps onto more
// lines than before (the word-wrapped labels of the preferences window) would otherwise be cut
// off, for Qt gives a window the minimum size of its layout, which leaves the extra lines out.
// The window never shrinks on its own, so a size the person chose stays.
class WindowFitsContents : public QObject {
public:
    explicit WindowFitsContents(QMainWindow* window);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void fit();

    QMainWindow* window_;
    bool fitPending_ = false;
};
