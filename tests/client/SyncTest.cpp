// SPDX-License-Identifier: GPL-3.0-or-later
// A whole-account sync against the scripted service. The controller lives as long as its process,
// so ctest runs every test here in a process of its own, and a test that finds the controller
// already used (the binary run by hand with several tests) skips instead of failing.
#include "client/LWSimplenoteController.h"
#include "foundation/Log.h"
#include "tests/client/ClientFixture.h"
#include "tests/support/Wait.h"

namespace clienttest {
namespace {

using testsupport::FixtureServer;
using testsupport::waitUntil;

const std::string kThreeNotes = R"([{"modify": "2010-03-05 12:34:56.123456"}, {}, {}])";
const QString kBegin = QStringLiteral("LWSimplenoteSyncBeginNotification");
const QString kProgress = QStringLiteral("LWSimplenoteSyncProgressNotification");
const QString kComplete = QStringLiteral("LWSimplenoteSyncCompleteNotification");

class SyncTest : public ClientTest {
protected:
    void SetUp() override {
        ClientTest::SetUp();
        controller = LWSimplenoteController::sharedController();
        if (controller->session()->status() != LWSimplenoteSyncStatus::notStartedStatus())
            GTEST_SKIP() << "needs a process of its own (ctest gives it one)";
        for (const QString& name : {kBegin, kProgress, kComplete}) {
            foundation::NotificationCenter::defaultCenter().addObserver(
                this, name, nullptr,
                [this](const foundation::Notification& n) { heard << n.name; });
        }
        server().on("POST", "/api/login", FixtureServer::respond(200, "TOK"));
    }
    void sync() {
        auto count = [this](const foundation::Notification&) { ++targetCalls; };
        controller->syncWithTarget(this, count, count, count, true);
    }
    LWSimplenoteController* controller = nullptr;
    QStringList heard;
    int targetCalls = 0;
};

TEST_F(SyncTest, ThreeNotesPulledCompleteTheSync) {
    EXPECT_EQ(LWSimplenoteController::sharedController(), controller);
    EXPECT_EQ(LWSimplenoteController::alloc(), nullptr);

    server().on("GET", "/api/index", FixtureServer::respond(200, kThreeNotes));
    server().on("GET", "/api/note", FixtureServer::respond(200, "text"));
    sync();
    ASSERT_TRUE(waitUntil([&] { return heard.size() == 3; }));
    EXPECT_EQ(heard, (QStringList{kBegin, kProgress, kComplete}));
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

TEST_F(SyncTest, LastPullFailingStallsAndTheNextSyncCountsTheNotesOfTheLast) {
    server().on("GET", "/api/index", FixtureServer::respond(200, kThreeNotes));
    server().on(
        "GET", "/api/note",
        FixtureServer::sequence({FixtureServer::respond(200, "one"),
                                 FixtureServer::respond(200, "two"), server().stall(404, "")}));
    sync();
    ASSERT_TRUE(waitUntil([&] { return controller->notes().size() == 2; }));
    server().releaseStalled();
    ASSERT_TRUE(waitUntil([&] { return controller->notePullErrorCount() == 1; }));
    testsupport::settle(100);
    EXPECT_EQ(heard, QStringList{kBegin});
    EXPECT_EQ(controller->session()->status(), LWSimplenoteSyncStatus::inProgressStatus());

    // Two notes and one failure carried over: an index of four is "done" after one pull.
    const auto firstSession = controller->session();
    heard.clear();
    server().on("GET", "/api/index", FixtureServer::respond(200, "[{}, {}, {}, {}]"));
    server().on("GET", "/api/note", FixtureServer::respond(200, "text"));
    sync();
    // (The controller's registrations from the first sync are still there, so it hears some
    // answers twice; only the completion matters here.)
    ASSERT_TRUE(waitUntil([&] { return heard.contains(kComplete); }));
    EXPECT_NE(controller->session(), firstSession);
    EXPECT_EQ(heard.first(), kBegin);
}

// Every way a sync stalls: begun, and never progressing or completing.
struct StallCase {
    const char* name;
    std::string loginBody;
    int indexStatus;
    std::string indexBody;
    QString logLine;  // the start of the one line logged, or null for none
    bool indexPullError;
};

class SyncStallTest : public SyncTest, public ::testing::WithParamInterface<StallCase> {};

TEST_P(SyncStallTest, BeginsAndNeverEnds) {
    const StallCase& c = GetParam();
    server().on("POST", "/api/login", FixtureServer::respond(200, c.loginBody));
    server().on("GET", "/api/index", FixtureServer::respond(c.indexStatus, c.indexBody));
    foundation::LogCapture log;
    sync();
    ASSERT_TRUE(
        waitUntil([&] { return server().requests().size() == (c.loginBody.empty() ? 1u : 2u); }));
    testsupport::settle(100);
    EXPECT_EQ(heard, QStringList{kBegin});
    EXPECT_EQ(controller->indexPullError(), c.indexPullError);
    EXPECT_EQ(controller->session()->status(), LWSimplenoteSyncStatus::inProgressStatus());
    if (c.logLine.isNull()) {
        EXPECT_TRUE(log.lines().isEmpty()) << log.lines().join('\n').toStdString();
    } else {
        ASSERT_EQ(log.lines().size(), 1);
        EXPECT_TRUE(log.lines().first().startsWith(c.logLine)) << log.lines().first().toStdString();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Sync, SyncStallTest,
    ::testing::Values(
        StallCase{"FailedLoginOnlyLogs", "", 200, "[]",
                  "Login failed: Error Domain=LWSimplenoteLoginDomain Code=0 \"Unknown login "
                  "error. Check user name and password.\"",
                  false},
        StallCase{"IndexFailureSetsTheFlag", "TOK", 500, "", QString(), true},
        StallCase{"EmptyIndex", "TOK", 200, "[]", QString(), false},
        StallCase{"UnguardedIndexElementRaises", "TOK", 200, R"([{"Response": {"Results": []}}])",
                  "An uncaught exception was raised: std::out_of_range: ", false}),
    [](const auto& info) { return std::string(info.param.name); });

// Progress and completion set the complete statuses, never the in-progress ones; failed items
// (nothing in the controller reports any) make it "with errors".
TEST(SyncSessionTest, StatusFollowsTheCountsAtEachStep) {
    auto session = LWSimplenoteSyncSession::create();
    QStringList posted;
    for (const QString& name : {kBegin, kProgress, kComplete}) {
        foundation::NotificationCenter::defaultCenter().addObserver(
            &posted, name, session.get(), [&](const foundation::Notification& n) {
                posted << n.name;
                EXPECT_NE(n.value<std::shared_ptr<LWSimplenoteSyncSession>>("session"), nullptr);
            });
    }
    EXPECT_EQ(session->status(), LWSimplenoteSyncStatus::notStartedStatus());
    session->beginWithTotalItemCount(3);
    EXPECT_EQ(session->status(), LWSimplenoteSyncStatus::inProgressStatus());
    session->replaceCompleted(2, 0);
    EXPECT_EQ(session->status(), LWSimplenoteSyncStatus::completeStatus());
    EXPECT_FALSE(session->allItemsComplete());
    session->updateCompleted(0, 1);
    EXPECT_EQ(session->failedItems(), 1);
    EXPECT_EQ(session->status(), LWSimplenoteSyncStatus::completeWithErrorsStatus());
    EXPECT_TRUE(session->allItemsComplete());
    session->replaceCompleted(3, 0);
    session->complete();
    EXPECT_EQ(session->status(), LWSimplenoteSyncStatus::completeStatus());
    EXPECT_EQ(posted, (QStringList{kBegin, kProgress, kProgress, kProgress, kComplete}));
    foundation::NotificationCenter::defaultCenter().removeObserver(&posted);
}

}  // namespace
}  // namespace clienttest
