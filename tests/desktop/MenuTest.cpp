// SPDX-License-Identifier: GPL-3.0-or-later
// The tray menu as a StatusNotifier panel shows and clicks it over D-Bus: every item does what it
// says, and no panel can leave the agent waiting on a menu it never closes.
#include <QFile>

#include "tests/desktop/DesktopFixture.h"
#include "tests/support/Wait.h"

namespace desktoptest {
namespace {

using testsupport::waitUntil;

struct MenuStep {
    const char* item;
    const char* alert;  // answered with its default button; null for none
    std::function<bool()> done;
};

// One agent, downloading a link that holds "&" and "_" (shown literally), through every item.
TEST_F(DesktopTest, EveryMenuItemDoesItsAction) {
    startTray(Tray::StatusNotifier);
    serveFile("/my_file.bin", 4 * kMiB, kMiB);
    serveFile("/second.bin", 1000);
    const QString held = fileLink("/my_file.bin?x=1&y=2");
    queueLinks({held});
    startAgent();
    ASSERT_TRUE(waitUntil([this] { return host_ && host_->hasItem(); }, 10000));
    ASSERT_TRUE(menuHas("  [" + held + " (1 of 4 MB)]"));

    const QString notePage = notes_->baseUrl() + "?q=Ferrybox_Downloads";
    const MenuStep steps[] = {
        {"Check For Downloads Now", nullptr,
         [this] { return QFile::exists(downloadFolder() + "/second.bin"); }},
        {"Go To Download Note", nullptr,
         [this, notePage] { return openedLinks().contains(notePage); }},
        {"Open Downloads Folder", nullptr,
         [this] {
             return openedLinks().size() == 2 && openedLinks()[1].endsWith(downloadFolder());
         }},
        {"About Ferrybox", nullptr,
         [this] { return !display_.viewableWindowsTitled("About Ferrybox").empty(); }},
        {"Preferences...", nullptr, [this] { return preferencesWindow().has_value(); }},
        {"Turn Ferrybox Off", "Ferrybox",
         [this] {
             return host_->menuLines().contains("Turn Ferrybox On") &&
                    host_->iconName() == "close_16.png" && partialFiles().isEmpty();
         }},
        {"Turn Ferrybox On", nullptr,
         [this] { return host_->menuLines().contains("Turn Ferrybox Off"); }},
        {"Quit", nullptr, [this] { return !agentRunning(); }},
    };
    for (const MenuStep& step : steps) {
        SCOPED_TRACE(step.item);
        if (QString(step.item) == "Check For Downloads Now")
            queueLinks({fileLink("/second.bin")});
        ASSERT_TRUE(host_->click(step.item));
        if (step.alert) {
            ASSERT_TRUE(answerAlert(step.alert));
        }
        EXPECT_TRUE(waitUntil([&] { return step.done(); }, 10000));
    }
    EXPECT_EQ(waitForAgentExit(5000), 0);
}

// While the panel shows the menu the agent holds its work (and shows the alternate image); the
// hold ends with the menu, with a click on the icon, or after ten seconds of nothing at all.
struct HoldCase {
    const char* name;
    std::function<void(testsupport::StatusNotifierHost&)> end;
    int withinMs;
};

class MenuHoldTest : public DesktopTest, public ::testing::WithParamInterface<HoldCase> {};

TEST_P(MenuHoldTest, EndsWhateverThePanelDoes) {
    startTray(Tray::StatusNotifier);
    startAgent();
    ASSERT_TRUE(waitForMenu(
        [](const QStringList& lines) { return lines.startsWith("Check For Downloads Now"); }));
    ASSERT_TRUE(waitUntil([this] { return host_->iconName() == "ntwrk_16.png"; }));
    host_->openMenu();
    ASSERT_TRUE(waitUntil([this] { return host_->iconName() == "ntwrk_16_inverted.png"; }));
    GetParam().end(*host_);
    EXPECT_TRUE(
        waitUntil([this] { return host_->iconName() == "ntwrk_16.png"; }, GetParam().withinMs));
    // Held work runs again: a check finds a new link and fetches i
    serveFile("/after.bin", 1000);
    queueLinks({fileLink("/after.bin")});
    ASSERT_TRUE(host_->click("Check For Downloads Now"));
    EXPECT_TRUE(waitUntil([this] { return QFile::exists(downloadFolder() + "/after.bin"); }));
}

INSTANTIATE_TEST_SUITE_P(
    Desktop, MenuHoldTest,
    ::testing::Values(HoldCase{"ClosedByThePanel", [](auto& host) { host.closeMenu(); }, 3000},
                      HoldCase{"IconClickedAgain", [](auto& host) { host.activate(); }, 3000},
                      HoldCase{"NeverClosed", [](auto&) {}, 15000}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace desktoptest
