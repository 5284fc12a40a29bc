// SPDX-License-Identifier: GPL-3.0-or-later
// What a change to a note does to the running agent, against the scripted service. It offers no
// event stream, so the changes are handed to the controller as its stream would hand them: which
// changed notes fire the check timer, and that a check on its way is never doubled.
#include <QLabel>

#include "client/LWSimplenoteEventStream.h"
#include "foundation/Timer.h"
#include "tests/agent/AgentFixture.h"
#include "tests/support/Wait.h"

namespace agenttest {
namespace {

using testsupport::FixtureServer;
using testsupport::settle;
using testsupport::waitUntil;

class ChangeFiringTest : public AgentTest {
protected:
    void SetUp() override {
        AgentTest::SetUp();
        server().on("GET", "/files/a.zip", FixtureServer::respond(200, "A"));
        controller().setListensForChanges(true);
        answerLogin("token");
        startWithAccount("me@example.org", "secret");
        ASSERT_TRUE(waitForRunning());
        // The first check, at login, is over once the note is pushed back.
        ASSERT_TRUE(waitUntil(
            [this] { return count("POST", "/api/note") == 1 && !controller().checkUnderWay(); }));
        ASSERT_TRUE(waitUntil([this] {
            return controller().changeStream() && controller().changeStream()->state() ==
                                                      LWSimplenoteEventStream::State::Unavailable;
        })) << "the scripted service has no events";
        server().clearRequests();
    }

    static int count(const std::string& method, const std::string& path) {
        int n = 0;
        for (const auto& r : server().requests())
            n += r.method == method && r.path == path ? 1 : 0;
        return n;
    }
    // Where in the requests so far the first one to this path is; -1 for none.
    static int firstIndex(const std::string& method, const std::string& path, int from = 0) {
        const auto requests = server().requests();
        for (int i = from; i < static_cast<int>(requests.size()); ++i) {
            if (requests[i].method == method && requests[i].path == path)
                return i;
        }
        return -1;
    }
    // The text of every note the service is asked for.
    void answerNote(const QString& text, bool deleted = false) {
        server().on("GET", "/api/note",
                    FixtureServer::respond(
                        200, withServer(text).toStdString(),
                        {{"Note-Key", "dl"}, {"Note-Deleted", deleted ? "true" : "false"}}));
    }
    static QString withServer(QString text) { return text.replace("@", server().baseUrl()); }
};

struct FiringCase {
    const char* name;
    QString text;  // "@" stands for the file server's address
    bool deleted;
    bool fires;
};

void PrintTo(const FiringCase& c, std::ostream* os) {
    *os << c.name;
}

class WhichChangesFireTest : public ChangeFiringTest,
                             public ::testing::WithParamInterface<FiringCase> {};

TEST_P(WhichChangesFireTest, OnlyTheDownloadNoteWithALink) {
    const FiringCase& c = GetParam();
    answerNote(c.text, c.deleted);
    if (c.fires)
        answerSearch(withServer(c.text));
    controller().noteDidChange("dl");
    ASSERT_TRUE(waitUntil([] { return count("GET", "/api/note") == 1; }));
    if (c.fires) {
        EXPECT_TRUE(waitUntil([] { return count("GET", "/api/search") == 1; }));
        EXPECT_TRUE(waitUntil([] { return count("GET", "/files/a.zip") == 1; }));
    } else {
        settle(300);
        EXPECT_EQ(count("GET", "/api/search"), 0);
    }
    EXPECT_TRUE(controller().appRunning());
    EXPECT_TRUE(alerts.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Changes, WhichChangesFireTest,
    ::testing::Values(
        FiringCase{"LinkLine", "Ferrybox_Downloads\n@/files/a.zip", false, true},
        FiringCase{"LinkAmongComments", "Ferrybox_Downloads\n\n# mine\n@/files/a.zip\n# more",
                   false, true},
        FiringCase{"AgentsOwnPush", "Ferrybox_Downloads", false, false},
        FiringCase{"AgentsOwnPushWithComments", "Ferrybox_Downloads\n\n# mine\n# more", false,
                   false},
        FiringCase{"HeaderAndEmptyLinesOnly", "Ferrybox_Downloads\n\nFerrybox_Downloads\n", false,
                   false},
        FiringCase{"AnotherNote", "Shopping list\n@/files/a.zip", false, false},
        FiringCase{"DownloadNoteInTheTrash", "Ferrybox_Downloads\n@/files/a.zip", true, false}),
    [](const auto& info) { return std::string(info.param.name); });

// The download note that cannot be read (gone meanwhile, the service answering 503, no answer
// at all) starts nothing and shows nothing, and is read again at its next change.
TEST_F(ChangeFiringTest, DownloadNoteThatCannotBeReadIsLetBe) {
    for (const auto& failure : {FixtureServer::respond(404, ""), FixtureServer::respond(503, ""),
                                server().stallMidBody(100, 1, true)}) {
        server().clearRequests();
        server().on("GET", "/api/note", failure);
        controller().noteDidChange("dl");
        ASSERT_TRUE(waitUntil([] { return count("GET", "/api/note") == 1; }));
        settle(200);
        controller().noteDidChange("dl");
        EXPECT_TRUE(waitUntil([] { return count("GET", "/api/note") == 2; }));
        settle(100);
        EXPECT_EQ(count("GET", "/api/search"), 0);
    }
    EXPECT_TRUE(controller().appRunning());
    EXPECT_TRUE(controller().errorLabel()->text().isEmpty());
    EXPECT_TRUE(alerts.empty());
}

// Once a check has found the download note, the changes of the account's other notes cost
// nothing; changes of the download note faster than it can be read make one more read, not one
// each.
TEST_F(ChangeFiringTest, OnlyTheDownloadNoteIsReadAndNeverMoreThanOnceAtATime) {
    answerNote("Ferrybox_Downloads");
    for (int i = 0; i < 20; ++i)
        controller().noteDidChange(QString("other %1").arg(i));
    server().on("GET", "/api/note", server().stall(200, "Ferrybox_Downloads"));
    for (int i = 0; i < 5; ++i)
        controller().noteDidChange("dl");
    ASSERT_TRUE(server().waitForRequests(1));
    settle(200);
    EXPECT_EQ(count("GET", "/api/note"), 1);
    answerNote("Ferrybox_Downloads");
    server().releaseStalled();
    EXPECT_TRUE(waitUntil([] { return count("GET", "/api/note") == 2; }));
    settle(300);
    EXPECT_EQ(count("GET", "/api/note"), 2);
    for (const auto& r : server().requests())
        EXPECT_NE(r.query.find("key=dl"), std::string::npos) << r.query;
}

// A change heard while a check is on its way starts no second check beside it: the note is read
// only once that check has pushed the download note back. Here the link is still there then (it
// came after the check's search), so a check starts for it.
TEST_F(ChangeFiringTest, ChangeDuringACheckWaitsForIt) {
    const std::string note = withServer("Ferrybox_Downloads\n@/files/a.zip").toStdString();
    answerNote("Ferrybox_Downloads\n@/files/a.zip");
    const std::string found = R"({"Response": {"Results": [{"key": "dl", "content": ")" +
                              QString::fromStdString(note).replace("\n", "\\n").toStdString() +
                              R"("}]}})";
    server().on("GET", "/api/search", server().stall(200, found));
    controller().timer()->fire();
    ASSERT_TRUE(server().waitForRequests(1));

    controller().noteDidChange("dl");
    settle(200);
    EXPECT_EQ(count("GET", "/api/note"), 0) << "read only after the check";
    EXPECT_EQ(count("GET", "/api/search"), 1);

    server().releaseStalled();
    ASSERT_TRUE(waitUntil([] { return count("GET", "/api/search") == 2; }));
    const int push = firstIndex("POST", "/api/note");
    ASSERT_GE(push, 0);
    EXPECT_GT(firstIndex("GET", "/api/note"), push);
    EXPECT_GT(firstIndex("GET", "/api/search", 1), push);
    EXPECT_TRUE(waitUntil([] { return count("POST", "/api/note") == 2; }));
}

