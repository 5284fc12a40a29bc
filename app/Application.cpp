#include "app/Application.h"

#include <sys/socket.h>
#include <unistd.h>
#include <QApplication>
#include <QLineEdit>
#include <QSocketNotifier>
#include <QTextStream>
#include <QTimer>
#include <csignal>

#include "app/PasswordFile.h"
#include "foundation/Log.h"
#include "foundation/NotificationCenter.h"
#include "foundation/URLConnection.h"
#include "foundation/URLDownload.h"
#include "ui/AboutPanel.h"
#include "ui/FolderDialogPresenter.h"
#include "ui/MainInterface.h"
#include "ui/MessageBoxPresenter.h"
#include "ui/TrayIcon.h"

namespace {

int signalPipe[2] = {-1, -1};

void onSignal(int) {
    const char byte = 1;
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
        ui::installTrayStatusBar();
        ui::installMessageBoxPresenter();
        ui::installFolderDialogPresenter();
    }
    interface_ = std::make_unique<MainInterface>();
    AppController& controller = interface_->controller();
    controller.setApplicationActions(ui::orderFrontStandardAboutPanel, [this] { terminate(); });
    if (options_.headless)
        controller.setDownloadReporter(&reporter_);
}

Application::~Application() {
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
    controller.applicationDidFinishLaunching();

    // Start-up disables the account fields exactly when it begins a login.
    if (options_.headless && controller.emailField()->isEnabled()) {
        printError(
            QStringLiteral("ferrybox: no account to log in with: give --email and "
                           "--password-file, or store the password in the keyring"));
        exitStatus_ = 1;
        return false;
    }
    return true;
}

// Nobody is there to correct the account, so a failed login ends a headless run; with --once a
// successful one leads to a single check.
void Application::watchLogin() {
    auto& center = foundation::NotificationCenter::defaultCenter();
    center.addObserver(this, kLoginFailed, nullptr, [this](const foundation::Notification& n) {
        QString reason;
        if (const auto* error = n.value<foundation::Error>(QStringLiteral("error"))) {
            reason = error->localizedDescription;
        }
        printError(QStringLiteral("Error logging in to Simplenote."));
        if (!reason.isEmpty())
            printError(reason);
        exitStatus_ = 1;
        QCoreApplication::exit(1);
    });
    if (!options_.once)
        return;
    center.addObserver(this, kLoginSucceeded, nullptr,
                       [this](const foundation::Notification&) { finishWhenIdle(); });
}

// Called while the login's success is being posted: the first check runs right after, so look
// for idleness only from the next turn of the event loop on.
void Application::finishWhenIdle() {
    auto* poll = new QTimer(this);
    poll->setInterval(20);
    QObject::connect(poll, &QTimer::timeout, this, [this, poll] {
        AppController& controller = interface_->controller();
        if (foundation::URLConnection::inFlightCount() > 0 ||
            foundation::URLDownload::inFlightCount() > 0 || !controller.downloadList().empty()) {
            return;
        }
        poll->stop();
        poll->deleteLater();
        exitStatus_ = controller.failuresReported() > 0 || reporter_.failures() > 0 ? 1 : 0;
        terminate();
    });
    poll->start();
}

void Application::terminate() {
    if (interface_->controller().applicationShouldTerminate() == AppController::TerminateNow) {
        QCoreApplication::exit(exitStatus_);
    }
}

void Application::installSignalHandlers() {
    if (signalPipe[0] < 0 && ::socketpair(AF_UNIX, SOCK_STREAM, 0, signalPipe) != 0) {
        foundation::log(QStringLiteral("cannot watch SIGINT and SIGTERM"));
        return;
    }
    auto* notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, this);
    QObject::connect(notifier, &QSocketNotifier::activated, this, [this] {
        char byte;
        [[maybe_unused]] auto got = ::read(signalPipe[0], &byte, 1);
        terminate();
    });
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}
