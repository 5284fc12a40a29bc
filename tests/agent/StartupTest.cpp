// SPDX-License-Identifier: GPL-3.0-or-later
// What start-up reads, writes and shows, from an empty home and from stored settings.
#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QFileInfo>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QWidget>

#include "app/Application.h"
#include "foundation/URLDownload.h"
#include "platform/KCKeychainItem.h"
#include "tests/agent/AgentFixture.h"

namespace agenttest {
namespace {

using StartupTest = AgentTest;

TEST_F(StartupTest, FirstStartWritesEveryDefaultAndAsksForTheAccount) {
    setDefault("videoPageFormat", QVariant());  // the fixture's "off"
    controller().awakeFromNib();

    EXPECT_EQ(storedDefault("searchTerm"), QVariant("Ferrybox_Downloads"));
    EXPECT_EQ(storedDefault("interval").toInt(), 10);
    EXPECT_NE(storedDefault("interval").typeId(), QMetaType::QString);
    EXPECT_EQ(storedDefault("useGrowl"), QVariant("yes"));
    EXPECT_EQ(storedDefault("keepLog"), QVariant("no"));
    EXPECT_EQ(storedDefault("putFailedLinksBack"), QVariant("yes"));
    EXPECT_EQ(storedDefault("openAtLogin"), QVariant("no"));
    EXPECT_EQ(storedDefault("downloadDirectory"), QVariant("~/Downloads/Ferrybox"));
    EXPECT_EQ(storedDefault("videoPageTool"), QVariant(""));
    EXPECT_EQ(storedDefault("videoPageFormat"), QVariant("best-1080p"));
    EXPECT_FALSE(storedDefault("shouldRememberPassword").isValid());
    EXPECT_FALSE(storedDefault("email").isValid());
    EXPECT_TRUE(QFileInfo(home_->path() + "/Downloads/Ferrybox").isDir());

    EXPECT_FALSE(controller().rememberInKeychainButton()->isChecked());
    EXPECT_TRUE(controller().putFailedLinksBackButton()->isChecked());
    EXPECT_EQ(controller().intervalField()->text(), "10");
    EXPECT_EQ(controller().searchTerm(), "Ferrybox_Downloads");
    EXPECT_EQ(controller().downloadDirectory(), "~/Downloads/Ferrybox");
    EXPECT_TRUE(controller().prefsWindow()->isVisible());
    EXPECT_FALSE(controller().appRunning());
    EXPECT_EQ(controller().statusItem()->image(), "close_16.png");
    EXPECT_TRUE(controller().statusItem()->highlightMode());
    EXPECT_TRUE(controller().statusItem()->isEnabled());
    EXPECT_EQ(controller().startButton()->text(), "Start Ferrybox");
    EXPECT_EQ(controller().startButtonAction(), "turnFerryboxOn:");
    EXPECT_TRUE(server().requests().empty());
}

// Notifications are possible when the desktop's notification service is on the bus at start-up.
TEST_F(StartupTest, NotificationCheckboxFollowsTheServiceItFinds) {
    controller().awakeFromNib();
    EXPECT_TRUE(controller().growlInstalled());
    EXPECT_TRUE(controller().useGrowlButton()->isChecked());
    EXPECT_TRUE(controller().useGrowlButton()->isEnabled());

    notifications.reset();
    interface_ = std::make_unique<MainInterface>();
    controller().awakeFromNib();
    EXPECT_FALSE(controller().growlInstalled());
    EXPECT_FALSE(controller().useGrowlButton()->isChecked());
    EXPECT_FALSE(controller().useGrowlButton()->isEnabled());
    EXPECT_EQ(storedDefault("useGrowl"), QVariant("yes"));  // never rewritten by detection
}

struct RememberCase {
    const char* name;
    QVariant stored;
    bool emailStored;
    bool checked;
    QVariant storedAfter;
};

class RememberPasswordTest : public AgentTest,
                             public ::testing::WithParamInterface<RememberCase> {};

TEST_P(RememberPasswordTest, CheckboxAndStoredChoice) {
    const RememberCase& c = GetParam();
    if (c.stored.isValid())
        setDefault("shouldRememberPassword", c.stored);
    if (c.emailStored)
        setDefault("email", "a+b@example.org");
    controller().awakeFromNib();

    EXPECT_EQ(controller().rememberInKeychainButton()->isChecked(), c.checked);
    EXPECT_EQ(storedDefault("shouldRememberPassword"), c.storedAfter);
    EXPECT_EQ(controller().emailField()->text(), c.emailStored ? "a+b@example.org" : "");
}

INSTANTIATE_TEST_SUITE_P(
    Startup, RememberPasswordTest,
    ::testing::Values(
        RememberCase{"AbsentWithEmailSearchesKeychain", QVariant(), true, true, QVariant()},
        RememberCase{"YesWithEmail", QVariant("yes"), true, true, QVariant("yes")},
        RememberCase{"No", QVariant("no"), true, false, QVariant("no")},
        RememberCase{"AbsentWithoutEmail", QVariant(), false, false, QVariant()},
        RememberCase{"YesWithoutEmailIsStoredAgain", QVariant("yes"), false, true, QVariant("yes")},
        RememberCase{"OtherValueBecomesYes", QVariant("maybe"), true, true, QVariant("yes")}),
    [](const auto& info) { return std::string(info.param.name); });

struct CheckboxCase {
    const char* name;
    const char* key;
    QVariant stored;
    bool checked;
    QCheckBox* (AppController::*checkbox)() const;
};

class CheckboxSettingTest : public AgentTest, public ::testing::WithParamInterface<CheckboxCase> {};

TEST_P(CheckboxSettingTest, StoredValueSetsTheCheckbox) {
    const CheckboxCase& c = GetParam();
    setDefault(c.key, c.stored);
    controller().awakeFromNib();
    EXPECT_EQ((controller().*c.checkbox)()->isChecked(), c.checked);
    EXPECT_EQ(storedDefault(c.key), c.stored);
    // Only a log that is kept can be cleared.
    EXPECT_EQ(controller().clearLogButton()->isEnabled(),
              QVariant(c.key) == "keepLog" && c.checked);
}

INSTANTIATE_TEST_SUITE_P(
    Startup, CheckboxSettingTest,
    ::testing::Values(
        CheckboxCase{"KeepLogYes", "keepLog", "yes", true, &AppController::keepLogButton},
        CheckboxCase{"KeepLogNo", "keepLog", "no", false, &AppController::keepLogButton},
        CheckboxCase{"KeepLogOtherLeftAlone", "keepLog", "sometimes", false,
                     &AppController::keepLogButton},
        // Edited by hand without quotes: the text "true" or
        // "1" is neither "yes" nor "no".
        CheckboxCase{"KeepLogTrueLeftAlone", "keepLog", true, false, &AppController::keepLogButton},
        CheckboxCase{"UseGrowlOneLeftAlone", "useGrowl", 1, false, &AppController::useGrowlButton},
        CheckboxCase{"OpenAtLoginYes", "openAtLogin", "yes", true,
                     &AppController::openAtLoginButton},
        CheckboxCase{"OpenAtLoginNo", "openAtLogin", "no", false,
                     &AppController::openAtLoginButton},
        // Only a plain "no" turns it off: failed links are worth seeing.
        CheckboxCase{"PutBackNo", "putFailedLinksBack", "no", false,
                     &AppController::putFailedLinksBackButton},
        CheckboxCase{"PutBackOtherMeansYes", "putFailedLinksBack", "sometimes", true,
                     &AppController::putFailedLinksBackButton}),
    [](const auto& info) { return std::string(info.param.name); });

// Which yt-dlp a page with a video is handed to, as the settings say: the window shows the
// version that answered, and without an answer pages are saved as pages.
struct VideoPageCase {
    const char* name;
    QVariant tool;
    QVariant format;
    const char* menuShows;
    enum Label { Found, NotFound, Off } label;
    const char* programUsed;  // null: pages are saved as pages
    foundation::VideoPageTool::Format formatUsed;
};

class VideoPageSettingTest : public AgentTest,
                             public ::testing::WithParamInterface<VideoPageCase> {};

TEST_P(VideoPageSettingTest, StoredChoiceIsShownAndUsed) {
    const VideoPageCase& c = GetParam();
    ASSERT_TRUE(QDir(home_->path()).mkpath("bin"));
    ASSERT_TRUE(QFile::link("/usr/bin/yt-dlp", home_->path() + "/bin/yt-dlp"));
    setDefault("videoPageTool", c.tool);
    setDefault("videoPageFormat", c.format);
    controller().awakeFromNib();

    EXPECT_EQ(controller().videoPageToolField()->text(), c.tool.toString());
    EXPECT_EQ(controller().videoPageFormatMenu()->currentText(), c.menuShows);
    const QString label[] = {
        "yt-dlp " + installedYtDlpVersion() + " found",
        "No yt-dlp found. Install Debian's package (sudo apt install yt-dlp), or a newer yt-dlp "
        "from its project's releases: sites change faster than distributions.",
        "Off: a page with a video is saved as the page.",
    };
    EXPECT_EQ(controller().videoPageToolLabel()->text(), label[c.label]);
    const auto& used = foundation::URLDownload::videoPageTool();
    ASSERT_EQ(used.has_value(), c.programUsed != nullptr);
    if (used) {
        EXPECT_EQ(used->program, QString(c.programUsed).replace("~", home_->path()));
        EXPECT_EQ(used->format, c.formatUsed);
    }
    // Missing ones are written as their defaults; others stay as they are.
    EXPECT_EQ(storedDefault("videoPageTool"), c.tool.isValid() ? c.tool : QVariant(""));
    EXPECT_EQ(storedDefault("videoPageFormat"),
              c.format.isValid() ? c.format : QVariant("best-1080p"));
}

using F = foundation::VideoPageTool::Format;
using enum VideoPageCase::Label;
INSTANTIATE_TEST_SUITE_P(
    Startup, VideoPageSettingTest,
    ::testing::Values(
        VideoPageCase{"NothingStoredIsTheOneOnPath", QVariant(), QVariant(), "Best up to 1080p",
                      Found, "yt-dlp", F::BestUpTo1080p},
        VideoPageCase{"BestAtAPath", "/usr/bin/yt-dlp", "best", "Best", Found, "/usr/bin/yt-dlp",
                      F::Best},
        VideoPageCase{"AudioOnly", "", "audio", "Audio only", Found, "yt-dlp", F::AudioOnly},
        VideoPageCase{"TildeIsTheHome", "~/bin/yt-dlp", "best-1080p", "Best up to 1080p", Found,
                      "~/bin/yt-dlp", F::BestUpTo1080p},
        VideoPageCase{"UnknownFormatIsTheDefault", "", "1080", "Best up to 1080p", Found, "yt-dlp",
                      F::BestUpTo1080p},
        VideoPageCase{"Off", "/usr/bin/yt-dlp", "off", "Off", Off, nullptr, {}},
        VideoPageCase{"NoProgramThere", "/nowhere/yt-dlp", "best", "Best", NotFound, nullptr, {}},
        VideoPageCase{
            "ProgramThatFails", "/bin/false", "audio", "Audio only", NotFound, nullptr, {}}),
    [](const auto& info) { return std::string(info.param.name); });

// A headless agent has no window to show, but uses the stored choice all the same, from before
// its first login.
TEST_F(StartupTest, HeadlessStartUsesTheStoredVideoPageChoice) {
    setDefault("videoPageFormat", "audio");
    Options options;
    options.headless = true;
    Application application(options);
    EXPECT_FALSE(application.start()) << "no account";
    const auto& used = foundation::URLDownload::videoPageTool();
    ASSERT_TRUE(used.has_value());
    EXPECT_EQ(used->program, "yt-dlp");
    EXPECT_EQ(used->format, foundation::VideoPageTool::Format::AudioOnly);
}

TEST_F(StartupTest, StoredValuesAreUsedAsTheyStand) {
    setDefault("searchTerm", "My_Queue");
    setDefault("interval", 5);
    setDefault("downloadDirectory", "~/elsewhere/not-created");
    controller().awakeFromNib();

    EXPECT_EQ(controller().searchTerm(), "My_Queue");
    EXPECT_EQ(controller().intervalField()->text(), "5");
    EXPECT_EQ(storedDefault("interval").toInt(), 5);
    EXPECT_EQ(controller().downloadDirectory(), "~/elsewhere/not-created");
    EXPECT_FALSE(QFileInfo::exists(home_->path() + "/elsewhere"));
    EXPECT_FALSE(QFileInfo::exists(home_->path() + "/Downloads/Ferrybox"));
}

// The keyring's password for the stored address: the agent logs in at once, window unseen.
TEST_F(StartupTest, StoredAccountWithKeyringPasswordLogsInAtStart) {
    answerLogin("token");
    setDefault("email", "me@example.org");
    ASSERT_NE(KCGenericKeychainItem::addGenericKeychainItemForService("Ferrybox", "me@example.org",
                                                                      "from keyring"),
              nullptr);
    controller().awakeFromNib();
    EXPECT_EQ(controller().passwordField()->text(), "from keyring");
    EXPECT_TRUE(controller().rememberInKeychainButton()->isChecked());
    EXPECT_FALSE(controller().prefsWindow()->isVisible());
    ASSERT_TRUE(waitForRunning());
    EXPECT_EQ(QByteArray::fromBase64(QByteArray::fromStdString(server().requests()[0].body)),
              "email=me@example.org&password=from keyring");
}

// An address given as an option is the one whose password the keyring is asked for.
TEST_F(StartupTest, GivenAddressGetsItsOwnKeyringPassword) {
    answerLogin("token");
    setDefault("email", "stored@example.org");
    KCGenericKeychainItem::addGenericKeychainItemForService("Ferrybox", "stored@example.org",
                                                            "stored's");
    KCGenericKeychainItem::addGenericKeychainItemForService("Ferrybox", "given@example.org",
                                                            "given's");
    startWithAccount("given@example.org", QString());
    ASSERT_TRUE(waitForRunning());
    EXPECT_EQ(QByteArray::fromBase64(QByteArray::fromStdString(server().requests()[0].body)),
              "email=given@example.org&password=given's");
}

TEST_F(StartupTest, StoredEmailWithoutPasswordShowsPreferences) {
    setDefault("email", "someone@example.org");
    controller().awakeFromNib();
    EXPECT_EQ(controller().emailField()->text(), "someone@example.org");
    EXPECT_TRUE(controller().prefsWindow()->isVisible());
    EXPECT_TRUE(server().requests().empty());
}

}  // namespace
}  // namespace agenttest
