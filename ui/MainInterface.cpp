#include "ui/MainInterface.h"

#include <QActionGroup>

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
}

MainInterface::~MainInterface() = default;

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
    c.setAppMenu(form_->appMenu);
    c.setOpenAtLoginButton(form_->openAtLoginButton);
}

void MainInterface::connectActions() {
    auto* startButton = form_->startButton;
    QObject::connect(startButton, &QPushButton::clicked, &controller_, [this, startButton] {
        controller_.tryToPerform(controller_.startButtonAction(), startButton);
    });

    // The toolbar selects one pane at a time.
    auto* panes = new QActionGroup(&window_);
    panes->setExclusive(true);
    const QList<QAction*> actions{form_->accountAction, form_->downloadsAction,
                                  form_->optionsAction};
    for (int i = 0; i < actions.size(); ++i) {
        panes->addAction(actions[i]);
        QObject::connect(actions[i], &QAction::triggered, form_->panes,
                         [this, i] { form_->panes->setCurrentIndex(i); });
    }
}
