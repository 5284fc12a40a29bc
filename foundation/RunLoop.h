// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>
#include <QPointer>
#include <deque>
#include <functional>

namespace foundation {

// The main thread's run loop seen as the agent sees it: work scheduled in the default mode runs
// from the Qt event loop, except while the default mode is held (a modal alert is open, the
// status menu is being tracked). Held work waits and runs, in the order it was scheduled, once
// the last hold is released. An exception that escapes a piece of work is logged with its kind
// and text, and the next piece runs as usual.
class RunLoop {
public:
    static RunLoop& main();

    // Runs fn from the event loop in the default mode. When context is given and destroyed
    // before then, fn is dropped.
    void performInDefaultMode(std::function<void()> fn, QObject* context = nullptr);

    bool isDefaultModeHeld() const { return holds_ > 0; }

    // Holds the default mode for its lifetime.
    class DefaultModeHold {
    public:
        DefaultModeHold();
        ~DefaultModeHold();
        DefaultModeHold(const DefaultModeHold&) = delete;
        DefaultModeHold& operator=(const DefaultModeHold&) = delete;
    };

    // Runs the Qt event loop until pred() holds or timeoutMs passes; true when pred() held.
    // For tests and for the headless --once mode.
    static bool runUntil(const std::function<bool()>& pred, int timeoutMs);

private:
    struct Task {
        std::function<void()> fn;
        QPointer<QObject> context;
        bool hasContext;
    };
    void scheduleFlush();
    void flush();

    std::deque<Task> pending_;
    int holds_ = 0;
    bool flushScheduled_ = false;
};

}  // namespace foundation
