// SPDX-License-Identifier: GPL-3.0-or-later
// Keychain items against a real Secret Service (gnome-keyring on the test's private bus).
#include <gtest/gtest.h>

#include <QElapsedTimer>

#include "foundation/Assert.h"
#include "foundation/Log.h"
#include "platform/KCKeychainItem.h"
#include "tests/support/HungKeyring.h"
#include "tests/support/PrivateKeyring.h"

namespace {

using Generic = KCGenericKeychainItem;
using Internet = KCInternetKeychainItem;

const QString kService = QStringLiteral("Ferrybox");
constexpr quint32 kHTTP = fourCharCode("http");

class KeychainTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(testsupport::PrivateKeyring::shared().isRunning());
        testsupport::PrivateKeyring::shared().clear();
        KCKeychainItem::setLogsErrors(false);
    }
    static QString storedPassword(const QString& account) {
        auto item = Generic::genericKeychainItemForService(kService, account);
        return item ? item->password() : QStringLiteral("<none>");
    }
};

TEST_F(KeychainTest, AddedPasswordsComeBackEvenNonAscii) {
    const QString password = QString::fromUtf8("pässwörd ☃ 𝄞 \"&'");
    auto added = Generic::addGenericKeychainItemForService(kService, "me@example.org", password);
    ASSERT_NE(added, nullptr);
    EXPECT_EQ(added->serviceName(), kService);
    EXPECT_TRUE(added->label().isNull());
    auto found = Generic::genericKeychainItemForService(kService, "me@example.org");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->password(), password);
    EXPECT_EQ(found->username(), "me@example.org");
    EXPECT_EQ(storedPassword("other@example.org"), "<none>") << "by account";
    EXPECT_EQ(Generic::genericKeychainItemForService("Other", "me@example.org"), nullptr)
        << "by service";
}

TEST_F(KeychainTest, SecondAddLeavesTheFirstPassword) {
    ASSERT_NE(Generic::addGenericKeychainItemForService(kService, "me@example.org", "first"),
              nullptr);
    EXPECT_EQ(Generic::addGenericKeychainItemForService(kService, "me@example.org", "second"),
              nullptr);
    EXPECT_EQ(storedPassword("me@example.org"), "first");
}

// Missing arguments are nothing, silently; a failure of the keychain is logged only when asked.
TEST_F(KeychainTest, NothingFoundLogsOnlyWhenAsked) {
    foundation::LogCapture log;
    KCKeychainItem::setLogsErrors(true);
    EXPECT_EQ(Generic::genericKeychainItemForService(kService, QString()), nullptr);
    EXPECT_EQ(Generic::addGenericKeychainItemForService(kService, "a", QString()), nullptr);
    EXPECT_TRUE(log.lines().isEmpty());
    EXPECT_EQ(Generic::genericKeychainItemForService(kService, "nobody"), nullptr);
    EXPECT_EQ(log.lines(), QStringList{"Error (genericKeychainItemForService:withUsername:) - "
                                       "SECRET_ERROR_NO_SUCH_OBJECT"});
    KCKeychainItem::setLogsErrors(false);
    EXPECT_EQ(Generic::genericKeychainItemForService(kService, "nobody"), nullptr);
    EXPECT_EQ(log.lines().size(), 1);
}

TEST_F(KeychainTest, PasswordThatIsNotUtf8ReadsAsAbsent) {
    ASSERT_NE(KeychainStore::defaultStore()
                  .addGenericPassword(kService.toUtf8(), "me@example.org", "\xff\xfe bad")
                  .item,
              nullptr);
    auto found = Generic::genericKeychainItemForService(kService, "me@example.org");
    ASSERT_NE(found, nullptr);
    EXPECT_TRUE(found->password().isNull());
}

// Every setter writes through: a later lookup sees the change.
TEST_F(KeychainTest, SettersWriteThrough) {
    auto item = Generic::addGenericKeychainItemForService(kService, "old@example.org", "secret");
    ASSERT_NE(item, nullptr);
    item->setUsername("new@example.org");
    item->setPassword("changed");
    item->setLabel("Ferrybox account");
    EXPECT_EQ(storedPassword("old@example.org"), "<none>");
    EXPECT_EQ(storedPassword("new@example.org"), "changed");
    EXPECT_EQ(item->label(), "Ferrybox account");
    item->setServiceName("Elsewhere");
    EXPECT_NE(Generic::genericKeychainItemForService("Elsewhere", "new@example.org"), nullptr);

    auto site =
        Internet::addInternetKeychainItemForServer("example.org", "me", "pw", "/a", 8080, kHTTP);
    ASSERT_NE(site, nullptr);
    site->setServer("example.net");
    site->setPath("/b");
    site->setPort(65536 + 8443);  // kept by its low 16 bits
    site->setProtocol(fourCharCode("htps"));
    auto moved = Internet::internetKeychainItemForServer("example.net", "me", "/b", 8443,
                                                         fourCharCode("htps"));
    ASSERT_NE(moved, nullptr);
    EXPECT_EQ(moved->password(), "pw");
    EXPECT_EQ(Internet::internetKeychainItemForServer("example.org", "me", "/a", 8080, kHTTP),
              nullptr);
}

