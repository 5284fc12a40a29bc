// SPDX-License-Identifier: GPL-3.0-or-later
// The agent in each tray situation a desktop offers: it logs in, downloads, shows its state where
// the person can see it, and stays alive; without a tray its window stays within reach.
#include <QFile>

#include "tests/desktop/DesktopFixture.h"
#include "tests/support/HungKeyring.h"
#include "tests/support/Wait.h"

namespace desktoptest {
namespace {

using testsupport::waitUntil;

class TrayTest : public DesktopTest, public ::testing::WithParamInterface<Tray> {};

TEST_P(TrayTest, LogsInDownloadsAndStaysAlive) {
    startTray(GetParam());
    serveFile("/big.bin", 4 * kMiB, 3 * kMiB / 2);
    queueLinks({fileLink("/big.bin")});
    startAgent();
    ASSERT_TRUE(waitUntil([this] { return partialFiles().size() == 1; }, 15000));
    const QString progress = "  [" + fileLink("/big.bin") + " (1 of 4 MB)]";
    switch (GetParam()) {
        case Tray::StatusNotifier:
            ASSERT_TRUE(waitUntil([this] { return host_->hasItem(); }, 10000));
            EXPECT_TRUE(menuHas(progress));
            EXPECT_EQ(host_->iconName(), "down_16.png");
            EXPECT_FALSE(preferencesWindow());
            break;
        case Tray::XEmbed:
            EXPECT_TRUE(waitUntil([this] { return dockedIconName() == "down_16.png"; }, 10000))
                << dockedIconName().toStdString();
            EXPECT_TRUE(openDockedDownloadsSubmenu());
            display_.xdotool({"key", "Escape", "Escape"});
            EXPECT_FALSE(preferencesWindow());
            break;
        case Tray::None:
            EXPECT_TRUE(waitUntil([this] { return preferencesWindow().has_value(); }, 10000));
            break;
    }
    releaseFiles();
    EXPECT_TRUE(waitUntil([this] { return QFile::exists(downloadFolder() + "/big.bin"); }, 10000));
    EXPECT_TRUE(waitUntil([this] { return notificationsNamed("Download complete") == 1; }, 10000));
    switch (GetParam()) {
        case Tray::StatusNotifier:
            EXPECT_TRUE(waitForMenu([](const QStringList& lines) {
                return lines.startsWith("Check For Downloads Now") && !lines.contains("1 Download");
            }));
            EXPECT_EQ(host_->iconName(), "ntwrk_16.png");
            break;
        case Tray::XEmbed:
            EXPECT_TRUE(waitUntil([this] { return dockedIconName() == "ntwrk_16.png"; }, 10000));
            break;
        case Tray::None:
            break;
    }
    EXPECT_TRUE(partialFiles().isEmpty());
    // A link saved from elsewhere while the agent idles is fetched at once, not at the timer's
    // next tick ten minutes away: the service's change events reach the desktop agent.
    serveFile("/shared.bin", kMiB);
    queueLinks({fileLink("/shared.bin")});
    EXPECT_TRUE(
        waitUntil([this] { return QFile::exists(downloadFolder() + "/shared.bin"); }, 10000));
    EXPECT_TRUE(agentRunning());
}

INSTANTIATE_TEST_SUITE_P(Desktop, TrayTest,
                         ::testing::Values(Tray::StatusNotifier, Tray::XEmbed, Tray::None),
                         [](const auto& info) { return std::string(trayName(info.param)); });

// A new account: the first check creates the download note and says so in an alert, while the
// panel reads the menu.
class NewAccountTest : public DesktopTest {
protected:
    NewAccountTest() { withDownloadNote_ = false; }
};

TEST_F(NewAccountTest, NoteCreatedAlertUnderAStatusNotifierPanel) {
    startTray(Tray::StatusNotifier);
    startAgent();
    ASSERT_TRUE(waitUntil([this] { return host_->hasItem(); }, 10000));
    ASSERT_TRUE(answerAlert("Note Created"));
    EXPECT_TRUE(waitUntil([this] { return account_->find("Ferrybox_Downloads").size() == 1; }));
    EXPECT_TRUE(waitForMenu(
        [](const QStringList& lines) { return lines.startsWith("Check For Downloads Now"); }));
    EXPECT_TRUE(agentRunning());
}

// Without a tray the window is the agent's face: shown at start, never withdrawn (closing it
// minimises it, which on a display without a window manager leaves it mapped), and shown again
// when a tray that came later goes away.
TEST_F(DesktopTest, WithoutATrayTheWindowStaysWithinReach) {
    startAgent();
    std::optional<testsupport::VirtualDisplay::Window> window;
    ASSERT_TRUE(waitUntil([&] { return (window = preferencesWindow()).has_value(); }, 10000));
    display_.requestClose(*window);
    EXPECT_TRUE(waitUntil(
        [&] { return display_.isViewable(*window) && display_.isMinimized(*window); }, 5000));
    EXPECT_TRUE(agentRunning());

    startTray(Tray::XEmbed);
    EXPECT_TRUE(waitUntil([this] { return dockedIconName() == "ntwrk_16.png"; }, 10000));
    // With a tray, closing the window puts it away.
    display_.requestClose(*window);
    EXPECT_TRUE(waitUntil([&] { return !display_.isViewable(*window); }, 5000));

    stopTray();
    EXPECT_TRUE(waitUntil([&] { return display_.isViewable(*window); }, 10000));
    EXPECT_TRUE(agentRunning());
}

// A panel that goes away (closed, crashed) takes the icon with it: the window comes back.
TEST_F(DesktopTest, APanelThatGoesAwayBringsTheWindowBack) {
    startTray(Tray::StatusNotifier);
    startAgent();
    ASSERT_TRUE(waitForMenu(
        [](const QStringList& lines) { return lines.startsWith("Check For Downloads Now"); }));
    ASSERT_FALSE(preferencesWindow());
    host_->unregister();
    EXPECT_TRUE(waitUntil([this] { return preferencesWindow().has_value(); }, 10000));
    EXPECT_TRUE(agentRunning());
}

// A keyring that never answers the start-up's question for the password: meanwhile the icon and
// its menu are there, and after a few seconds the agent gives up on it and asks the person.
TEST_F(DesktopTest, AHungKeyringHoldsUpNothingForLong) {
    testsupport::HungKeyring keyring;
    ASSERT_TRUE(keyring.isRegistered());
    writeSettings("[General]\nemail=\"me@example.org\"\nshouldRememberPassword=\"yes\"\n");
    startTray(Tray::StatusNotifier);
    startAgent({}, Account::Stored);
    ASSERT_TRUE(
        waitForMenu([](const QStringList& lines) { return lines.contains("Turn Ferrybox On"); }));
    EXPECT_FALSE(preferencesWindow()) << "still waiting for the keyring";
    EXPECT_TRUE(waitUntil([this] { return preferencesWindow().has_value(); }, 10000));
    EXPECT_TRUE(agentRunning());
}

}  // namespace
}  // namespace desktoptest
