// SPDX-License-Identifier: GPL-3.0-or-later
// Turning the agent on and off: the login, the check timer, the confirmation when downloads run,
// the failure family and the quit guard.
#include <QCheckBox>
#include <QCoreApplication>
#include <QDir>
#include <QEvent>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QScopeGuard>
#include <QWidget>
#include <cmath>

#include "app/Application.h"
#include "foundation/DownloadJournal.h"
#include "foundation/Log.h"
#include "foundation/Timer.h"
#include "platform/KCKeychainItem.h"
#include "tests/agent/AgentFixture.h"
#include "tests/support/Wait.h"

namespace agenttest {
namespace {

using PowerTest = AgentTest;

bool spinning(AppController& c) {
    return c.loginSpinner()->maximum() == 0;
}

TEST_F(PowerTest, StoredAccountLogsInAtStartupAndArmsTheTimer) {
    answerLogin("token-1");
    setDefault("email", "a+b@example.org");
    startWithAccount(QString(), "p&q=1");

    EXPECT_FALSE(controller().emailField()->isEnabled());
    EXPECT_FALSE(controller().passwordField()->isEnabled());
    EXPECT_TRUE(spinning(controller()));
    ASSERT_TRUE(waitForRunning());

    ASSERT_GE(server().requests().size(), 1u);
    EXPECT_EQ(QByteArray::fromBase64(QByteArray::fromStdString(server().requests()[0].body)),
              "email=a+b@example.org&password=p&q=1");

    EXPECT_EQ(controller().startButton()->text(), "Stop Ferrybox");
    EXPECT_EQ(controller().startButtonAction(), "turnFerryboxOff:");
    EXPECT_TRUE(controller().errorLabel()->text().isEmpty());
    EXPECT_TRUE(controller().downloadLabel()->isEnabled());
    EXPECT_TRUE(controller().keepLogButton()->isEnabled());
    EXPECT_FALSE(spinning(controller()));
    EXPECT_FALSE(controller().prefsWindow()->isVisible());
    EXPECT_EQ(storedDefault("email"), QVariant("a+b@example.org"));
    EXPECT_EQ(storedDefault("simplenote-authToken"), QVariant("token-1"));
    // Remembering is on (the address was stored, the choice not yet): the keyring keeps it.
    auto kept = KCGenericKeychainItem::genericKeychainItemForService("Ferrybox", "a+b@example.org");
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(kept->password(), "p&q=1");

    ASSERT_TRUE(controller().timer());
    EXPECT_TRUE(controller().timer()->isValid());
    EXPECT_EQ(controller().timer()->timeInterval(), 600.0);
    ASSERT_TRUE(testsupport::waitUntil([] { return server().requests().size() >= 2; }));
    EXPECT_EQ(server().requests()[1].path, "/api/search") << "the first check runs at once";
}

struct PeriodCase {
    QVariant interval;
    double seconds;
};

class TimerPeriodTest : public AgentTest, public ::testing::WithParamInterface<PeriodCase> {};

TEST_P(TimerPeriodTest, IntervalInWholeMinutes) {
    answerLogin("token");
    setDefault("interval", GetParam().interval);
    startWithAccount("me@example.org", "secret");
    ASSERT_TRUE(waitForRunning());
    EXPECT_EQ(controller().timer()->timeInterval(), GetParam().seconds);
}

// A fraction is cut off and a number beyond 32 bits keeps its low 32 bits; anything under a
// minute would hammer the service, so one minute it is.
INSTANTIATE_TEST_SUITE_P(Power, TimerPeriodTest,
                         ::testing::Values(PeriodCase{10, 600}, PeriodCase{1, 60},
                                           PeriodCase{2.9, 120}, PeriodCase{0, 60},
                                           PeriodCase{-5, 60}, PeriodCase{1e10, 1410065408.0 * 60},
                                           PeriodCase{4294967306LL, 600},
                                           PeriodCase{2147483648.0, 60}, PeriodCase{-1e10, 60},
                                           PeriodCase{std::nan(""), 60}, PeriodCase{HUGE_VAL, 60},
                                           PeriodCase{"7", 420}));

// The label's text is the same whatever went wrong; why goes to the log: an answer that is no
// token, or the service's refusal after too many attempts with how long to wait.
TEST_F(PowerTest, FailedLoginLeavesTheAgentOffWithTheReason) {
    const std::pair<testsupport::FixtureServer::Handler, QString> refusals[] = {
        {testsupport::FixtureServer::respond(200, ""),
         "Unknown login error. Check user name and password."},
        {testsupport::FixtureServer::respond(429, "", {{"Retry-After", "30"}}),
         "too many attempts: wait 30 s"}};
    for (const auto& [answer, reason] : refusals) {
        SCOPED_TRACE(reason.toStdString());
        server().on("POST", "/api/login", answer);
        foundation::LogCapture log;
        if (controller().emailField()->text().isEmpty())
            startWithAccount("me@example.org", "wrong");
        else
            controller().startButton()->click();
        ASSERT_TRUE(testsupport::waitUntil([&] { return log.contains(reason); }));

        EXPECT_EQ(controller().errorLabel()->text(), "Error logging in to Simplenote.");
        EXPECT_TRUE(controller().emailField()->isEnabled());
        EXPECT_TRUE(controller().passwordField()->isEnabled());
        EXPECT_FALSE(spinning(controller()));
        EXPECT_TRUE(controller().prefsWindow()->isVisible());
        EXPECT_FALSE(controller().appRunning());
        EXPECT_EQ(controller().startButton()->text(), "Start Ferrybox");
        EXPECT_EQ(controller().startButtonAction(), "turnFerryboxOn:");
        EXPECT_FALSE(storedDefault("email").isValid());
    }

    // The start button tries again at once.
    answerLogin("token");
    controller().startButton()->click();
    ASSERT_TRUE(waitForRunning());
    EXPECT_TRUE(controller().errorLabel()->text().isEmpty());
}

class RunningAgentTest : public AgentTest {
protected:
    void SetUp() override {
        AgentTest::SetUp();
        answerLogin("token");
        startWithAccount("me@example.org", "secret");
        ASSERT_TRUE(waitForRunning());
        // The first check ends with the note pushed back; what it announced is not the test's.
        ASSERT_TRUE(testsupport::waitUntil([] {
            const auto requests = server().requests();
            return std::any_of(requests.begin(), requests.end(), [](const auto& r) {
                return r.method == "POST" && r.path == "/api/note";
            });
        }));
        ASSERT_TRUE(testsupport::waitUntil([this] {
            return !notifications->notifications().isEmpty();  // "Checking for new downloads"
        }));
        notifications->clear();
    }
    // A transfer that has begun and written its first bytes, and then waits for the server.
    std::shared_ptr<FXDownload> addDownload() {
        static int serial = 0;
        const std::string path = "/files/part" + std::to_string(++serial) + ".bin";
        server().on("GET", path, server().stallMidBody(100000, 1000));
        foundation::URLRequest request;
        request.url = QUrl(server().baseUrl() + QString::fromStdString(path));
        auto download = FXDownload::startWithRequest(request, &controller());
        EXPECT_TRUE(testsupport::waitUntil([&] { return download->done() > 0; }));
        return download;
    }
    QStringList downloadFolder() const {
        return QDir(home_->path() + "/Downloads/Ferrybox").entryList(QDir::Files | QDir::Hidden);
    }
    void expectOff() {
        EXPECT_FALSE(controller().appRunning());
        EXPECT_FALSE(controller().timer()->isValid());
        EXPECT_TRUE(controller().emailField()->isEnabled());
        EXPECT_TRUE(controller().passwordField()->isEnabled());
        EXPECT_EQ(controller().startButton()->text(), "Start Ferrybox");
        EXPECT_EQ(controller().startButtonAction(), "turnFerryboxOn:");
        EXPECT_TRUE(controller().statusItem()->alternateImage().isEmpty());
    }
};

TEST_F(RunningAgentTest, StopButtonWithoutDownloadsTurnsOffWithoutAsking) {
    controller().startButton()->click();
    EXPECT_TRUE(alerts.empty());
    expectOff();
}

TEST_F(RunningAgentTest, TurningOffWithDownloadsAsksAndCancelKeepsThemRunning) {
    addDownload();
    alertAnswer = foundation::AlertPanel::AlternateReturn;
    controller().turnFerryboxOff(nullptr);

    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0].title, "Ferrybox");
    EXPECT_EQ(alerts[0].message,
              "Files are still being downloaded.\n\nAre you sure you want to turn Ferrybox "
              "off?\n\n(If you turn Ferrybox off, partially-downloaded files will be deleted.)");
    EXPECT_EQ(alerts[0].defaultButton, "Turn Ferrybox Off");
    EXPECT_EQ(alerts[0].alternateButton, "Cancel");
    EXPECT_TRUE(controller().appRunning());
    EXPECT_TRUE(controller().timer()->isValid());
    EXPECT_EQ(controller().downloadList().size(), 1u);
    EXPECT_EQ(downloadFolder().size(), 1) << "the download goes on";
}

