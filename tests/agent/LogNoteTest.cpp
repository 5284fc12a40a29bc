// SPDX-License-Identifier: GPL-3.0-or-later
// The log note through the controller, against the real ferrybox-notes: switching it on and off,
// clearing it, and the links each check appends.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QLabel>
#include <QPushButton>

#include "foundation/AlertPanel.h"
#include "foundation/Log.h"
#include "foundation/URLConnection.h"
#include "foundation/URLDownload.h"
#include "foundation/UserDefaults.h"
#include "tests/support/NotesAccount.h"
#include "tests/support/NotesServerProcess.h"
#include "tests/support/TempHome.h"
#include "tests/support/Wait.h"
#include "ui/MainInterface.h"

namespace {

using testsupport::waitUntil;

const QString kLog = QStringLiteral("Ferrybox_Download_Log");
const QString kPassword = QStringLiteral("secret");

// One service for the binary: the agent reads its address once per process.
testsupport::NotesServerProcess* gService = nullptr;

class ServiceEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        gService = new testsupport::NotesServerProcess();
        qputenv("FERRYBOX_API_URL", gService->apiUrl().toUtf8());
    }
    void TearDown() override {
        delete gService;
        gService = nullptr;
    }
};
const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new ServiceEnvironment);

bool quiet() {
    return foundation::URLConnection::inFlightCount() == 0 &&
           foundation::URLDownload::inFlightCount() == 0;
}

class LogNoteTest : public ::testing::Test {
protected:
    // Each test has an account of its own, and starts with the agent on and its first check,
    // which creates the download note, over.
    void SetUp() override {
        ASSERT_TRUE(gService && gService->isRunning());
        // The links here lead nowhere: each transfer gives up at its first failure.
        foundation::URLDownload::setRetryTimings({.giveUpSeconds = 0});
        static int serial = 0;
        const QString email = QStringLiteral("log%1@example.org").arg(++serial);
        ASSERT_TRUE(gService->addUser(email, kPassword));
        account_ = std::make_unique<testsupport::NotesAccount>(*gService, email, kPassword);
        previous_ = foundation::AlertPanel::setPresenter([this](const foundation::Alert& a) {
            alerts << a.title + ": " + a.message;
            return foundation::AlertPanel::DefaultReturn;
        });
        start(email);
        ASSERT_TRUE(waitUntil([this] { return !alerts.isEmpty() && quiet(); }));
        EXPECT_TRUE(alerts.first().startsWith("Note Created: "));
        alerts.clear();
    }
    void TearDown() override {
        EXPECT_TRUE(waitUntil(quiet));
        foundation::AlertPanel::setPresenter(previous_);
        interface_.reset();
    }
    void start(const QString& email) {
        interface_ = std::make_unique<MainInterface>();
        controller().setAccountOverride(email, kPassword);
        controller().awakeFromNib();
        ASSERT_TRUE(waitUntil([this] { return controller().appRunning(); }));
    }
    AppController& controller() { return interface_->controller(); }
    QStringList logNotes() { return account_->find(kLog); }
    // As the user does it: a click on the checkbox.
    void toggle(bool on) {
        if (controller().keepLogButton()->isChecked() != on)
            controller().keepLogButton()->click();
    }
    // A new download note (the newest is the one found), and one check of it. Null lines: the
    // header alone.
    void check(const QString& lines) {
        account_->create(lines.isNull() ? QStringLiteral("Ferrybox_Downloads")
                                        : QStringLiteral("Ferrybox_Downloads\n") + lines);
        controller().searchForNote();
        ASSERT_TRUE(waitUntil(quiet));
    }
    QString keepLogSetting() {
        return foundation::UserDefaults(foundation::UserDefaults::defaultFilePath())
            .stringForKey("keepLog");
    }

    testsupport::TempHome home_;
    std::unique_ptr<testsupport::NotesAccount> account_;
    std::unique_ptr<MainInterface> interface_;
    QStringList alerts;
    foundation::AlertPanel::Presenter previous_;
};

