// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/Application.h"

#include <sys/socket.h>
#include <unistd.h>
#include <QApplication>
#include <QFileInfo>
#include <QLineEdit>
#include <QSocketNotifier>
#include <QTextStream>
#include <QTimer>
#include <csignal>

#include "app/PasswordFile.h"
#include "client/LWSimplenoteLogin.h"
#include "foundation/DownloadJournal.h"
#include "foundation/Log.h"
#include "foundation/NotificationCenter.h"
#include "foundation/PartialFiles.h"
#include "foundation/Paths.h"
#include "foundation/RunLoop.h"
#include "foundation/Timer.h"
#include "foundation/URLConnection.h"
#include "foundation/URLDownload.h"
#include "platform/AgentInstance.h"
#include "ui/AboutPanel.h"
#include "ui/FileDialogPresenters.h"
#include "ui/MainInterface.h"
#include "ui/MessageBoxPresenter.h"
#include "ui/NoTrayFallback.h"
#include "ui/TrayAvailability.h"
#include "ui/TrayIcon.h"

namespace {

int signalPipe[2] = {-1, -1};

// One byte per signal, telling which it was; the event loop does the work.
constexpr char kQuitSignal = 1;
constexpr char kCheckSignal = 2;

void onSignal(int signal) {
    const char byte = signal == SIGUSR1 ? kCheckSignal : kQuitSignal;
    [[maybe_unused]] auto written = ::write(signalPipe[1], &byte, 1);
}

void printError(const QString& text) {
    QTextStream(stderr) << text << Qt::endl;
}

const QString kLoginSucceeded = QStringLiteral("LWSimplenoteLoginLoginSuccessNotification");
const QString kLoginFailed = QStringLiteral("LWSimplenoteLoginLoginFailureNotification");

}  // namespace

Application::Application(const Options& options) : options_(options) {
    if (!options_.headless) {
        // Before the tray icon exists: Qt picks its kind of tray here.
        tray_ = std::make_unique<ui::TrayAvailability>();
        ui::installTrayStatusBar();
        ui::installMessageBoxPresenter();
        ui::installFileDialogPresenters();
    }
    interface_ = std::make_unique<MainInterface>();
    AppController& controller = interface_->controller();
    controller.setApplicationActions(ui::orderFrontStandardAboutPanel, [this] { terminate(); });
    // The running agent hears of changes to the download note at once; a single check is over
    // before any change could matter.
    controller.setListensForChanges(!options_.once);
    if (options_.headless) {
        controller.setDownloadReporter(&reporter_);
    } else {
        const auto showPreferences = [this] { interface_->controller().showPreferences(nullptr); };
        noTray_ = std::make_unique<ui::NoTrayFallback>(*tray_, interface_->window(),
                                                       interface_->noTrayNotice(), showPreferences);
        AgentInstance::session().setShowPreferences(showPreferences);
    }
    // The session manager's "quit" (at logout) reaches the application object as a Quit event.
    QCoreApplication::instance()->installEventFilter(this);
}

Application::~Application() {
    if (loginAgain_)
        loginAgain_->invalidate();
    if (!options_.headless)
        AgentInstance::session().setShowPreferences(nullptr);
    QCoreApplication::instance()->removeEventFilter(this);
    foundation::NotificationCenter::defaultCenter().removeObserver(this);
}

bool Application::start() {
    QString password;
    if (!options_.passwordFile.isNull()) {
        const PasswordFileResult result = readPasswordFile(options_.passwordFile);
        if (result.password.isNull()) {
            printError(QStringLiteral("ferrybox: ") + result.error);
            exitStatus_ = 2;
            return false;
        }
        password = result.password;
    }
    AppController& controller = interface_->controller();
    controller.setAccountOverride(options_.email, password);
    installSignalHandlers();
    if (options_.headless)
        watchLogin();

    controller.awakeFromNib();
    // A signal that came while start-up waited (for the keyring, say) found no event loop to end:
    // it ends the agent here instead, with the status a later one gives.
    if (quitAsked_)
        return false;
    controller.applicationDidFinishLaunching();
    if (noTray_)
        noTray_->start();

    // Start-up disables the account fields exactly when it begins a login.
    if (options_.headless && controller.emailField()->isEnabled()) {
        printError(
            QStringLiteral("ferrybox: no account to log in with: give --email and "
                           "--password-file, or store the password in the keyring"));
        exitStatus_ = 1;
        return false;
    }
    // Before the first check (it follows the login's answer): the transfers that an earlier
    // agent left unfinished go on, and what a killed agent left that no journal keeps goes.
    QStringList journaled;
    if (foundation::DownloadJournal::open(foundation::DownloadJournal::standardPath())) {
        controller.resumeUnfinishedDownloads();
        for (const QString& part : foundation::DownloadJournal::shared()->partialFiles())
            journaled << QFileInfo(part).absoluteFilePath();
    }
    foundation::PartialFiles::removeStale(
        foundation::expandingTildeInPath(controller.downloadDirectory()), journaled);
    return !quitAsked_;
}

