// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/BoundedWait.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>
#include <atomic>
#include <memory>
#include <thread>

#include "foundation/RunLoop.h"

namespace foundation {

bool runWithin(int timeoutMs, std::function<void()> work) {
    auto done = std::make_shared<std::atomic<bool>>(false);
    std::thread([work = std::move(work), done] {
        work();
        done->store(true, std::memory_order_release);
    }).detach();

    RunLoop::DefaultModeHold hold;
    QElapsedTimer clock;
    clock.start();
    // A steady tick wakes the wait below to look at the worker.
    QTimer tick;
    tick.start(5);
    while (!done->load(std::memory_order_acquire) && clock.elapsed() < timeoutMs) {
        QCoreApplication::processEvents(QEventLoop::ExcludeUserInputEvents |
                                        QEventLoop::WaitForMoreEvents);
    }
    return done->load(std::memory_order_acquire);
}

}  // namespace foundation
