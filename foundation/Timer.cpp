// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/Timer.h"

#include <QDeadlineTimer>
#include <QTimer>
#include <algorithm>
#include <cmath>
#include <limits>
#include <set>

#include "foundation/RunLoop.h"

namespace foundation {

namespace {

// A scheduled timer lives until it is invalidated, whoever else still holds it.
std::set<std::shared_ptr<Timer>>& scheduledTimers() {
    static std::set<std::shared_ptr<Timer>> timers;
    return timers;
}

// QTimer counts milliseconds in an int: a longer period is waited for in steps of this size.
constexpr qint64 kLongestQtWait = std::numeric_limits<int>::max();

qint64 periodInMilliseconds(double seconds) {
    const double ms = seconds * 1000.0;
    if (std::isnan(ms) || ms < 1.0)
        return 1;
    // Far beyond any run of the program, and still well inside qint64.
    constexpr double kCenturies = 1e16;
    return static_cast<qint64>(std::min(ms, kCenturies));
}

qint64 monotonicNowMs() {
    return QDeadlineTimer::current().deadline();
}

}  // namespace

std::shared_ptr<Timer> Timer::create(double intervalSeconds, bool repeats,
                                     std::function<void()> action) {
    return std::shared_ptr<Timer>(new Timer(intervalSeconds, repeats, std::move(action)));
}

Timer::Timer(double intervalSeconds, bool repeats, std::function<void()> action)
    : interval_(std::isnan(intervalSeconds) ? 0.0001 : std::max(intervalSeconds, 0.0001)),
      repeats_(repeats),
      action_(std::move(action)),
      context_(std::make_unique<QObject>()) {}

Timer::~Timer() {
    valid_ = false;
    // context_ owns qtimer_; both go with it.
}

void Timer::scheduleInDefaultMode() {
    if (!valid_ || qtimer_ != nullptr)
        return;
    qtimer_ = new QTimer(context_.get());
    qtimer_->setTimerType(Qt::PreciseTimer);
    periodMs_ = periodInMilliseconds(interval_);
    if (periodMs_ <= kLongestQtWait) {
        qtimer_->setSingleShot(!repeats_);
        qtimer_->setInterval(static_cast<int>(periodMs_));
        QObject::connect(qtimer_, &QTimer::timeout, context_.get(), [this] { tick(); });
        qtimer_->start();
    } else {
        qtimer_->setSingleShot(true);
        QObject::connect(qtimer_, &QTimer::timeout, context_.get(), [this] { onQtTimeout(); });
        dueMs_ = monotonicNowMs() + periodMs_;
        armForRemainingTime();
    }
    scheduledTimers().insert(shared_from_this());
}

void Timer::armForRemainingTime() {
    const qint64 remaining = std::max<qint64>(dueMs_ - monotonicNowMs(), 0);
    qtimer_->start(static_cast<int>(std::min(remaining, kLongestQtWait)));
}

void Timer::onQtTimeout() {
    if (!valid_)
        return;
    if (monotonicNowMs() < dueMs_) {
        armForRemainingTime();
        return;
    }
    if (repeats_) {
        dueMs_ += periodMs_;
        armForRemainingTime();
    }
    tick();
}

void Timer::tick() {
    // Ticks that fall while the default mode is held collapse into one delivered on release.
    if (tickPending_)
        return;
    tickPending_ = true;
    std::weak_ptr<Timer> weak = weak_from_this();
    RunLoop::main().performInDefaultMode(
        [weak] {
            std::shared_ptr<Timer> self = weak.lock();
            if (!self)
                return;
            self->tickPending_ = false;
            if (self->valid_)
                self->fire();
        },
        context_.get());
}

void Timer::fire() {
    if (!valid_)
        return;
    std::shared_ptr<Timer> keepAlive = weak_from_this().lock();
    std::function<void()> action = action_;
    if (!repeats_)
        invalidate();
    action();
}

void Timer::invalidate() {
    if (!valid_)
        return;
    valid_ = false;
    if (qtimer_)
        qtimer_->stop();
    std::shared_ptr<Timer> self = weak_from_this().lock();
    if (self)
        scheduledTimers().erase(self);
}

}  // namespace foundation
