// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>
#include <memory>

#include "app/HeadlessReporter.h"
#include "app/Options.h"

class MainInterface;
namespace foundation {
class Timer;
}  // namespace foundation
namespace ui {
class NoTrayFallback;
class TrayAvailability;
}  // namespace ui

// The running agent: the interface definition loaded, the controller started, and the ways out.
// The Quit command asks the controller's quit guard; SIGINT, SIGTERM and the session's end quit
// without asking. Either way the running transfers are cancelled and their partial files deleted
// first. On a desktop it is the session's one agent; in headless mode it answers for the person
// who is not there.
class Application : public QObject {
public:
    explicit Application(const Options& options);
    ~Application() override;

    // On a desktop, before anything else: claims the session for this agent, or has the agent
    // that runs already show its window; false (with the status to exit with) in that case.
    static bool becomeTheSessionAgent(int* exitStatus);

    // Runs start-up; false (with the exit status set) when the agent cannot run, or was asked to
    // quit meanwhile.
    bool start();
    // The Quit command: asks the controller's quit guard and quits when it agrees.
    void terminate();
    // Quits at once; before the main event loop runs, start() ends the agent instead.
    void quit();
    int exitStatus() const { return exitStatus_; }
    MainInterface& interface() { return *interface_; }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void watchLogin();
    void logInAgainAfter(int seconds);
    void finishWhenIdle();
    void installSignalHandlers();

    Options options_;
    HeadlessReporter reporter_;
    std::unique_ptr<ui::TrayAvailability> tray_;
    std::unique_ptr<MainInterface> interface_;
    std::unique_ptr<ui::NoTrayFallback> noTray_;
    std::shared_ptr<foundation::Timer> idlePoll_;
    std::shared_ptr<foundation::Timer> loginAgain_;
    int exitStatus_ = 0;
    // quit() ends an event loop that runs; during start-up none does yet.
    bool quitAsked_ = false;
};
