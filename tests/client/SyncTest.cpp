// A whole-account sync against the scripted service. Each ctest entry runs one suite in a
// process of its own, because the controller lives as long as the process.
#include "client/LWSimplenoteController.h"
#include "foundation/Log.h"
#include "tests/client/ClientFixture.h"
#include "tests/support/Wait.h"

namespace clienttest {
namespace {

using testsupport::FixtureServer;
using testsupport::waitUntil;

const std::string kThreeNotes = R"([{"modify": "2010-03-05 12:34:56.123456"}, {}, {}])";

class SyncTest : public ClientTest {
protected:
    void SetUp() override {
        ClientTest::SetUp();
        auto& center = foundation::NotificationCenter::defaultCenter();
        for (const char* name :
             {"LWSimplenoteSyncBeginNotification", "LWSimplenoteSyncProgressNotification",
              "LWSimplenoteSyncCompleteNotification"}) {
            center.addObserver(this, name, nullptr,
                               [this](const foundation::Notification& n) { heard << n.name; });
        }
        server().on("POST", "/api/login", FixtureServer::respond(200, "TOK"));
    }
    void sync() {
        auto count = [this](const foundation::Notification&) { ++targetCalls; };
        LWSimplenoteController::sharedController()->syncWithTarget(this, count, count, count, true);
    }
    QStringList heard;
    int targetCalls = 0;
};

using SyncFreshTest = SyncTest;
using SyncStallTest = SyncTest;

TEST_F(SyncFreshTest, ThreeNotesPulledCompleteTheSync) {
    LWSimplenoteController* controller = LWSimplenoteController::sharedController();
    EXPECT_EQ(LWSimplenoteController::sharedController(), controller);
    EXPECT_EQ(LWSimplenoteController::alloc(), nullptr);

    server().on("GET", "/api/index", FixtureServer::respond(200, kThreeNotes));
    server().on("GET", "/api/note", FixtureServer::respond(200, "text"));
    sync();
    ASSERT_TRUE(waitUntil([&] { return heard.size() == 3; }));
    EXPECT_EQ(heard, (QStringList{"LWSimplenoteSyncBeginNotification",
                                  "LWSimplenoteSyncProgressNotification",
                                  "LWSimplenoteSyncCompleteNotification"}));
    EXPECT_EQ(controller->notes().size(), 3u);
    EXPECT_EQ(controller->session()->status(), LWSimplenoteSyncStatus::completeStatus());
    EXPECT_EQ(targetCalls, 0) << "the target is registered for the controller, not the session";

    // Index notes have no key: every pull asks for a note without one.
    for (const auto& request : server().requests()) {
        if (request.path == "/api/note") {
            EXPECT_EQ(request.query, "auth=TOK&email=(null)");
        }
    }
}

TEST_F(SyncStallTest, LastNotePullFailingLeavesItUnfinished) {
    server().on("GET", "/api/index", FixtureServer::respond(200, kThreeNotes));
    server().on(
        "GET", "/api/note",
        FixtureServer::sequence({FixtureServer::respond(200, "one"),
                                 FixtureServer::respond(200, "two"), server().stall(404, "")}));
    sync();
    LWSimplenoteController* controller = LWSimplenoteController::sharedController();
    ASSERT_TRUE(waitUntil([&] { return controller->notes().size() == 2; }));
    server().releaseStalled();
    ASSERT_TRUE(waitUntil([&] { return controller->notePullErrorCount() == 1; }));
    testsupport::settle(100);
    EXPECT_EQ(heard, QStringList{"LWSimplenoteSyncBeginNotification"});
    EXPECT_EQ(controller->notes().size(), 2u);
    EXPECT_EQ(controller->session()->status(), LWSimplenoteSyncStatus::inProgressStatus());
}

TEST_F(SyncStallTest, NextSyncCountsTheNotesOfTheLast) {
    // Two notes and one failure carried over: an index of four is "done" after one pull.
    LWSimplenoteController* controller = LWSimplenoteController::sharedController();
    ASSERT_EQ(controller->notes().size() + controller->notePullErrorCount(), 3u);
    const auto firstSession = controller->session();
    server().on("GET", "/api/index", FixtureServer::respond(200, "[{}, {}, {}, {}]"));
    server().on("GET", "/api/note", FixtureServer::respond(200, "text"));
    sync();
    ASSERT_TRUE(waitUntil([&] { return heard.contains("LWSimplenoteSyncCompleteNotification"); }));
    EXPECT_NE(controller->session(), firstSession);
    EXPECT_EQ(heard.first(), "LWSimplenoteSyncBeginNotification");
}

TEST_F(SyncStallTest, FailedLoginOnlyLogs) {
    server().on("POST", "/api/login", FixtureServer::respond(200, ""));
    foundation::LogCapture log;
    sync();
    ASSERT_TRUE(waitUntil([&] { return !log.lines().isEmpty(); }));
    EXPECT_EQ(log.lines().first(),
              "Login failed: Error Domain=LWSimplenoteLoginDomain Code=0 \"Unknown login error. "
              "Check user name and password.\"");
    testsupport::settle(50);
    EXPECT_EQ(heard, QStringList{"LWSimplenoteSyncBeginNotification"});
}

}  // namespace
}  // namespace clienttest
