// The agent in each tray situation: it logs in, downloads, shows its state, and stays alive.
#include "tests/desktop/DesktopFixture.h"
#include "tests/support/Wait.h"

namespace desktoptest {
namespace {

using testsupport::waitUntil;

TEST_F(DesktopTest, StatusNotifierLogInAndDownload) {
    startTray(Tray::StatusNotifier);
    serveFile("/big.bin", 4 * kMiB, 3 * kMiB / 2);
    queueLinks({fileLink("/big.bin")});
    startAgent();
    ASSERT_TRUE(waitUntil([this] { return host_->hasItem(); }, 10000));
    EXPECT_TRUE(menuHas("  [" + fileLink("/big.bin") + " (1 of 4 MB)]"));
    EXPECT_EQ(host_->iconName(), "down_16.png");
    releaseFiles();
    EXPECT_TRUE(waitUntil([this] { return QFile::exists(downloadFolder() + "/big.bin"); }, 10000));
    EXPECT_TRUE(waitForMenu([](const QStringList& l) {
        return l.contains("Turn Ferrybox Off") && !l.contains("1 Download");
    }));
    EXPECT_EQ(host_->iconName(), "ntwrk_16.png");
    EXPECT_TRUE(agentRunning());
}

}  // namespace
}  // namespace desktoptest
