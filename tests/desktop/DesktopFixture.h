// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <gtest/gtest.h>

#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>
#include <memory>
#include <optional>

#include "tests/support/FixtureServer.h"
#include "tests/support/NotesAccount.h"
#include "tests/support/NotesServerProcess.h"
#include "tests/support/NotificationRecorder.h"
#include "tests/support/StatusNotifierHost.h"
#include "tests/support/VirtualDisplay.h"

namespace desktoptest {

// What shows the agent's icon: a panel speaking StatusNotifierItem over D-Bus (most desktops
// today), an XEmbed system tray (older panels), or nothing at all (stock GNOME).
enum class Tray { StatusNotifier, XEmbed, None };
const char* trayName(Tray tray);

constexpr qint64 kMiB = 1024 * 1024;

// The GUI agent where people run it: the real ferrybox binary on the xcb platform of an Xvfb
// display of the test's own, on the test process's private session bus with a notification
// recorder, against the real ferrybox-notes (an account whose download note the test writes) and
// a loopback file server, in a home folder of its own. Links to open go to a stand-in xdg-open
// that records them.
class DesktopTest : public ::testing::Test {
public:
    testsupport::VirtualDisplay& display() { return display_; }

protected:
    void SetUp() override;
    void TearDown() override;

    // The desktop's tray, started before the agent unless a test says otherwise.
    void startTray(Tray tray);
    void stopTray();

    // A file of this size at path; with heldAfter, the server sends that many bytes and then
    // holds the rest until releaseFiles().
    void serveFile(const std::string& path, qint64 size, std::optional<qint64> heldAfter = {});
    void releaseFiles() { files_.releaseStalled(); }
    QString fileLink(const std::string& pathAndQuery) const;
    // Makes the account's download note hold these links under its header.
    void queueLinks(const QStringList& links);

    // Starts ferrybox with the account's address and password file (and these arguments); the
    // agent logs in at once. Without them it starts as from the desktop's menu.
    enum class Account { Given, Stored };
    void startAgent(const QStringList& arguments = {}, Account account = Account::Given);
    // Writes the agent's settings file, as an earlier run would have left it.
    void writeSettings(const QByteArray& text);
    // Runs another ferrybox as a person would start it again; its exit status, or -1 when it
    // did not end within the time-out.
    int runSecondAgent();
    bool agentRunning() const { return agent_.state() != QProcess::NotRunning; }
    // Waits for the agent to end; its exit code, or nullopt after the time-out.
    std::optional<int> waitForAgentExit(int timeoutMs);
    QString agentOutput();

    QString downloadFolder() const;
    // Hidden partial files of transfers in the download folder.
    QStringList partialFiles() const;
    // The addresses the agent asked the desktop to open.
    QStringList openedLinks() const;

    // The preferences window when it is mapped.
    std::optional<testsupport::VirtualDisplay::Window> preferencesWindow();
    // Answers the alert of this title with its default button (Return) or by dismissing it
    // (Escape); false when no such alert opened.
    bool answerAlert(const QString& title, bool withDefaultButton = true);
    // Waits until the tray's menu (as the StatusNotifier host reads it) satisfies pred.
    bool waitForMenu(const std::function<bool(const QStringList&)>& pred, int timeoutMs = 10000);
    bool menuHas(const QString& line);
    // Which of the agent's images the docked XEmbed icon shows ("down_16.png"), as read off the
    // screen; empty without a docked icon, "?" for anything else.
    QString dockedIconName();
    // Opens the XEmbed icon's menu with a right click, then the downloads submenu by keys (from
    // the top the fourth item up, as a person would); false when no submenu opened.
    bool openDockedDownloadsSubmenu();
    // Notifications the agent sent under this name ("Download complete").
    int notificationsNamed(const QString& name) const;

    QString imageFolder() const;

    // Whether the account has its download note before the agent starts.
    bool withDownloadNote_ = true;

    testsupport::VirtualDisplay display_;
    testsupport::NotificationRecorder notifications_;
    std::unique_ptr<testsupport::StatusNotifierHost> host_;
    std::unique_ptr<testsupport::NotesServerProcess> notes_;
    std::unique_ptr<testsupport::NotesAccount> account_;
    testsupport::FixtureServer files_;
    QTemporaryDir home_;
    QProcess trayer_;
    QProcess agent_;
    QByteArray agentLog_;
    std::string downloadNoteKey_;
};

}  // namespace desktoptest
