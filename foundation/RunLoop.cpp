#include "foundation/RunLoop.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTimer>

namespace foundation {

RunLoop& RunLoop::main() {
    static RunLoop loop;
    return loop;
}

void RunLoop::performInDefaultMode(std::function<void()> fn, QObject* context) {
    pending_.push_back(Task{std::move(fn), QPointer<QObject>(context), context != nullptr});
    scheduleFlush();
}

void RunLoop::scheduleFlush() {
    if (flushScheduled_ || holds_ > 0 || pending_.empty())
        return;
    flushScheduled_ = true;
    QTimer::singleShot(0, QCoreApplication::instance(), [this] {
        flushScheduled_ = false;
        flush();
    });
}

void RunLoop::flush() {
    // A task may open an alert (holding the mode) or schedule more work: check before each one.
    while (holds_ == 0 && !pending_.empty()) {
        Task task = std::move(pending_.front());
        pending_.pop_front();
        if (task.hasContext && task.context.isNull())
            continue;
        task.fn();
    }
}

RunLoop::DefaultModeHold::DefaultModeHold() {
    ++main().holds_;
}

RunLoop::DefaultModeHold::~DefaultModeHold() {
    RunLoop& loop = main();
    if (--loop.holds_ == 0)
        loop.scheduleFlush();
}

bool RunLoop::runUntil(const std::function<bool()>& pred, int timeoutMs) {
    QElapsedTimer clock;
    clock.start();
    // A steady tick keeps the blocking wait below from outliving the time-out.
    QTimer ticker;
    ticker.start(5);
    while (!pred()) {
        if (clock.elapsed() >= timeoutMs)
            return pred();
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    return true;
}

}  // namespace foundation
