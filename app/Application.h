#pragma once

#include <QObject>
#include <memory>

#include "app/HeadlessReporter.h"
#include "app/Options.h"

class MainInterface;

// The running agent: the interface definition loaded, the controller started, and the ways out
// (the Quit command, SIGINT and SIGTERM) routed through the quit guard. In headless mode it also
// answers for the person who is not there.
class Application : public QObject {
public:
    explicit Application(const Options& options);
    ~Application() override;

    // Runs start-up; false (with the exit status set) when the agent cannot run.
    bool start();
    // Asks the controller's quit guard and quits when it agrees.
    void terminate();
    int exitStatus() const { return exitStatus_; }
    MainInterface& interface() { return *interface_; }

private:
    void watchLogin();
    void finishWhenIdle();
    void installSignalHandlers();

    Options options_;
    HeadlessReporter reporter_;
    std::unique_ptr<MainInterface> interface_;
    int exitStatus_ = 0;
};
