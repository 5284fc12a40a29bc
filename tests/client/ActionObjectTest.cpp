// SPDX-License-Identifier: GPL-3.0-or-later
// The remote action object's bookkeeping: notification names, sender-bound observers, the
// parallel tables, and the newest call of an action winning over an earlier one.
#include "client/LWSimplenote.h"
#include "tests/client/ClientFixture.h"
#include "tests/support/Wait.h"

namespace clienttest {
namespace {

using testsupport::FixtureServer;
using testsupport::waitUntil;

class TaggedLogin : public LWSimplenoteLogin {};

class ActionObjectTest : public ClientTest {};

// A subclass of a subclass posts under its own name, and its object travels under that name.
TEST_F(ActionObjectTest, NotificationNamesFollowTheRunTimeClass) {
    auto login = LWSNObject::create<LWSimplenoteLogin>();
    auto tagged = LWSNObject::create<TaggedLogin>();
    const std::tuple<std::shared_ptr<LWSNObject>, QString, QString, QString> cases[] = {
        {login, "login", "LWSimplenoteLoginLoginSuccessNotification",
         "LWSimplenoteLoginLoginFailureNotification"},
        {login, "pullFromRemote:", "LWSimplenoteLoginPullFromRemote:SuccessNotification",
         "LWSimplenoteLoginPullFromRemote:FailureNotification"},
        {tagged, "login", "TaggedLoginLoginSuccessNotification",
         "TaggedLoginLoginFailureNotification"},
    };
    for (const auto& [object, selector, success, failure] : cases) {
        EXPECT_EQ(object->successNotificationNameForSelector(selector), success);
        EXPECT_EQ(object->failureNotificationNameForSelector(selector), failure);
    }

    server().on("POST", "/api/login", FixtureServer::respond(200, "tok"));
    Heard heard;
    observe(*tagged, "login", heard);
    tagged->login();
    ASSERT_TRUE(waitUntil([&] { return !heard.names.isEmpty(); }));
    EXPECT_EQ(heard.names, QStringList{"TaggedLoginLoginSuccessNotification"});
    EXPECT_EQ(LWSNObject::fromNotification<TaggedLogin>(heard.last), tagged);
    EXPECT_EQ(LWSNObject::fromNotification<LWSimplenoteLogin>(heard.last, "TaggedLogin"), tagged);
    EXPECT_EQ(LWSNObject::fromNotification<LWSimplenoteLogin>(heard.last), nullptr);
    EXPECT_EQ(LWSNObject::fromNotification<LWSimplenote>(heard.last, "TaggedLogin"), nullptr);
}

TEST_F(ActionObjectTest, ObserversHearOnlyTheirOwnObject) {
    server().on("POST", "/api/login", FixtureServer::respond(200, "tok"));
    auto first = loginAs("one@example.org", "1");
    auto second = loginAs("two@example.org", "2");
    Heard heardFirst;
    Heard heardSecond;
    observe(*first, "login", heardFirst);
    observe(*second, "login", heardSecond);
    first->login();
    ASSERT_TRUE(waitUntil([&] { return !heardFirst.names.isEmpty(); }));
    testsupport::settle(50);
    EXPECT_TRUE(heardSecond.names.isEmpty());
}

TEST_F(ActionObjectTest, NewestCallOfAnActionWins) {
    server().on("POST", "/api/login",
                FixtureServer::sequence(
                    {server().stall(200, "first"), FixtureServer::respond(200, "second")}));
    auto login = loginAs("me@example.org", "secret");
    Heard heard;
    observe(*login, "login", heard);
    login->login();
    ASSERT_TRUE(server().waitForRequests(1));
    login->login();
    ASSERT_TRUE(waitUntil([&] { return !heard.names.isEmpty(); }));
    server().releaseStalled();
    testsupport::settle(300);
    EXPECT_EQ(heard.names.size(), 1);
    EXPECT_EQ(login->authToken(), "second");
}

TEST_F(ActionObjectTest, TablesHaveOneSlotPerActionAndIgnoreOtherIds) {
    auto base = LWSNObject::create<LWSNObject>();
    EXPECT_EQ(base->actionCount(), 0);
    EXPECT_TRUE(base->callbacks().empty());
    base->setCallback(std::make_shared<LWCallback>(), 0);
    base->setReceivedData(std::make_shared<QByteArray>(), 0);
    EXPECT_TRUE(base->callbacks().empty());
    EXPECT_TRUE(base->receivedData().empty());
    EXPECT_EQ(base->actionIDForConnection(nullptr), -1);
    EXPECT_FALSE(base->URLForActionID(0).isValid());
    EXPECT_TRUE(base->HTTPMethodForActionID(0).isNull());

    auto login = LWSNObject::create<LWSimplenoteLogin>();
    ASSERT_EQ(login->callbacks().size(), 1u);
    EXPECT_NE(login->callbacks()[0], nullptr);
    EXPECT_EQ(login->connections(),
              std::vector<std::shared_ptr<foundation::URLConnection>>{nullptr});
    login->setCallback(nullptr, 1);
    login->setCallback(nullptr, -1);
    EXPECT_NE(login->callbacks()[0], nullptr);
    login->setCallback(nullptr, 0);
    EXPECT_EQ(login->callbacks()[0], nullptr);
    EXPECT_EQ(login->URLForActionID(0).toString(), LWSNObject::baseURLString() + "/login");
    EXPECT_FALSE(login->URLForActionID(1).isValid());
}

TEST_F(ActionObjectTest, ErrorForResponseCarriesTheStatusAndItsPhrase) {
    auto login = LWSNObject::create<LWSimplenoteLogin>();
    foundation::HTTPURLResponse response;
    for (const auto& [status, phrase] : std::vector<std::pair<int, QString>>{
             {404, "not found"}, {401, "unauthorized"}, {500, "internal server error"}}) {
        response.statusCode = status;
        EXPECT_EQ(login->errorForResponse(response),
                  foundation::Error("LWSimplenoteErrorDomain", status, phrase));
    }
}

}  // namespace
}  // namespace clienttest
