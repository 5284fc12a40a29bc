// SPDX-License-Identifier: GPL-3.0-or-later
// Turning the agent on (a login, then the repeating check timer) and off, and the quit guard.
#include <QCheckBox>
#include <QLabel>
#include <QLineEdit>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QWidget>
#include <cmath>

#include "agent/AppController.h"
#include "client/LWSimplenoteLogin.h"
#include "foundation/AlertPanel.h"
#include "foundation/Log.h"
#include "foundation/Timer.h"
#include "foundation/UserDefaults.h"
#include "platform/KCKeychainItem.h"

namespace {

const QString kTurnOn = QStringLiteral("turnFerryboxOn:");
const QString kTurnOff = QStringLiteral("turnFerryboxOff:");

// The number's 32-bit integer value: a fraction is cut off, and a whole number beyond 32 bits
// keeps its low 32 bits, as a 64-bit integer converted to 32 bits does. NaN and the infinities
// have no integer value and count as 0.
qint32 int32Value(const QVariant& number) {
    const auto wrap = [](qint64 n) { return static_cast<qint32>(static_cast<quint32>(n)); };
    switch (number.typeId()) {
        case QMetaType::Int:
        case QMetaType::UInt:
        case QMetaType::Long:
        case QMetaType::LongLong:
        case QMetaType::ULongLong:
            return wrap(number.toLongLong());
        default:
            break;
    }
    const double value = number.toDouble();
    if (!std::isfinite(value))
        return 0;
    // Exactly representable, and strictly inside the range of qint64.
    return wrap(static_cast<qint64>(std::fmod(std::trunc(value), 4294967296.0)));
}

// The stored interval in whole minutes. Anything under one minute would make the agent hammer
// the service, so one minute is the shortest period the timer gets.
double checkPeriodSeconds(const QVariant& interval) {
    return std::max<qint32>(int32Value(interval), 1) * 60.0;
}

}  // namespace

AppController::AppController() = default;
AppController::~AppController() {
    if (timer_)
        timer_->invalidate();
    stopListeningForChanges();
    foundation::NotificationCenter::defaultCenter().removeObserver(this);
}

void AppController::turnFerryboxOn(QObject*) {
    auto login = LWSNObject::create<LWSimplenoteLogin>();
    login->setEmail(emailField_->text());
    login->setPassword(passwordField_->text());
    login->addObserver(
        this, QStringLiteral("login"),
        [this](const foundation::Notification& n) { loginSucceeded(n); },
        [this](const foundation::Notification& n) { loginFailed(n); });
    login->login();

    startSpinner(true);
    emailField_->setEnabled(false);
    passwordField_->setEnabled(false);
}

void AppController::loginSucceeded(const foundation::Notification&) {
    setStartButtonAction(QStringLiteral("Stop Ferrybox"), kTurnOff);
    showError(QString());
    downloadLabel_->setEnabled(true);
    keepLogButton_->setEnabled(true);
    startSpinner(false);
    prefsWindow_->hide();

    foundation::UserDefaults::standardUserDefaults().setObject(emailField_->text(),
                                                               QStringLiteral("email"));
    if (rememberInKeychainButton_->isChecked())
        rememberPassword();
    appRunning_ = true;
    armCheckTimer();
    listenForChanges();
}

// A new repeating timer, its first check at once. An earlier timer is not invalidated here: a
// second login while one is armed leaves both running, as a second press of Start always has.
void AppController::armCheckTimer() {
    // An earlier timer may outlive this controller; it must not call into a destroyed one.
    QPointer<AppController> controller(this);
    timer_ = foundation::Timer::create(checkPeriodSeconds(interval_), true, [controller] {
        if (controller)
            controller->searchForNote();
    });
    updateMenu();
    timer_->scheduleInDefaultMode();
    timer_->fire();
}

// The label's text is fixed and the window has no place for more, so why the login failed (a
// wrong account, or too many attempts and how long to wait) goes to the log.
void AppController::loginFailed(const foundation::Notification& notification) {
    const auto* error = notification.value<foundation::Error>(QStringLiteral("error"));
    if (error && !error->localizedDescription.isEmpty())
        foundation::log(error->localizedDescription);
    emailField_->setEnabled(true);
    passwordField_->setEnabled(true);
    showError(QStringLiteral("Error logging in to Simplenote."));
    startSpinner(false);
    showPreferencesWindow();
}

void AppController::turnFerryboxOff(QObject*) {
    if (!appRunning_)
        return;
    if (downloadList_.empty()) {
        turnOff();
        return;
    }
    const auto answer = foundation::AlertPanel::runModal(
        {QStringLiteral("Ferrybox"),
         QStringLiteral("Files are still being downloaded.\n\nAre you sure you want to turn "
                        "Ferrybox off?\n\n(If you turn Ferrybox off, partially-downloaded files "
                        "will be deleted.)"),
         QStringLiteral("Turn Ferrybox Off"), QStringLiteral("Cancel"), QString()});
    if (answer != foundation::AlertPanel::DefaultReturn)
        return;

    for (const auto& download : downloadList_)
        download->cancel();
    downloadList_ = DownloadList();
    turnOff();
}

void AppController::turnOff() {
    if (timer_)
        timer_->invalidate();
    stopChecks();
    stopListeningForChanges();
    emailField_->setEnabled(true);
    passwordField_->setEnabled(true);
    setStartButtonAction(QStringLiteral("Start Ferrybox"), kTurnOn);
    appRunning_ = false;
    statusItem_->setAlternateImage(QString());
    updateMenu();
}

AppController::TerminateReply AppController::applicationShouldTerminate() {
    if (downloadList_.empty())
        return TerminateNow;
    const auto answer = foundation::AlertPanel::runModal(
        {QStringLiteral("Ferrybox"),
         QStringLiteral("Files are still being downloaded.\n\nAre you sure you want to quit?"),
         QStringLiteral("Quit"), QStringLiteral("Cancel"), QString()});
    return answer == foundation::AlertPanel::DefaultReturn ? TerminateNow : TerminateCancel;
}

void AppController::setStartButtonAction(const QString& title, const QString& action) {
    startButton_->setText(title);
    startButtonAction_ = action;
}

// A progress bar with an empty range is Qt's busy indicator: that is the spinning state.
void AppController::startSpinner(bool on) {
    loginSpinner_->setRange(0, on ? 0 : 1);
    loginSpinner_->setVisible(on);
}

void AppController::showError(const QString& text) {
    errorLabel_->setText(text);
    if (!text.isEmpty() && errorShown_)
        errorShown_();
}

void AppController::showPreferencesWindow() {
    showPreferences(nullptr);
}
