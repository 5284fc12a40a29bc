// SPDX-License-Identifier: GPL-3.0-or-later
// The preferences window used as a person would: each control's action and what it leaves in
// the settings, the keyring and the agent.
#include <QApplication>
#include <QCheckBox>
#include <QContextMenuEvent>
#include <QDir>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QMenu>
#include <QMenuBar>
#include <QPushButton>
#include <QScopeGuard>
#include <QStackedWidget>
#include <QTest>
#include <QToolBar>
#include <QToolButton>

#include "foundation/Log.h"
#include "foundation/OpenPanel.h"
#include "foundation/Timer.h"
#include "platform/KCKeychainItem.h"
#include "tests/agent/AgentFixture.h"
#include "tests/support/PrivateKeyring.h"
#include "tests/support/Wait.h"
#include "ui/NoTrayFallback.h"
#include "ui/TrayAvailability.h"

namespace agenttest {
namespace {

using testsupport::waitUntil;

class PreferencesTest : public AgentTest {
protected:
    template <class T>
    T* control(const char* name) {
        return interface().window().findChild<T*>(name);
    }
    int searches() const {
        int n = 0;
        for (const auto& r : server().requests())
            n += r.path == "/api/search";
        return n;
    }
};

TEST_F(PreferencesTest, IntervalTakesEffectAtOnceWhileOn) {
    answerLogin("token");
    startWithAccount("me@example.org", "secret");
    ASSERT_TRUE(waitForRunning());
    ASSERT_TRUE(waitUntil([this] { return searches() == 1; }));
    const auto first = controller().timer();
    QLineEdit* field = controller().intervalField();
    field->selectAll();
    QTest::keyClicks(field, "5");
    QTest::keyClick(field, Qt::Key_Return);
    EXPECT_FALSE(first->isValid());
    EXPECT_EQ(controller().timer()->timeInterval(), 300.0);
    EXPECT_TRUE(waitUntil([this] { return searches() == 2; })) << "a check at once";
    EXPECT_EQ(storedDefault("interval").toInt(), 5);
}

// The interval as a person types it, one edit after another: digits only, whole minutes from
// one; an edit that is refused shows the interval in force again, and changes nothing.
TEST_F(PreferencesTest, TypingTheInterval) {
    struct Edit {
        const char* keys;
        bool byFocusOut;  // else by Return
        const char* shown;
        int inForce;
    };
    const Edit edits[] = {
        {"1,440", false, "1440", 1440},  // no group separators
        {"0", false, "1440", 1440},
        {"", true, "1440", 1440},
        {"5", true, "5", 5},
        {"abc", false, "5", 5},
        {"-3", false, "3", 3},
        {"1234567890", false, "123456789", 123456789},
    };
    // A locale that writes thousands with a separator.
    QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
    const auto restore = qScopeGuard([] { QLocale::setDefault(QLocale::c()); });
    interface_ = std::make_unique<MainInterface>();
    controller().awakeFromNib();
    QLineEdit* field = controller().intervalField();
    for (const Edit& edit : edits) {
        SCOPED_TRACE(edit.keys);
        field->selectAll();
        QTest::keyClick(field, Qt::Key_Backspace);
        QTest::keyClicks(field, edit.keys);
        if (edit.byFocusOut) {
            QFocusEvent out(QEvent::FocusOut, Qt::TabFocusReason);
            QCoreApplication::sendEvent(field, &out);
        } else {
            QTest::keyClick(field, Qt::Key_Return);
        }
        EXPECT_TRUE(waitUntil([&] { return field->text() == edit.shown; }))
            << field->text().toStdString();
        EXPECT_EQ(controller().interval().toInt(), edit.inForce);
        EXPECT_EQ(storedDefault("interval").toInt(), edit.inForce);
    }
}

TEST_F(PreferencesTest, IntervalWhileOffIsOnlySaved) {
    controller().awakeFromNib();
    controller().intervalField()->selectAll();
    QTest::keyClicks(controller().intervalField(), "7");
    QTest::keyClick(controller().intervalField(), Qt::Key_Return);
    EXPECT_EQ(storedDefault("interval").toInt(), 7);
    EXPECT_EQ(controller().timer(), nullptr);
    EXPECT_TRUE(server().requests().empty());
}

// Ticking fills the password of the shown address from the keyring; unticking forgets the whole
// account, the keyring's item included.
TEST_F(PreferencesTest, RememberingThePassword) {
    controller().awakeFromNib();
    KCGenericKeychainItem::addGenericKeychainItemForService("Ferrybox", "me@example.org", "kept");
    controller().emailField()->setText("me@example.org");
    control<QCheckBox>("rememberInKeychainButton")->click();
    EXPECT_EQ(storedDefault("shouldRememberPassword"), QVariant("yes"));
    EXPECT_EQ(controller().passwordField()->text(), "kept");

    control<QCheckBox>("rememberInKeychainButton")->click();
    EXPECT_EQ(storedDefault("shouldRememberPassword"), QVariant("no"));
    EXPECT_TRUE(controller().emailField()->text().isEmpty());
    EXPECT_TRUE(controller().passwordField()->text().isEmpty());
    EXPECT_EQ(KCGenericKeychainItem::genericKeychainItemForService("Ferrybox", "me@example.org"),
              nullptr);

    foundation::LogCapture log;
    controller().rememberInKeychainButton()->setTristate(true);
    controller().rememberInKeychainButton()->setCheckState(Qt::PartiallyChecked);
    controller().toggleRememberInKeychain(nullptr);
    EXPECT_EQ(log.lines(), QStringList{"Error while toggling keychain preference"});
    EXPECT_EQ(storedDefault("shouldRememberPassword"), QVariant("no"));
}

// After each login the password is kept: a changed one replaces the one stored, which would
// otherwise fail every later start, and a keyring that keeps nothing is said so in the window.
// No password reaches the log.
TEST_F(PreferencesTest, KeepingThePasswordAfterALogin) {
    struct Case {
        const char* name;
        const char* stored;  // null: none
        bool keyringKeeps;
        const char* kept;  // null: none
    };
    const Case cases[] = {
        {"new", nullptr, true, "typed"},
        {"changed", "earlier", true, "typed"},
        {"the same", "typed", true, "typed"},
        {"keyring keeps nothing", nullptr, false, nullptr},
    };
    auto& keyring = testsupport::PrivateKeyring::shared();
    answerLogin("token");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        keyring.clear();
        if (c.stored) {
            ASSERT_NE(KCGenericKeychainItem::addGenericKeychainItemForService(
                          "Ferrybox", "me@example.org", c.stored),
                      nullptr);
        }
        ASSERT_TRUE(
            keyring.setDefaultCollection(c.keyringKeeps ? keyring.loginCollection() : QString()));
        foundation::LogCapture log;
        interface_ = std::make_unique<MainInterface>();
        startWithAccount("me@example.org", "typed");
        ASSERT_TRUE(waitForRunning());
        auto item =
            KCGenericKeychainItem::genericKeychainItemForService("Ferrybox", "me@example.org");
        EXPECT_EQ(item ? item->password() : QString(), c.kept ? QString(c.kept) : QString());
        EXPECT_EQ(control<QLabel>("keyringLabel")->isVisibleTo(&interface().window()),
                  !c.keyringKeeps);
        EXPECT_FALSE(log.lines().join('\n').contains("typed"));
        EXPECT_FALSE(log.lines().join('\n').contains("earlier"));
    }
    ASSERT_TRUE(keyring.setDefaultCollection(keyring.loginCollection()));
}

TEST_F(PreferencesTest, DownloadFolderIsStoredWithATilde) {
    controller().awakeFromNib();
    QString offered;
    QString answer = QDir::homePath() + "/Downloads/Inbox";
    const auto previous = foundation::OpenPanel::setPresenter([&](const QString& start) {
        offered = start;
        return answer;
    });
    control<QPushButton>("changeDirectoryButton")->click();
    EXPECT_EQ(offered, home_->path() + "/Downloads/Ferrybox");
    EXPECT_EQ(controller().downloadDirectory(), "~/Downloads/Inbox");
    EXPECT_EQ(controller().directoryField()->text(), "~/Downloads/Inbox");
    EXPECT_EQ(storedDefault("downloadDirectory"), QVariant("~/Downloads/Inbox"));
    EXPECT_FALSE(QDir(home_->path() + "/Downloads/Inbox").exists()) << "not created";

    answer = "/srv/media";
    control<QPushButton>("changeDirectoryButton")->click();
    EXPECT_EQ(controller().downloadDirectory(), "/srv/media");
    answer = QString();  // cancelled
    control<QPushButton>("changeDirectoryButton")->click();
    EXPECT_EQ(storedDefault("downloadDirectory"), QVariant("/srv/media"));
    foundation::OpenPanel::setPresenter(previous);
}

TEST_F(PreferencesTest, NotificationChoiceAndIntervalHelp) {
    controller().awakeFromNib();
    control<QCheckBox>("useGrowlButton")->click();
    EXPECT_EQ(storedDefault("useGrowl"), QVariant("no"));
    control<QCheckBox>("useGrowlButton")->click();
    EXPECT_EQ(storedDefault("useGrowl"), QVariant("yes"));

    control<QToolButton>("intervalHelpButton")->click();
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0].title, "Interval Information");
    EXPECT_EQ(alerts[0].message,
              "The interval is how often the note is checked for new downloads.");
    EXPECT_EQ(alerts[0].defaultButton, "OK");
    EXPECT_TRUE(alerts[0].alternateButton.isEmpty());
}