// Nothing is left for a later start to go on with either.
TEST_F(RunningAgentTest, ConfirmedTurnOffCancelsEveryDownloadAndDeletesItsPart) {
    ASSERT_TRUE(foundation::DownloadJournal::open(foundation::DownloadJournal::standardPath()));
    const auto closeJournal = qScopeGuard([] { foundation::DownloadJournal::close(); });
    addDownload();
    addDownload();
    ASSERT_EQ(downloadFolder().size(), 2);
    EXPECT_EQ(foundation::DownloadJournal::shared()->partialFiles().size(), 2u);
    // Each begin is announced; those announcements travel on their own and must be in before
    // the slate is wiped.
    ASSERT_TRUE(
        testsupport::waitUntil([this] { return notifications->notifications().size() >= 2; }));
    notifications->clear();
    controller().turnFerryboxOff(nullptr);
    EXPECT_TRUE(controller().downloadList().empty());
    EXPECT_TRUE(downloadFolder().isEmpty());
    EXPECT_TRUE(foundation::DownloadJournal::shared()->partialFiles().empty());
    expectOff();
    server().releaseStalled();
    testsupport::settle(200);
    EXPECT_TRUE(downloadFolder().isEmpty());
    QStringList summaries;
    for (const auto& n : notifications->notifications())
        summaries << n.summary + QLatin1Char('/') + n.body;
    EXPECT_TRUE(summaries.isEmpty())
        << "no callback after a cancel: " << summaries.join(QStringLiteral(", ")).toStdString();
}

