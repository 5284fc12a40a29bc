// SPDX-License-Identifier: GPL-3.0-or-later
// Settings come back with the type they were stored with, across a restart of the store.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QScopeGuard>

#include "foundation/UserDefaults.h"
#include "tests/support/TempHome.h"

namespace {

using foundation::UserDefaults;

struct RoundTrip {
    const char* key;
    QVariant stored;
};

TEST(UserDefaultsTest, ValuesKeepTheirTypeAcrossARestart) {
    testsupport::TempHome home;
    const std::vector<RoundTrip> cases = {
        {"number", 10},
        {"numberText", QString("10")},
        {"yesText", QString("yes")},
        {"truth", true},
        {"fraction", 2.5},
        {"wholeDouble", 3.0},
        {"empty", QString("")},
        {"quoted", QString("say \"hi\"\\ and\nnewline = here")},
        {"unicode", QString::fromUtf8("Grüße ☃ 𝄞")},
        {"atSign", QString("@Variant(junk)")},
        {"negative", -42},
    };
    {
        UserDefaults& defaults = UserDefaults::standardUserDefaults();
        for (const auto& c : cases)
            defaults.setObject(c.stored, c.key);
        ASSERT_TRUE(defaults.synchronize());
    }
    UserDefaults reread(UserDefaults::defaultFilePath());
    for (const auto& c : cases) {
        const QVariant value = reread.objectForKey(c.key);
        EXPECT_EQ(value.toString(), c.stored.toString()) << c.key;
        const bool storedString = c.stored.typeId() == QMetaType::QString;
        EXPECT_EQ(value.typeId() == QMetaType::QString, storedString) << c.key;
        // A number or a boolean reads as its text, as a value edited by hand means it.
        EXPECT_EQ(reread.stringForKey(c.key), c.stored.toString()) << c.key;
    }
    EXPECT_FALSE(reread.objectForKey("absent").isValid());
    EXPECT_TRUE(reread.stringForKey("absent").isNull());
}

TEST(UserDefaultsTest, HandEditedValuesReadAsTheyAreWritten) {
    testsupport::TempHome home;
    QFile file(UserDefaults::defaultFilePath());
    ASSERT_TRUE(QDir().mkpath(QFileInfo(file).path()));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("keepLog=true\nuseGrowl=1\nsearchTerm=My_Queue\ninterval=2.5\n");
    file.close();
    UserDefaults::resetStandardUserDefaults();
    const UserDefaults& defaults = UserDefaults::standardUserDefaults();
    EXPECT_EQ(defaults.stringForKey("keepLog"), "true");
    EXPECT_EQ(defaults.stringForKey("useGrowl"), "1");
    EXPECT_EQ(defaults.stringForKey("searchTerm"), "My_Queue");
    EXPECT_EQ(defaults.stringForKey("interval"), "2.5");
    EXPECT_EQ(defaults.objectForKey("interval").toDouble(), 2.5);
}

TEST(UserDefaultsTest, FileLivesInTheConfigFolderAndReadsPlainly) {
    testsupport::TempHome home;
    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    defaults.setObject(10, "interval");
    defaults.setObject(QString("no"), "keepLog");
    defaults.setObject(QString("gone"), "removed");
    defaults.removeObjectForKey("removed");
    ASSERT_TRUE(defaults.synchronize());

    QFile file(home.path() + "/.config/Ferrybox/Ferrybox.conf");
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray text = file.readAll();
    EXPECT_TRUE(text.contains("interval=10\n")) << text.toStdString();
    EXPECT_TRUE(text.contains("keepLog=\"no\"\n")) << text.toStdString();
    EXPECT_FALSE(text.contains("removed"));
}

// The settings hold the service's session token. Under the usual umask, a new file and one left
// readable by an earlier version alike end up readable by their owner only.
TEST(UserDefaultsTest, TheFileIsTheOwnersOnly) {
    const mode_t previous = ::umask(022);
    const auto restore = qScopeGuard([previous] { ::umask(previous); });
    for (const bool existedLoose : {false, true}) {
        SCOPED_TRACE(existedLoose ? "left readable" : "new");
        testsupport::TempHome home;
        const QString file = UserDefaults::defaultFilePath();
        const QString folder = QFileInfo(file).path();
        if (existedLoose) {
            ASSERT_TRUE(QDir().mkpath(folder));
            QFile old(file);
            ASSERT_TRUE(old.open(QIODevice::WriteOnly));
            old.write("[General]\nsimplenote-authToken=\"old\"\n");
            old.close();
            ASSERT_EQ(QFileInfo(file).permissions() & QFile::ReadOther, QFile::ReadOther);
        }
        UserDefaults& defaults = UserDefaults::standardUserDefaults();
        defaults.setObject(QString("token"), "me@example.org-authToken");
        ASSERT_TRUE(defaults.synchronize());
        const auto mode = [](const QString& path) {
            struct stat info {};
            ::stat(QFile::encodeName(path).constData(), &info);
            return info.st_mode & 0777;
        };
        EXPECT_EQ(mode(file), 0600u);
        EXPECT_EQ(mode(folder), 0700u);
    }
}

}  // namespace
