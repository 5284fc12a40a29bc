// Starting at login: the checkbox lists Ferrybox in the XDG autostart folder, once, and takes it
// off again; the entry is a valid desktop entry that starts this very program.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>

#include "foundation/UserDefaults.h"
#include "platform/LoginItemController.h"
#include "platform/LoginItemsList.h"
#include "tests/support/TempHome.h"

namespace {

TEST(LoginItemsTest, TickTwiceListsOnceUntickTakesItOff) {
    testsupport::TempHome home;
    const QString autostart = home.path() + "/.config/autostart";
    QCheckBox box;
    LoginItemController controller;
    controller.setOpenAtLoginButton(&box);
    const auto openAtLogin = [] {
        return foundation::UserDefaults(foundation::UserDefaults::defaultFilePath())
            .stringForKey("openAtLogin");
    };

    box.setChecked(true);
    controller.addToLoginItems(&box);
    controller.addToLoginItems(&box);
    EXPECT_EQ(QDir(autostart).entryList(QDir::Files), QStringList{"ferrybox.desktop"});
    EXPECT_EQ(openAtLogin(), "yes");

    QFile entry(autostart + "/ferrybox.desktop");
    ASSERT_TRUE(entry.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(entry.readAll());
    EXPECT_TRUE(text.contains("\nExec=" + QCoreApplication::applicationFilePath() + "\n"))
        << text.toStdString();
    QProcess validate;
    validate.start("desktop-file-validate", {entry.fileName()});
    ASSERT_TRUE(validate.waitForFinished(10000));
    EXPECT_EQ(validate.exitCode(), 0) << validate.readAllStandardOutput().toStdString();

    box.setChecked(false);
    controller.addToLoginItems(&box);
    EXPECT_TRUE(QDir(autostart).entryList(QDir::Files).isEmpty());
    EXPECT_EQ(openAtLogin(), "no");
    controller.addToLoginItems(&box);  // not listed: stays so
    EXPECT_TRUE(QDir(autostart).entryList(QDir::Files).isEmpty());
}

// A path with characters the Exec key reserves is quoted and escaped as the desktop entry format
// requires.
TEST(LoginItemsTest, PathsThatNeedQuotingAreQuoted) {
    testsupport::TempHome home;
    LoginItemsList& list = LoginItemsList::sessionLoginItems();
    const QString entry = list.insertItemURL(R"(/opt/My "Apps"/$100%/fer\rybox)");
    QFile file(entry);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_TRUE(file.readAll().contains(R"(Exec="/opt/My \\"Apps\\"/\\$100%%/fer\\\\rybox")"));
    QProcess validate;
    validate.start("desktop-file-validate", {entry});
    ASSERT_TRUE(validate.waitForFinished(10000));
    EXPECT_EQ(validate.exitCode(), 0) << validate.readAllStandardOutput().toStdString();
    list.removeItem(entry);
    EXPECT_FALSE(QFile::exists(entry));
}

}  // namespace