TEST_F(RunningAgentTest, QuitGuardAsksOnlyWhileDownloading) {
    EXPECT_EQ(controller().applicationShouldTerminate(), AppController::TerminateNow);
    EXPECT_TRUE(alerts.empty());

    addDownload();
    alertAnswer = foundation::AlertPanel::AlternateReturn;
    EXPECT_EQ(controller().applicationShouldTerminate(), AppController::TerminateCancel);
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0].message,
              "Files are still being downloaded.\n\nAre you sure you want to quit?");
    EXPECT_EQ(alerts[0].defaultButton, "Quit");
    EXPECT_EQ(alerts[0].alternateButton, "Cancel");

    alertAnswer = foundation::AlertPanel::DefaultReturn;
    EXPECT_EQ(controller().applicationShouldTerminate(), AppController::TerminateNow);
    EXPECT_EQ(controller().downloadList().size(), 1u) << "quitting does not cancel first";
    EXPECT_EQ(downloadFolder().size(), 1);
}

// The session manager's quit at logout reaches the application object as a Quit event: the
// agent ends at once, without the question, and its transfers stop with their partial files.
TEST_F(RunningAgentTest, TheSessionsQuitEndsTransfersWithoutAsking) {
    Options options;
    options.headless = true;
    Application application(options);
    addDownload();
    // What the application's own controller would ask about.
    application.interface().controller().setDownloadList(controller().downloadList());
    QEvent quit(QEvent::Quit);
    QCoreApplication::sendEvent(QCoreApplication::instance(), &quit);
    EXPECT_TRUE(alerts.empty());
    EXPECT_TRUE(downloadFolder().isEmpty());
    EXPECT_EQ(foundation::URLDownload::inFlightCount(), 0);
}

