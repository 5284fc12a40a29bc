// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>

class QWidget;

// Keeps the preferences window alive: closing it only hides it, so it can be shown again with
// its contents intact.
class PrefWindowDelegate : public QObject {
public:
    explicit PrefWindowDelegate(QObject* parent = nullptr) : QObject(parent) {}
    void attachTo(QWidget* window);
    // Hides the window and answers no.
    bool windowShouldClose(QWidget* window);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
};
