// SPDX-License-Identifier: GPL-3.0-or-later
// How the agent starts and ends on a desktop: one per session, quitting from outside without
// asking, the Quit command with its question, and no partial file left behind by any of them.
#include <unistd.h>
#include <QFile>
#include <csignal>

#include "tests/desktop/DesktopFixture.h"
#include "tests/support/Wait.h"

namespace desktoptest {
namespace {

using testsupport::waitUntil;

// Exiting takes longer under the sanitizers, which check the whole heap at the end.
#if defined(__SANITIZE_ADDRESS__)
constexpr int kQuitWithinMs = 6000;
#else
constexpr int kQuitWithinMs = 2000;
#endif

class LifecycleTest : public DesktopTest {
protected:
    // The agent on a StatusNotifier panel, one download under way and held by the server, and
    // the check that began it over: its link is out of the note, so a next start has only the
    // journal to go on from.
    void startDownloading() {
        startTray(Tray::StatusNotifier);
        serveFile("/big.bin", 4 * kMiB, kMiB);
        queueLinks({fileLink("/big.bin")});
        startAgent();
        ASSERT_TRUE(waitUntil([this] { return partialFiles().size() == 1; }, 15000));
        ASSERT_TRUE(waitUntil([this] { return host_->hasItem(); }, 10000));
        ASSERT_TRUE(waitUntil(
            [this] { return !account_->text(downloadNoteKey_).contains("big.bin"); }, 10000));
    }
};

TEST_F(LifecycleTest, ASecondStartShowsTheFirstAgentsWindow) {
    startDownloading();
    ASSERT_FALSE(preferencesWindow());
    EXPECT_EQ(runSecondAgent(), 0);
    EXPECT_TRUE(waitUntil([this] { return preferencesWindow().has_value(); }));
    EXPECT_TRUE(agentRunning());
    // Still the one downloading.
    EXPECT_EQ(partialFiles().size(), 1);
}

struct OutsideQuit {
    const char* name;
    std::function<void(DesktopTest&, QProcess&)> send;
};

class QuitFromOutsideTest : public LifecycleTest,
                            public ::testing::WithParamInterface<OutsideQuit> {};

// The file coming in stays partial, for the next start to finish.
TEST_P(QuitFromOutsideTest, EndsAtOnceKeepingThePartialFile) {
    startDownloading();
    GetParam().send(*this, agent_);
    EXPECT_TRUE(waitForAgentExit(kQuitWithinMs).has_value());
    EXPECT_EQ(partialFiles().size(), 1) << partialFiles().join(' ').toStdString();
}

INSTANTIATE_TEST_SUITE_P(
    Desktop, QuitFromOutsideTest,
    ::testing::Values(
        OutsideQuit{"SIGTERM", [](DesktopTest&, QProcess& agent) { agent.terminate(); }},
        OutsideQuit{"SIGINT",
                    [](DesktopTest&, QProcess& agent) {
                        ::kill(static_cast<pid_t>(agent.processId()), SIGINT);
                    }},
        // The session ends and takes the display with it.
        OutsideQuit{"DisplayGone", [](DesktopTest& test, QProcess&) { test.display().kill(); }}),
    [](const auto& info) { return std::string(info.param.name); });

// The Quit command asks while files come in; "Quit" ends the agent and keeps its partial file for
// the next start, "Cancel" leaves the agent and the transfer running.
class QuitCommandTest : public LifecycleTest, public ::testing::WithParamInterface<bool> {};

TEST_P(QuitCommandTest, AsksFirst) {
    const bool confirmed = GetParam();
    startDownloading();
    ASSERT_TRUE(host_->click("Quit"));
    ASSERT_TRUE(answerAlert("Ferrybox", confirmed));
    if (confirmed) {
        EXPECT_EQ(waitForAgentExit(kQuitWithinMs), 0);
        EXPECT_EQ(partialFiles().size(), 1);
    } else {
        EXPECT_TRUE(menuHas("1 Download"));
        EXPECT_TRUE(agentRunning());
        releaseFiles();
        EXPECT_TRUE(waitUntil([this] { return QFile::exists(downloadFolder() + "/big.bin"); }));
    }
}

INSTANTIATE_TEST_SUITE_P(Desktop, QuitCommandTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Quit" : "Cancel"; });

// A killed agent cannot clean up; the next one goes on with the transfer it left and removes
// what no one will finish, and nothing else: not a file of the person's own, not the partial
// file of a transfer that still runs.
TEST_F(LifecycleTest, TheNextStartFinishesAKilledAgentsTransferAndSweepsTheRest) {
    startDownloading();
    const QString left = downloadFolder() + "/" + partialFiles().first();
    ::kill(static_cast<pid_t>(agent_.processId()), SIGKILL);
    ASSERT_TRUE(waitForAgentExit(5000).has_value());
    ASSERT_TRUE(QFile::exists(left));
    const QStringList kept = {".notes.part", ".film.mkv.part",
                              QString(".running.bin.%1-1.part").arg(::getpid())};
    // Of a process that has ended, as an older Ferrybox named them.
    qint64 ended = 0;
    ASSERT_TRUE(QProcess::startDetached("true", {}, {}, &ended));
    ASSERT_TRUE(waitUntil([&] { return ::kill(static_cast<pid_t>(ended), 0) != 0; }));
    const QString stale = QStringLiteral(".old.bin.%1-1.part").arg(ended);
    for (const QString& name : kept + QStringList{stale}) {
        QFile file(downloadFolder() + "/" + name);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    }
    stopTray();
    startAgent();
    EXPECT_TRUE(waitUntil([&] { return !QFile::exists(downloadFolder() + "/" + stale); }, 10000));
    EXPECT_TRUE(QFile::exists(left)) << "going on";
    releaseFiles();
    EXPECT_TRUE(waitUntil([&] { return QFile::exists(downloadFolder() + "/big.bin"); }, 15000));
    QStringList expected = kept;
    expected.sort();
    QStringList remaining = partialFiles();
    remaining.sort();
    EXPECT_EQ(remaining, expected);
}

}  // namespace
}  // namespace desktoptest