// A second agent in one session would download every link twice: when one already runs, it is
// asked to show its window instead. Without a session bus the agent runs regardless.
bool Application::becomeTheSessionAgent(int* exitStatus) {
    AgentInstance& session = AgentInstance::session();
    // The running agent may end between the two steps: then the name is free again.
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (session.claim() != AgentInstance::RunningElsewhere)
            return true;
        if (session.showRunningAgent()) {
            *exitStatus = 0;
            return false;
        }
    }
    printError(
        QStringLiteral("ferrybox: another Ferrybox runs in this session and does not answer"));
    *exitStatus = 1;
    return false;
}

// Nobody is there to correct the account, so a failed login ends a headless run; with --once a
// successful one leads to a single check. A login refused for too many attempts says nothing
// against the account: the run waits as long as the service asks and logs in again, as often as
// it takes.
void Application::watchLogin() {
    auto& center = foundation::NotificationCenter::defaultCenter();
    center.addObserver(this, kLoginFailed, nullptr, [this](const foundation::Notification& n) {
        // The reason follows: the controller, told next, logs it as it does on the desktop.
        printError(QStringLiteral("Error logging in to Simplenote."));
        const auto login = LWSNObject::fromNotification<LWSimplenoteLogin>(n);
        if (login && login->secondsToWait()) {
            logInAgainAfter(*login->secondsToWait());
            return;
        }
        exitStatus_ = 1;
        QCoreApplication::exit(1);
    });
    if (!options_.once)
        return;
    center.addObserver(this, kLoginSucceeded, nullptr,
                       [this](const foundation::Notification&) { finishWhenIdle(); });
}

// Work of the default mode, like the check timer: the login waits while the mode is held.
void Application::logInAgainAfter(int seconds) {
    loginAgain_ = foundation::Timer::create(
        seconds, false, [this] { interface_->controller().turnFerryboxOn(nullptr); });
    loginAgain_->scheduleInDefaultMode();
}

// Called while the login's success is being posted: the first check runs right after, so look
// for idleness only from the next turn of the event loop on. The look is work of the default
// mode, like the check itself: it waits while the mode is held (a keyring call under way).
void Application::finishWhenIdle() {
    idlePoll_ = foundation::Timer::create(0.02, true, [this] {
        AppController& controller = interface_->controller();
        if (foundation::URLConnection::inFlightCount() > 0 ||
            foundation::URLDownload::inFlightCount() > 0 || !controller.downloadList().empty()) {
            return;
        }
        idlePoll_->invalidate();
        exitStatus_ = controller.failuresReported() > 0 || reporter_.failures() > 0 ? 1 : 0;
        terminate();
    });
    idlePoll_->scheduleInDefaultMode();
}

void Application::terminate() {
    if (interface_->controller().applicationShouldTerminate() == AppController::TerminateNow)
        quit();
}

// Nothing goes on after the decision to quit: the transfers stop where they are, for the next
// start to go on with, and a request still under way (a note's push, say) is given up as the
// process's end would.
void Application::quit() {
    quitAsked_ = true;
    foundation::URLDownload::suspendAll();
    foundation::URLConnection::cancelAll();
    QCoreApplication::exit(exitStatus_);
}

bool Application::eventFilter(QObject* watched, QEvent* event) {
    if (watched == QCoreApplication::instance() && event->type() == QEvent::Quit) {
        quit();
        return true;
    }
    return QObject::eventFilter(watched, event);
}

void Application::installSignalHandlers() {
    if (signalPipe[0] < 0 && ::socketpair(AF_UNIX, SOCK_STREAM, 0, signalPipe) != 0) {
        foundation::log(QStringLiteral("cannot watch SIGINT, SIGTERM and SIGUSR1"));
        return;
    }
    auto* notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, this);
    QObject::connect(notifier, &QSocketNotifier::activated, this, [this] {
        char byte = kQuitSignal;
        [[maybe_unused]] auto got = ::read(signalPipe[0], &byte, 1);
        if (byte != kCheckSignal) {
            quit();
            return;
        }
        // "Check For Downloads Now" for a script or a service manager, as the menu's own:
        // work of the default mode, while the agent runs.
        foundation::RunLoop::main().performInDefaultMode(
            [this] {
                AppController& controller = interface_->controller();
                if (controller.appRunning())
                    controller.tryToPerform(QStringLiteral("searchForNote"), nullptr);
            },
            this);
    });
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGUSR1, &action, nullptr);
}
