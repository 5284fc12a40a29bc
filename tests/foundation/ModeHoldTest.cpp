// SPDX-License-Identifier: GPL-3.0-or-later
// While an alert is open (or the status menu tracked), work of the default mode waits: timers,
// transport events and queued callbacks arrive afterwards, in the order they were due.
#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>

#include "foundation/AlertPanel.h"
#include "foundation/Log.h"
#include "foundation/RunLoop.h"
#include "foundation/Timer.h"
#include "foundation/URLConnection.h"
#include "tests/foundation/RecordingDelegate.h"
#include "tests/support/FixtureServer.h"
#include "tests/support/Wait.h"

namespace {

using foundation::AlertPanel;
using foundation::RunLoop;
using testsupport::settle;
using testsupport::waitUntil;

class ModeHoldTest : public ::testing::Test {
protected:
    void TearDown() override { AlertPanel::setPresenter(nullptr); }
};

TEST_F(ModeHoldTest, EventsWaitForTheAlertAndArriveInOrder) {
    testsupport::FixtureServer server;
    server.on("GET", "/slow", testsupport::FixtureServer::respond(200, "body"));
    QStringList order;
    auto delegate = std::make_shared<foundationtest::RecordingDelegate>();

    AlertPanel::setPresenter([&](const foundation::Alert&) {
        // Due while the alert is open: a queued call, an HTTP answer, a second queued call.
        RunLoop::main().performInDefaultMode([&] { order << "first"; });
        foundation::URLRequest request;
        request.url = QUrl(server.baseUrl() + "/slow");
        foundation::URLConnection::create(request, delegate)->start();
        EXPECT_TRUE(server.waitForRequests(1));
        settle(200);
        RunLoop::main().performInDefaultMode([&] { order << "second"; });
        settle(50);
        EXPECT_TRUE(order.isEmpty());
        EXPECT_TRUE(delegate->events.isEmpty());
        return AlertPanel::AlternateReturn;
    });

    EXPECT_EQ(AlertPanel::runModal({"Title", "Message", "OK", "Cancel", ""}),
              AlertPanel::AlternateReturn);
    ASSERT_TRUE(waitUntil([&] { return order.size() == 2 && delegate->over(); }));
    EXPECT_EQ(order, (QStringList{"first", "second"}));
    EXPECT_EQ(delegate->events, (QStringList{"response 200", "data body", "finish"}));
}

TEST_F(ModeHoldTest, HeldTimerTicksCollapseIntoOneAfterRelease) {
    int fired = 0;
    auto timer = foundation::Timer::create(0.02, true, [&] { ++fired; });
    {
        RunLoop::DefaultModeHold hold;
        timer->scheduleInDefaultMode();
        settle(200);
        EXPECT_EQ(fired, 0);
    }
    ASSERT_TRUE(waitUntil([&] { return fired >= 1; }));
    EXPECT_EQ(fired, 1);
    timer->invalidate();
    settle(60);
    EXPECT_EQ(fired, 1);
}

TEST_F(ModeHoldTest, FiringByHandRunsAtOnceAndEndsAOneShotTimer) {
    int repeating = 0;
    int once = 0;
    auto every = foundation::Timer::create(3600, true, [&] { ++repeating; });
    auto single = foundation::Timer::create(3600, false, [&] { ++once; });
    every->scheduleInDefaultMode();
    single->scheduleInDefaultMode();
    every->fire();
    single->fire();
    single->fire();
    EXPECT_EQ(repeating, 1);
    EXPECT_EQ(once, 1);
    EXPECT_TRUE(every->isValid());
    EXPECT_FALSE(single->isValid());
    every->invalidate();
}

TEST_F(ModeHoldTest, ScheduledTimerKeepsRunningWithoutOwner) {
    int fired = 0;
    std::weak_ptr<foundation::Timer> weak;
    {
        auto timer = foundation::Timer::create(0.01, true, [&] { ++fired; });
        timer->scheduleInDefaultMode();
        weak = timer;
    }
    ASSERT_TRUE(waitUntil([&] { return fired >= 2; }));
    ASSERT_FALSE(weak.expired());
    weak.lock()->invalidate();
    EXPECT_TRUE(weak.expired());
}

// Longer than a QTimer can count in its int of milliseconds: 2^32 + 50 ms must wait its 50 days,
// not wrap around to 50 ms.
TEST_F(ModeHoldTest, TimerPeriodsBeyondAnIntOfMillisecondsWaitTheirTime) {
    int fired = 0;
    auto longWait = foundation::Timer::create(4294967.346, true, [&] { ++fired; });
    auto notANumber = foundation::Timer::create(std::nan(""), false, [&] { ++fired; });
    longWait->scheduleInDefaultMode();
    notANumber->scheduleInDefaultMode();
    ASSERT_TRUE(waitUntil([&] { return fired == 1; }));
    settle(100);
    EXPECT_EQ(fired, 1);
    EXPECT_TRUE(longWait->isValid());
    longWait->invalidate();
}

TEST_F(ModeHoldTest, ExceptionEndsOnlyTheEventThatRaisedIt) {
    foundation::LogCapture capture;
    QStringList ran;
    RunLoop::main().performInDefaultMode([] { throw std::out_of_range("index 0 beyond bounds"); });
    RunLoop::main().performInDefaultMode([] { throw 42; });
    RunLoop::main().performInDefaultMode([&] { ran << "next"; });
    ASSERT_TRUE(waitUntil([&] { return !ran.isEmpty(); }));
    EXPECT_EQ(capture.lines(),
              (QStringList{"An uncaught exception was raised: std::out_of_range: index 0 beyond "
                           "bounds",
                           "An uncaught exception was raised: int"}));
}

TEST_F(ModeHoldTest, HeadlessAlertIsLoggedAndAnsweredWithItsDefault) {
    foundation::LogCapture capture;
    EXPECT_EQ(AlertPanel::runModal({"Turn off?", "Downloads are running.", "OK", "Cancel", ""}),
              AlertPanel::DefaultReturn);
    EXPECT_EQ(capture.lines(), QStringList{"alert: Turn off?: Downloads are running."});
}

}  // namespace