// However a check is asked for while one is under way (the timer, "Check For Downloads Now", a
// new interval, the download note changing), one more check runs once it is over, and only
// then: no link is read by two checks at once.
TEST_F(ChangeFiringTest, ChecksAskedForDuringACheckMakeOneMoreAfterIt) {
    answerNote("Ferrybox_Downloads\n@/files/a.zip");
    const std::string note = withServer("Ferrybox_Downloads\n@/files/a.zip").toStdString();
    server().on(
        "GET", "/api/search",
        server().stall(200, R"({"Response": {"Results": [{"key": "dl", "content": ")" +
                                QString::fromStdString(note).replace("\n", "\\n").toStdString() +
                                R"("}]}})"));
    controller().timer()->fire();
    ASSERT_TRUE(server().waitForRequests(1));
    EXPECT_TRUE(controller().checkUnderWay());
    controller().timer()->fire();
    controller().tryToPerform("searchForNote", nullptr);
    controller().intervalField()->setText("7");
    controller().controlTextDidEndEditing(nullptr);
    controller().noteDidChange("dl");
    settle(200);
    EXPECT_EQ(count("GET", "/api/search"), 1);
    EXPECT_EQ(count("GET", "/api/note"), 0);

    answerSearch("Ferrybox_Downloads");
    server().releaseStalled();
    ASSERT_TRUE(waitUntil([] { return count("POST", "/api/note") == 2; }));
    EXPECT_TRUE(waitUntil([this] { return !controller().checkUnderWay(); }));
    settle(300);
    EXPECT_EQ(count("GET", "/api/search"), 2);
    EXPECT_GT(firstIndex("GET", "/api/search", 1), firstIndex("POST", "/api/note"));
    EXPECT_EQ(count("GET", "/files/a.zip"), 1);
}

}  // namespace
}  // namespace agenttest
