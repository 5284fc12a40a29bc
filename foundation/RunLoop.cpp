// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/RunLoop.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTimer>
#include <exception>

#include "foundation/Log.h"
#include "foundation/TypeName.h"

namespace foundation {

namespace {

// An exception that escapes an event ends that event's work, not the program: the event loop
// logs it and goes on with the next event, as the platform's own does.
void runCatchingExceptions(const std::function<void()>& fn) {
    try {
        fn();
    } catch (const std::exception& e) {
        log(QStringLiteral("An uncaught exception was raised: %1: %2")
                .arg(demangledTypeName(typeid(e)), QString::fromLocal8Bit(e.what())));
    } catch (...) {
        log(QStringLiteral("An uncaught exception was raised: %1").arg(currentExceptionTypeName()));
    }
}

}  // namespace

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
        runCatchingExceptions(task.fn);
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
