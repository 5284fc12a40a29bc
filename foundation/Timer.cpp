#include "foundation/Timer.h"

#include <QTimer>
#include <algorithm>
#include <set>

#include "foundation/RunLoop.h"

namespace foundation {

namespace {

// A scheduled timer lives until it is invalidated, whoever else still holds it.
std::set<std::shared_ptr<Timer>>& scheduledTimers() {
    static std::set<std::shared_ptr<Timer>> timers;
    return timers;
}

}  // namespace

std::shared_ptr<Timer> Timer::create(double intervalSeconds, bool repeats,
                                     std::function<void()> action) {
    return std::shared_ptr<Timer>(new Timer(intervalSeconds, repeats, std::move(action)));
}

Timer::Timer(double intervalSeconds, bool repeats, std::function<void()> action)
    : interval_(std::max(intervalSeconds, 0.0001)),
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
    qtimer_->setSingleShot(!repeats_);
    qtimer_->setInterval(
        std::chrono::milliseconds(static_cast<qint64>(std::max(interval_ * 1000.0, 1.0))));
    QObject::connect(qtimer_, &QTimer::timeout, context_.get(), [this] { tick(); });
    qtimer_->start();
    scheduledTimers().insert(shared_from_this());
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
