// Each event word becomes one desktop notification titled "Ferrybox", filed under its name;
// nothing is shown while the checkbox is off or when there was no service at start-up.
#include <QCheckBox>

#include "tests/agent/AgentFixture.h"
#include "tests/support/Wait.h"

namespace agenttest {
namespace {

struct EventCase {
    QString word;
    QString detail;
    QString name;
    QString body;
};

class NotificationTest : public AgentTest, public ::testing::WithParamInterface<EventCase> {};

TEST_P(NotificationTest, EventWordBecomesNameAndText) {
    controller().awakeFromNib();
    controller().sendGrowlNotification(GetParam().word, GetParam().detail);
    ASSERT_TRUE(testsupport::waitUntil([this] { return !notifications->notifications().empty(); }));
    const auto& shown = notifications->notifications().first();
    EXPECT_EQ(shown.appName, "Ferrybox");
    EXPECT_EQ(shown.summary, "Ferrybox");
    EXPECT_EQ(shown.body, GetParam().body);
    EXPECT_EQ(shown.hints.value("x-ferrybox-notification-name"), GetParam().name);
    EXPECT_EQ(shown.hints.value("desktop-entry"), "ferrybox");
    EXPECT_TRUE(shown.actions.isEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Notifications, NotificationTest,
    ::testing::Values(
        EventCase{"checking", "ignored", "Checking for downloads", "Checking for new downloads"},
        EventCase{"downloading", "file.zip", "Downloading file", "Downloading: file.zip"},
        EventCase{"download complete", "file.zip", "Download complete",
                  "Download complete: file.zip"},
        EventCase{"error", "Couldn't download http://x/%1 a", "Error",
                  "Error: Couldn't download http://x/%1 a"},
        EventCase{"downloading", QString(), "Downloading file", "Downloading: (null)"},
        EventCase{"Error", "matched exactly", "", ""}, EventCase{"", "", "", ""}));

TEST_F(AgentTest, NothingIsShownWhileTheCheckboxIsOffOrWithoutAService) {
    controller().awakeFromNib();
    controller().useGrowlButton()->setChecked(false);
    controller().sendGrowlNotification("error", "off");
    controller().useGrowlButton()->setChecked(true);
    controller().setGrowlInstalled(false);
    controller().sendGrowlNotification("error", "not installed");
    controller().setGrowlInstalled(true);
    controller().sendGrowlNotification("error", "on");
    ASSERT_TRUE(testsupport::waitUntil([this] { return !notifications->notifications().empty(); }));
    testsupport::settle(50);
    ASSERT_EQ(notifications->notifications().size(), 1);
    EXPECT_EQ(notifications->notifications().first().body, "Error: on");
}

}  // namespace
}  // namespace agenttest