TEST_F(PreferencesTest, OpenAtLoginCheckboxListsTheAgent) {
    controller().awakeFromNib();
    control<QCheckBox>("openAtLoginButton")->click();
    EXPECT_TRUE(QFile::exists(home_->path() + "/.config/autostart/ferrybox.desktop"));
    EXPECT_EQ(storedDefault("openAtLogin"), QVariant("yes"));
    control<QCheckBox>("openAtLoginButton")->click();
    EXPECT_FALSE(QFile::exists(home_->path() + "/.config/autostart/ferrybox.desktop"));
}

TEST_F(PreferencesTest, PutBackCheckboxIsRemembered) {
    controller().awakeFromNib();
    control<QCheckBox>("putFailedLinksBackButton")->click();
    EXPECT_EQ(storedDefault("putFailedLinksBack"), QVariant("no"));
    control<QCheckBox>("putFailedLinksBackButton")->click();
    EXPECT_EQ(storedDefault("putFailedLinksBack"), QVariant("yes"));
}

// An error is shown on the account pane, whichever pane the window was left on.
TEST_F(PreferencesTest, AnErrorShowsTheAccountPane) {
    auto* panes = control<QStackedWidget>("panes");
    auto* options = interface().window().findChild<QAction*>("optionsAction");
    auto* account = interface().window().findChild<QAction*>("accountAction");
    const std::function<void()> failures[] = {
        [this] {
            answerLogin("");
            startWithAccount("me@example.org", "wrong");
            ASSERT_TRUE(waitUntil([this] { return controller().emailField()->isEnabled(); }));
        },
        [this] { controller().turnOffAfterLogPullFailed({}); },
    };
    for (const auto& fail : failures) {
        options->trigger();
        ASSERT_EQ(panes->currentIndex(), 2);
        fail();
        EXPECT_FALSE(controller().errorLabel()->text().isEmpty());
        EXPECT_EQ(panes->currentIndex(), 0);
        EXPECT_TRUE(account->isChecked());
    }
}

