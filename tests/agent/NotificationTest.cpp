// SPDX-License-Identifier: GPL-3.0-or-later
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
    bool transient = false;  // shown, then gone from the desktop's history; low urgency
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
    EXPECT_EQ(shown.hints.value("transient", false).toBool(), GetParam().transient);
    EXPECT_EQ(shown.hints.value("urgency").toInt(), GetParam().transient ? 0 : 1);
    EXPECT_TRUE(shown.actions.isEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Notifications, NotificationTest,
    ::testing::Values(
        EventCase{"checking", "ignored", "Checking for downloads", "Checking for new downloads",
                  true},
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

// A link's "&" and "<" reach the person as they are: escaped for a service that reads markup in
// bodies, sent as they stand to one that does not.
TEST_F(AgentTest, BodiesAreEscapedOnlyForServicesThatReadMarkup) {
    const QString link = "http://x/a?b=1&c=<2>";
    const std::pair<QStringList, QString> services[] = {
        {{"body"}, "Error: Couldn't download " + link},
        {{"body", "body-markup"}, "Error: Couldn't download http://x/a?b=1&amp;c=&lt;2&gt;"},
    };
    controller().awakeFromNib();
    for (const auto& [capabilities, body] : services) {
        notifications.reset();
        notifications = std::make_unique<testsupport::NotificationRecorder>(capabilities);
        controller().sendGrowlNotification("error", "Couldn't download " + link);
        ASSERT_TRUE(
            testsupport::waitUntil([this] { return !notifications->notifications().empty(); }));
        EXPECT_EQ(notifications->notifications().first().body, body);
    }
}

}  // namespace
}  // namespace agenttest
