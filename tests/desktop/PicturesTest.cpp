// SPDX-License-Identifier: GPL-3.0-or-later
// The tray menu and the preferences window as people see them: on a real display, the menu popped
// up from an XEmbed panel's icon with its downloads submenu open. With FERRYBOX_PICTURES set to a
// folder, the pictures are saved there (scripts/screenshots makes the documentation's with it).
#include <QDir>

#include "tests/desktop/DesktopFixture.h"
#include "tests/support/Wait.h"

namespace desktoptest {
namespace {

using testsupport::waitUntil;

void keep(const QImage& picture, const QString& name) {
    const QString folder = qEnvironmentVariable("FERRYBOX_PICTURES");
    if (!folder.isEmpty()) {
        EXPECT_TRUE(picture.save(QDir(folder).filePath(name))) << name.toStdString();
    }
}

TEST_F(DesktopTest, TrayMenuWithTwoDownloadsAndThePreferencesWindow) {
    display_.setBackground(0x3b6e8f);
    startTray(Tray::XEmbed);
    serveFile("/debian-12-amd64-DVD-1.iso", 4700 * kMiB, 12 * kMiB);
    serveFile("/holiday-2026.mp4", 900 * kMiB, 5 * kMiB);
    queueLinks({fileLink("/debian-12-amd64-DVD-1.iso"), fileLink("/holiday-2026.mp4")});
    startAgent();
    ASSERT_TRUE(waitUntil([this] { return partialFiles().size() == 2; }, 15000));
    ASSERT_TRUE(waitUntil([this] { return dockedIconName() == "down_16.png"; }, 10000));
    // Both transfers have shown their progress.
    ASSERT_TRUE(waitUntil([this] { return notificationsNamed("Downloading file") == 2; }));
    testsupport::settle(300);

    ASSERT_TRUE(openDockedDownloadsSubmenu());
    // From the panel's top edge down to below the menus.
    QRect shown = display_.geometry(*display_.dockedTrayIcon());
    for (auto popup : display_.popupMenus())
        shown |= display_.geometry(popup);
    const QImage menu = display_.grab(shown.adjusted(-12, -shown.top(), 12, 12));
    ASSERT_FALSE(menu.isNull());
    keep(menu, "tray-menu.png");
    display_.xdotool({"key", "Escape", "Escape"});

    ASSERT_EQ(runSecondAgent(), 0);
    std::optional<testsupport::VirtualDisplay::Window> window;
    ASSERT_TRUE(waitUntil([&] { return (window = preferencesWindow()).has_value(); }));
    testsupport::settle(300);
    const QImage preferences = display_.grab(display_.geometry(*window));
    ASSERT_FALSE(preferences.isNull());
    keep(preferences, "preferences.png");
}

}  // namespace
}  // namespace desktoptest