// The pane toolbar cannot be hidden (from the window's context menu, say), and there is no
// menu bar to carry an empty menu.
TEST_F(PreferencesTest, ThePaneToolbarStaysAndNoMenuBar) {
    auto* toolbar = control<QToolBar>("prefsToolbar");
    QContextMenuEvent click(QContextMenuEvent::Mouse, QPoint(5, 5),
                            toolbar->mapToGlobal(QPoint(5, 5)));
    QCoreApplication::sendEvent(toolbar, &click);
    EXPECT_EQ(QApplication::activePopupWidget(), nullptr);
    EXPECT_FALSE(toolbar->toggleViewAction()->isEnabled());
    EXPECT_TRUE(interface().window().findChildren<QMenuBar*>().isEmpty());
    ASSERT_NE(controller().appMenu(), nullptr);
    EXPECT_EQ(controller().appMenu()->parent(), nullptr);
}

// Without a tray (the offscreen platform has none) the window is the agent's face: it shows at
// start-up with the notice that says why, and closing it only minimises it; its Quit button is
// the Quit command. How this looks on a real display is the desktop tier's to show.
TEST_F(PreferencesTest, WithoutATrayTheWindowSaysWhyAndStays) {
    ui::TrayAvailability tray;
    ASSERT_FALSE(tray.isAvailable());
    int quits = 0;
    controller().setApplicationActions([] {}, [&] { ++quits; });
    ui::NoTrayFallback fallback(tray, interface().window(), interface().noTrayNotice(),
                                [this] { controller().showPreferences(nullptr); });
    startWithAccount("me@example.org", "secret");
    fallback.start();
    EXPECT_TRUE(interface().window().isVisible());
    EXPECT_TRUE(interface().noTrayNotice().isVisible());
    EXPECT_FALSE(control<QLabel>("noTrayLabel")->text().isEmpty());

    interface().window().close();
    EXPECT_TRUE(waitUntil(
        [this] { return interface().window().isVisible() && interface().window().isMinimized(); }));
    controller().showPreferences(nullptr);
    EXPECT_FALSE(interface().window().isMinimized());
    control<QPushButton>("quitButton")->click();
    EXPECT_EQ(quits, 1);
}

}  // namespace
}  // namespace agenttest