TEST_F(KeychainTest, FtpLookupFindsAnFtpAccountItem) {
    ASSERT_NE(Internet::addInternetKeychainItemForServer("files.example.org", "me", "pw", QString(),
                                                         21, Internet::kProtocolFTPAccount),
              nullptr);
    auto found = Internet::internetKeychainItemForServer("files.example.org", "me", "", 21,
                                                         Internet::kProtocolFTP);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->protocol(), Internet::kProtocolFTPAccount);
    EXPECT_EQ(found->password(), "pw");
    EXPECT_EQ(Internet::internetKeychainItemForServer("files.example.org", "me", "", 21, kHTTP),
              nullptr);
}

TEST_F(KeychainTest, RemovedItemIsGoneAndAssertsWhenUsedAgain) {
    auto item = Generic::addGenericKeychainItemForService(kService, "me@example.org", "secret");
    ASSERT_NE(item, nullptr);
    item->removeFromKeychain();
    EXPECT_FALSE(item->isInKeychain());
    EXPECT_EQ(storedPassword("me@example.org"), "<none>");
    EXPECT_EQ(item->username(), "me@example.org") << "the strings stay readable";

    foundation::LogCapture log;
    try {
        item->removeFromKeychain();
        ADD_FAILURE() << "no assertion";
    } catch (const foundation::AssertionFailure& failure) {
        EXPECT_STREQ(failure.what(),
                     "Core keychain item is nil. You cannot remove a keychain "
                     "item that is not in the keychain already.");
    }
    EXPECT_THROW(item->setUsername("other"), foundation::AssertionFailure);
    EXPECT_EQ(log.lines().first(),
              "*** Assertion failure in -[KCKeychainItem removeFromKeychain], KCKeychainItem:171");
}

TEST_F(KeychainTest, LockingTheKeychainHidesItsItems) {
    ASSERT_NE(Generic::addGenericKeychainItemForService(kService, "me@example.org", "secret"),
              nullptr);
    KCKeychainItem::lockKeychain();
    EXPECT_TRUE(testsupport::PrivateKeyring::shared().isLoginKeyringLocked());
    // Nobody is there to type the keyring's password: the lookup gives nothing.
    EXPECT_EQ(storedPassword("me@example.org"), "<none>");
    ASSERT_TRUE(testsupport::PrivateKeyring::shared().unlockLoginKeyring());
    EXPECT_EQ(storedPassword("me@example.org"), "secret");
}

TEST_F(KeychainTest, UnreachableKeyringIsOneLineAndNothingElse) {
    testsupport::PrivateKeyring::shared().stop();
    foundation::LogCapture log;
    EXPECT_EQ(Generic::genericKeychainItemForService(kService, "me@example.org"), nullptr);
    EXPECT_EQ(Generic::addGenericKeychainItemForService(kService, "me@example.org", "pw"), nullptr);
    ASSERT_EQ(log.lines().size(), 1);
    EXPECT_TRUE(log.lines().first().startsWith("The keyring cannot be reached ("))
        << log.lines().first().toStdString();
}

// A keyring that takes the call and never answers (a hung daemon, a prompt nobody answers)
// counts as one that cannot be reached, after a few seconds, and the log says so once.
TEST_F(KeychainTest, AKeyringThatNeverAnswersIsGivenUpOnInSeconds) {
    testsupport::PrivateKeyring::shared().stop();
    testsupport::HungKeyring hung;
    ASSERT_TRUE(hung.isRegistered());
    foundation::LogCapture log;
    QElapsedTimer clock;
    clock.start();
    EXPECT_EQ(Generic::genericKeychainItemForService(kService, "me@example.org"), nullptr);
    EXPECT_LT(clock.elapsed(), 10000);
    EXPECT_EQ(Generic::addGenericKeychainItemForService(kService, "me@example.org", "pw"), nullptr);
    ASSERT_EQ(log.lines().size(), 1);
    EXPECT_TRUE(
        log.lines().first().startsWith("The keyring cannot be reached (it has not "
                                       "answered within"))
        << log.lines().first().toStdString();
}

// A keyring that names no collection as its default (a new one, KeePassXC exposing none): a login
// collection is made as libsecret makes it, which needs the person to give the new collection a
// password. Nobody is here to, so the password cannot be kept, and the log says so once.
TEST_F(KeychainTest, WithoutADefaultCollectionNothingIsKeptAndTheLogSaysSoOnce) {
    ASSERT_TRUE(testsupport::PrivateKeyring::shared().setDefaultCollection(QString()));
    foundation::LogCapture log;
    EXPECT_EQ(Generic::addGenericKeychainItemForService(kService, "me@example.org", "pw"), nullptr);
    EXPECT_EQ(Generic::addGenericKeychainItemForService(kService, "me@example.org", "pw"), nullptr);
    ASSERT_EQ(log.lines().size(), 1);
    EXPECT_TRUE(log.lines().first().startsWith("The keyring has no collection to keep passwords"))
        << log.lines().first().toStdString();
}

}  // namespace
