// The preferences window used as a person would: each control's action and what it leaves in
// the settings, the keyring and the agent.
#include <QCheckBox>
#include <QDir>
#include <QIntValidator>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QToolButton>

#include "foundation/Log.h"
#include "foundation/OpenPanel.h"
#include "foundation/Timer.h"
#include "platform/KCKeychainItem.h"
#include "tests/agent/AgentFixture.h"
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
    controller().intervalField()->setText("5");
    Q_EMIT controller().intervalField()->editingFinished();
    EXPECT_FALSE(first->isValid());
    EXPECT_EQ(controller().timer()->timeInterval(), 300.0);
    EXPECT_TRUE(waitUntil([this] { return searches() == 2; })) << "a check at once";
    EXPECT_EQ(storedDefault("interval").toInt(), 5);
    EXPECT_EQ(controller().intervalField()->validator()->inherits("QIntValidator"), true);
    int at = 0;
    QString zero = "0";
    EXPECT_NE(controller().intervalField()->validator()->validate(zero, at), QValidator::Acceptable)
        << "one minute at least";
}

TEST_F(PreferencesTest, IntervalWhileOffIsOnlySaved) {
    controller().awakeFromNib();
    controller().intervalField()->setText("7");
    Q_EMIT controller().intervalField()->editingFinished();
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
