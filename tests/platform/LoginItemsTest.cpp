// SPDX-License-Identifier: GPL-3.0-or-later
// Starting at login: the checkbox lists Ferrybox in the XDG autostart folder, once, and takes it
// off again; the entry is a valid desktop entry that starts this very program.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
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

// An entry that was there before: one written here for a program that has moved since, one
// written here that the desktop's start-up settings switched off, and someone else's. Ticking
// writes the entry afresh for this program, enabled; unticking deletes only an entry written
// here and leaves someone else's as it was.
TEST(LoginItemsTest, TickingRenewsUntickingDeletesOnlyOurOwn) {
    struct Before {
        const char* name;
        QByteArray text;
        bool writtenHere;
    };
    const QByteArray ours =
        "[Desktop Entry]\nType=Application\nName=Ferrybox\n"
        "X-Ferrybox-Login-Item=true\n";
    const Before cases[] = {
        {"moved", ours + "Exec=/old/place/ferrybox\n", true},
        {"switched off",
         ours + "Exec=" + QCoreApplication::applicationFilePath().toUtf8() +
             "\nHidden=true\nX-GNOME-Autostart-enabled=false\n",
         true},
        {"someone else's",
         "[Desktop Entry]\nType=Application\nName=Ferrybox\nExec=ferrybox --headless\n", false},
    };
    for (const Before& before : cases) {
        SCOPED_TRACE(before.name);
        testsupport::TempHome home;
        const QString path = home.path() + "/.config/autostart/ferrybox.desktop";
        const auto put = [&] {
            QDir().mkpath(QFileInfo(path).path());
            QFile file(path);
            ASSERT_TRUE(file.open(QIODevice::WriteOnly));
            file.write(before.text);
        };
        const auto text = [&] {
            QFile file(path);
            return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        };
        QCheckBox box;
        LoginItemController controller;
        controller.setOpenAtLoginButton(&box);

        put();
        box.setChecked(true);
        controller.addToLoginItems(&box);
        const QByteArray written = text();
        EXPECT_TRUE(
            written.contains("\nExec=" + QCoreApplication::applicationFilePath().toUtf8() + "\n"))
            << written.toStdString();
        EXPECT_TRUE(written.contains("\nX-GNOME-Autostart-enabled=true\n"));
        EXPECT_FALSE(written.contains("Hidden"));

        put();
        box.setChecked(false);
        controller.addToLoginItems(&box);
        if (before.writtenHere) {
            EXPECT_FALSE(QFile::exists(path));
        } else {
            EXPECT_EQ(text(), before.text);
        }
    }
}

}  // namespace
