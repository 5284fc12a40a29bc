// SPDX-License-Identifier: GPL-3.0-or-later
// The log note against the scripted service: how its operations fail (a search the service
// refuses, one that finds no log note or more than one, a checkbox in neither state), and two
// requests that overlap.
#include <QCheckBox>
#include <QLabel>

#include "client/LWSimplenoteSearch.h"
#include "foundation/Log.h"
#include "tests/agent/AgentFixture.h"
#include "tests/support/Wait.h"

namespace agenttest {
namespace {

using testsupport::waitUntil;

class LogNoteFailureTest : public AgentTest {
protected:
    void SetUp() override {
        AgentTest::SetUp();
        answerLogin("token");
        startWithAccount("me@example.org", "secret");
        ASSERT_TRUE(waitForRunning());
        ASSERT_TRUE(waitUntil([] { return server().requests().size() >= 3; }));  // first check
        controller().keepLogButton()->setChecked(true);
    }
    // A search's answer of so many log notes, as a search that kept every result would give.
    foundation::Notification found(std::size_t count) {
        auto search = LWSimplenoteSearch::createWithQuery("Ferrybox_Download_Log");
        std::vector<std::shared_ptr<LWSimplenote>> notes;
        for (std::size_t i = 0; i < count; ++i)
            notes.push_back(LWSNObject::create<LWSimplenote>());
        search->setContents(notes);
        searches_.push_back(search);
        return {"LWSimplenoteSearchPullFromRemoteSuccessNotification",
                search.get(),
                {{"LWSimplenoteSearch", std::static_pointer_cast<LWSNObject>(search)}}};
    }
    std::vector<std::shared_ptr<LWSimplenoteSearch>> searches_;
};

TEST_F(LogNoteFailureTest, RefusedSearchesTurnOff) {
    answerLogSearch(QString(), 500);
    controller().clearLogNote(nullptr);
    ASSERT_TRUE(waitUntil([this] { return !controller().appRunning(); }));
    EXPECT_EQ(controller().errorLabel()->text(), "Error retrieving log note from Simplenote");

    controller().turnFerryboxOn(nullptr);
    ASSERT_TRUE(waitForRunning());
    controller().errorLabel()->clear();
    controller().updateLogNoteWith({"Ferrybox_Downloads", "http://x/y"});
    ASSERT_TRUE(waitUntil([this] { return !controller().appRunning(); }));
    EXPECT_EQ(controller().errorLabel()->text(), "Error retrieving log note from Simplenote");

    // Switching off: the plain turn-off, with no text of its own.
    controller().turnFerryboxOn(nullptr);
    ASSERT_TRUE(waitForRunning());
    controller().errorLabel()->clear();
    controller().keepLogButton()->setChecked(false);
    controller().toggleLogNote(nullptr);
    ASSERT_TRUE(waitUntil([this] { return !controller().appRunning(); }));
    EXPECT_TRUE(controller().errorLabel()->text().isEmpty());
}

// Each answer of none or of more than one log note: the line logged and the text shown.
TEST_F(LogNoteFailureTest, WrongNumberOfLogNotes) {
    const struct {
        void (AppController::*operation)(const foundation::Notification&);
        std::size_t count;
        QString logLine;
        QString label;
    } cases[] = {
        {&AppController::wipeLogNote, 0, "no log note found", "Error clearing log note"},
        {&AppController::wipeLogNote, 2, "> 1 log note found", "Error clearing log note"},
        {&AppController::deleteLogNote, 0, "no log note found", "Error deleting log note"},
        {&AppController::deleteLogNote, 2, "> 1 log note found", "Error deleting log note"},
        {&AppController::appendToLogNoteAndSync, 2, "error appending to log note",
         "Error adding downloads to log note"},
    };
    for (const auto& c : cases) {
        foundation::LogCapture log;
        controller().errorLabel()->clear();
        (controller().*c.operation)(found(c.count));
        EXPECT_EQ(log.lines(), QStringList{c.logLine});
        EXPECT_EQ(controller().errorLabel()->text(), c.label);
    }
}

// A second request before the first search answers: both answers append the newest lines.
TEST_F(LogNoteFailureTest, NewerLinesReplaceThoseStillWaiting) {
    server().clearRequests();
    controller().updateLogNoteWith({"Ferrybox_Downloads", "http://x/older"});
    controller().updateLogNoteWith({"Ferrybox_Downloads", "http://x/newer"});
    QStringList pushed;
    ASSERT_TRUE(waitUntil([&] {
        pushed.clear();
        for (const auto& r : server().requests()) {
            if (r.method == "POST")
                pushed << QString::fromUtf8(
                    QByteArray::fromBase64(QByteArray::fromStdString(r.body)));
        }
        return pushed.size() == 2;
    }));
    EXPECT_EQ(pushed, QStringList(2, "Ferrybox_Download_Log\nhttp://x/newer"));
}

TEST_F(LogNoteFailureTest, CheckboxInNeitherStateOnlyLogs) {
    foundation::LogCapture log;
    controller().keepLogButton()->setTristate(true);
    controller().keepLogButton()->setCheckState(Qt::PartiallyChecked);
    controller().toggleLogNote(nullptr);
    EXPECT_EQ(log.lines(), QStringList{"Error toggling log note"});
    EXPECT_TRUE(controller().appRunning());
}

}  // namespace
}  // namespace agenttest