struct FailureCase {
    const char* name;
    void (AppController::*operation)(const foundation::Notification&);
    const char* label;
    const char* notification;
};

class FailureFamilyTest : public RunningAgentTest,
                          public ::testing::WithParamInterface<FailureCase> {
protected:
    // What the user sees: the label in the preferences window and one desktop notification.
    void expectReported() {
        EXPECT_EQ(controller().errorLabel()->text(), GetParam().label);
        ASSERT_TRUE(
            testsupport::waitUntil([this] { return !notifications->notifications().empty(); }));
        testsupport::settle(20);
        ASSERT_EQ(notifications->notifications().size(), 1);
        const auto& shown = notifications->notifications().first();
        EXPECT_EQ(shown.summary, "Ferrybox");
        EXPECT_EQ(shown.body, GetParam().notification);
        EXPECT_EQ(shown.hints.value("x-ferrybox-notification-name"), "Error");
    }
};

TEST_P(FailureFamilyTest, NotifiesShowsItsTextAndTurnsOff) {
    controller().setSearchTerm("Other_Term");
    (controller().*GetParam().operation)(foundation::Notification{});
    expectReported();
    expectOff();
}

TEST_P(FailureFamilyTest, WhileOffOnlyNotifiesAndShowsItsText) {
    controller().turnOff();
    controller().emailField()->setEnabled(false);  // a marker that turning off would undo
    (controller().*GetParam().operation)(foundation::Notification{});
    expectReported();
    EXPECT_FALSE(controller().emailField()->isEnabled());
}

// The multiple-notes text names the default term whatever term is set (here another one).
INSTANTIATE_TEST_SUITE_P(
    Power, FailureFamilyTest,
    ::testing::Values(FailureCase{"PullFailed", &AppController::turnOffAfterPullFailed,
                                  "Error retrieving download note from Simplenote",
                                  "Error: Couldn't retrieve download note"},
                      FailureCase{"SearchFailed", &AppController::turnFerryboxOffAfterPullFailed,
                                  "Error retrieving download note from Simplenote",
                                  "Error: Couldn't retrieve download note"},
                      FailureCase{"MultipleNotes", &AppController::turnOffAfterMultipleNotesFound,
                                  "Multiple notes found containing \"Ferrybox_Downloads\"",
                                  "Error: Couldn't retrieve download note"},
                      FailureCase{"LogPull", &AppController::turnOffAfterLogPullFailed,
                                  "Error retrieving log note from Simplenote",
                                  "Error: Couldn't retrieve log note"},
                      FailureCase{"LogClear", &AppController::turnOffAfterLogClearFailed,
                                  "Error clearing log note", "Error: Clearing log note failed"},
                      FailureCase{"LogDelete", &AppController::turnOffAfterLogDeleteFailed,
                                  "Error deleting log note", "Error: Deleting log note failed"},
                      FailureCase{"LogAppend", &AppController::turnOffAfterLogAppendFailed,
                                  "Error adding downloads to log note",
                                  "Error: Adding downloads to log failed"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(RunningAgentTest, ClosingThePreferencesWindowOnlyHidesIt) {
    controller().showPreferences(nullptr);
    ASSERT_TRUE(controller().prefsWindow()->isVisible());
    controller().emailField()->setText("kept@example.org");
    EXPECT_FALSE(controller().prefsWindow()->close());
    EXPECT_FALSE(controller().prefsWindow()->isVisible());
    controller().showPreferences(nullptr);
    EXPECT_EQ(controller().emailField()->text(), "kept@example.org");
}

}  // namespace
}  // namespace agenttest
