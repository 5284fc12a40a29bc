// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>
#include <functional>
#include <memory>

class QTimer;

namespace foundation {

// A timer of the default run-loop mode: a tick that falls while the default mode is held waits
// until the hold ends, and ticks missed meanwhile collapse into one. Any period works, from a
// millisecond to centuries; a shorter one or NaN counts as one millisecond.
class Timer : public std::enable_shared_from_this<Timer> {
public:
    // A timer that is not yet scheduled.
    static std::shared_ptr<Timer> create(double intervalSeconds, bool repeats,
                                         std::function<void()> action);
    ~Timer();

    // Starts counting in the default mode of the main run loop; the first tick comes one
    // interval later.
    void scheduleInDefaultMode();
    // Runs the action at once. A non-repeating timer is invalidated by it.
    void fire();
    void invalidate();
    bool isValid() const { return valid_; }
    double timeInterval() const { return interval_; }

private:
    Timer(double intervalSeconds, bool repeats, std::function<void()> action);
    void tick();
    void onQtTimeout();
    void armForRemainingTime();

    double interval_;
    bool repeats_;
    bool valid_ = true;
    bool tickPending_ = false;
    std::function<void()> action_;
    std::unique_ptr<QObject> context_;
    QTimer* qtimer_ = nullptr;
    qint64 periodMs_ = 1;
    qint64 dueMs_ = 0;  // on the monotonic clock, for periods longer than one QTimer can wait
};

}  // namespace foundation
