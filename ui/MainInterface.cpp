// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/MainInterface.h"

#include <QActionGroup>

#include "ui/IntervalInput.h"
#include "ui/WindowFitsContents.h"
#include "ui_PreferencesWindow.h"

// Resources of a static library must be registered by hand, and outside any namespace.
static void registerUiResources() {
    Q_INIT_RESOURCE(ui);
}

MainInterface::MainInterface() : form_(std::make_unique<Ui::PreferencesWindow>()) {
    registerUiResources();
    form_->setupUi(&window_);
    connectOutlets();
    connectActions();
    delegate_.attachTo(&window_);
    new WindowFitsContents(&window_);
}

MainInterface::~MainInterface() = default;

QWidget& MainInterface::noTrayNotice() {
    return *form_->noTrayNotice;
}

void MainInterface::connectOutlets() {
    auto& c = controller_;
    c.setPrefsWindow(&window_);
    c.setEmailField(form_->emailField);
    c.setPasswordField(form_->passwordField);
    c.setRememberInKeychainButton(form_->rememberInKeychainButton);
    c.setKeepLogButton(form_->keepLogButton);
    c.setClearLogButton(form_->clearLogButton);
    c.setStartButton(form_->startButton);
    c.setErrorLabel(form_->errorLabel);
    c.setDownloadLabel(form_->downloadLabel);
    c.setUseGrowlButton(form_->useGrowlButton);
    c.setIntervalField(form_->intervalField);
    c.setLoginSpinner(form_->loginSpinner);
    c.setPrefsToolbar(form_->prefsToolbar);
    appMenu_.setTitle(QStringLiteral("Ferrybox"));
    c.setAppMenu(&appMenu_);
    c.setOpenAtLoginButton(form_->openAtLoginButton);
    c.setPutFailedLinksBackButton(form_->putFailedLinksBackButton);
    c.setDirectoryField(form_->directoryField);
    c.setKeyringLabel(form_->keyringLabel);
    c.setVideoPageToolField(form_->videoPageToolField);
    c.setVideoPageToolLabel(form_->videoPageToolLabel);
    c.setVideoPageFormatMenu(form_->videoPageFormatMenu);
    loginItems_.setOpenAtLoginButton(form_->openAtLoginButton);
    new IntervalInput(form_->intervalField, [this] { return controller_.interval().toString(); });
}

void MainInterface::connectActions() {
    auto* startButton = form_->startButton;
    QObject::connect(startButton, &QPushButton::clicked, &controller_, [this, startButton] {
        controller_.tryToPerform(controller_.startButtonAction(), startButton);
    });
    const std::pair<QAbstractButton*, const char*> buttons[] = {
        {form_->rememberInKeychainButton, "toggleRememberInKeychain:"},
        {form_->keepLogButton, "toggleLogNote:"},
        {form_->clearLogButton, "clearLogNote:"},
        {form_->putFailedLinksBackButton, "togglePutFailedLinksBack:"},
        {form_->useGrowlButton, "toggleGrowl:"},
        {form_->intervalHelpButton, "showIntervalHelp:"},
        {form_->changeDirectoryButton, "changeDownloadDirectory:"},
        {form_->videoPageToolBrowseButton, "chooseVideoPageTool:"},
        {form_->quitButton, "terminate:"},
    };
    for (const auto& [button, action] : buttons) {
        QObject::connect(button, &QAbstractButton::clicked, &controller_,
                         [this, button = button, action = QString::fromLatin1(action)] {
                             controller_.tryToPerform(action, button);
                         });
    }
    QObject::connect(form_->intervalField, &QLineEdit::editingFinished, &controller_,
                     [this] { controller_.controlTextDidEndEditing(form_->intervalField); });
    QObject::connect(form_->videoPageToolField, &QLineEdit::editingFinished, &controller_, [this] {
        controller_.tryToPerform(QStringLiteral("changeVideoPageTool:"), form_->videoPageToolField);
    });
    // Only a person's choice: filling the menu at start-up is no change.
    QObject::connect(form_->videoPageFormatMenu, &QComboBox::activated, &controller_, [this] {
        controller_.tryToPerform(QStringLiteral("changeVideoPageTool:"),
                                 form_->videoPageFormatMenu);
    });
    QObject::connect(form_->openAtLoginButton, &QAbstractButton::clicked, &loginItems_,
                     [this] { loginItems_.addToLoginItems(form_->openAtLoginButton); });

    // The toolbar selects one pane at a time, and cannot be hidden: it is the way to two of them.
    form_->prefsToolbar->toggleViewAction()->setEnabled(false);
    auto* panes = new QActionGroup(&window_);
    panes->setExclusive(true);
    const QList<QAction*> actions = paneActions();
    for (int i = 0; i < actions.size(); ++i) {
        panes->addAction(actions[i]);
        QObject::connect(actions[i], &QAction::triggered, form_->panes, [this, i] { showPane(i); });
    }
    // An error is shown where it can be read: on the account pane, beside the account's fields.
    controller_.setErrorShownHandler([this] { showPane(0); });
}

QList<QAction*> MainInterface::paneActions() const {
    return {form_->accountAction, form_->downloadsAction, form_->optionsAction};
}

void MainInterface::showPane(int index) {
    paneActions()[index]->setChecked(true);
    form_->panes->setCurrentIndex(index);
}