TEST_F(LogNoteTest, SwitchingOnCreatesItAndOffDeletesIt) {
    toggle(true);
    EXPECT_EQ(alerts, QStringList{"Log Note Created: I've just created a new note called "
                                  "\"Ferrybox_Download_Log\" using your Simplenote account. The "
                                  "URL of anything you download will be saved to the log note."});
    EXPECT_TRUE(controller().clearLogButton()->isEnabled());
    EXPECT_EQ(keepLogSetting(), "yes");
    ASSERT_TRUE(waitUntil([this] { return logNotes() == QStringList{kLog}; }));

    alerts.clear();
    toggle(false);
    EXPECT_FALSE(controller().clearLogButton()->isEnabled());
    EXPECT_EQ(keepLogSetting(), "no");
    ASSERT_TRUE(waitUntil([this] { return logNotes().isEmpty(); }));
    EXPECT_EQ(alerts, QStringList{"Log Note Deleted: Log note deleted."});
    EXPECT_TRUE(controller().appRunning());
}

TEST_F(LogNoteTest, SwitchingOnBesideAnExistingLogNoteMakesTwo) {
    account_->create(kLog + "\nhttp://old/link");
    toggle(true);
    ASSERT_TRUE(waitUntil([this] { return logNotes().size() == 2; }));
}

// Only links are appended: not the header, not the empty lines, not the comments.
TEST_F(LogNoteTest, ChecksAppendTheirLinks) {
    toggle(true);
    ASSERT_TRUE(waitUntil([this] { return logNotes() == QStringList{kLog}; }));
    check("# a comment\nhttp://127.0.0.1:1/one.zip\n\nhttp://127.0.0.1:1/two.zip");
    ASSERT_TRUE(waitUntil([this] {
        return logNotes() ==
               QStringList{kLog + "\nhttp://127.0.0.1:1/one.zip\nhttp://127.0.0.1:1/two.zip"};
    })) << logNotes().join(" | ").toStdString();
    check("http://127.0.0.1:1/three.zip");
    ASSERT_TRUE(waitUntil([this] {
        return logNotes() == QStringList{kLog +
                                         "\nhttp://127.0.0.1:1/one.zip\nhttp://127.0.0.1:1/"
                                         "two.zip\nhttp://127.0.0.1:1/three.zip"};
    })) << logNotes().join(" | ").toStdString();
}

// Kept, but none on the service: the first append makes one. A note of its header alone sends
// nothing.
TEST_F(LogNoteTest, NoLogNoteUntilTheFirstLinks) {
    controller().keepLogButton()->setChecked(true);
    check(QString());
    EXPECT_TRUE(logNotes().isEmpty());
    check("http://127.0.0.1:1/one.zip");
    ASSERT_TRUE(waitUntil(
        [this] { return logNotes() == QStringList{kLog + "\nhttp://127.0.0.1:1/one.zip"}; }));
}

TEST_F(LogNoteTest, ClearingLeavesTheTitle) {
    controller().keepLogButton()->setChecked(true);
    account_->create(kLog + "\nhttp://a/1\nhttp://a/2");
    controller().clearLogNote(controller().clearLogButton());
    ASSERT_TRUE(waitUntil([this] { return logNotes() == QStringList{kLog}; }));
    EXPECT_EQ(alerts, QStringList{"Log Note Cleared: Log note cleared."});
}

TEST_F(LogNoteTest, ClearingWithoutALogNoteTurnsOff) {
    controller().keepLogButton()->setChecked(true);
    foundation::LogCapture log;
    controller().clearLogNote(controller().clearLogButton());
    ASSERT_TRUE(waitUntil([this] { return !controller().appRunning(); }));
    EXPECT_EQ(controller().errorLabel()->text(), "Error clearing log note");
    EXPECT_TRUE(log.contains("no log note found"));
}

TEST_F(LogNoteTest, SwitchingOffWithoutALogNoteTurnsOff) {
    controller().keepLogButton()->setChecked(true);
    foundation::LogCapture log;
    toggle(false);
    ASSERT_TRUE(waitUntil([this] { return !controller().appRunning(); }));
    EXPECT_EQ(controller().errorLabel()->text(), "Error deleting log note");
    EXPECT_TRUE(log.contains("no log note found"));
}

// While the agent is off, the checkbox changes and nothing else does.
TEST_F(LogNoteTest, SwitchingWhileOffChangesNothing) {
    toggle(true);
    ASSERT_TRUE(waitUntil([this] { return logNotes() == QStringList{kLog}; }));
    controller().turnFerryboxOff(nullptr);
    alerts.clear();
    toggle(false);
    EXPECT_EQ(keepLogSetting(), "yes");
    testsupport::settle(100);
    EXPECT_EQ(logNotes(), QStringList{kLog});
    EXPECT_TRUE(alerts.isEmpty());
}

}  // namespace
