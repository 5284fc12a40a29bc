// SPDX-License-Identifier: GPL-3.0-or-later
// Logging in: the exact request, what counts as a token, and where the token goes.
#include <QNetworkReply>

#include "client/LWSimplenoteCredentialStore.h"
#include "foundation/UserDefaults.h"
#include "tests/client/ClientFixture.h"
#include "tests/support/Wait.h"

namespace clienttest {
namespace {

using testsupport::FixtureServer;
using testsupport::waitUntil;

const QString kSuccess = QStringLiteral("LWSimplenoteLoginLoginSuccessNotification");
const QString kFailure = QStringLiteral("LWSimplenoteLoginLoginFailureNotification");

class LoginTest : public ClientTest {};

TEST_F(LoginTest, SendsTheAccountAsBase64FormTextWithoutEscaping) {
    server().on("POST", "/api/login", FixtureServer::respond(200, "tok"));
    Heard heard;
    auto login = loginAs("a+b@x.org", "p&q=%2 ü");
    observe(*login, "login", heard);
    login->login();
    ASSERT_TRUE(waitUntil([&] { return !heard.names.isEmpty(); }));

    const auto requests = server().requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].path, "/api/login");
    EXPECT_EQ(requests[0].query, "");
    EXPECT_EQ(QByteArray::fromStdString(requests[0].body),
              QString("email=a+b@x.org&password=p&q=%2 ü").toUtf8().toBase64());
    EXPECT_EQ(requests[0].headers.count("Authorization"), 0u);
}

const foundation::Error kUnknown("LWSimplenoteLoginDomain", 0,
                                 "Unknown login error. Check user name and password.");

struct Outcome {
    const char* name;
    int status;
    std::string body;
    QString expectedName;
    QString expectedToken;  // null: the store is left alone
    std::multimap<std::string, std::string> headers = {};
    foundation::Error expectedError = kUnknown;
    std::optional<int> expectedWait = std::nullopt;
};

class LoginOutcomeTest : public ClientTest, public ::testing::WithParamInterface<Outcome> {};

TEST_P(LoginOutcomeTest, AnyBodyIsTheTokenAndOnlySilenceOrTooManyAttemptsFail) {
    const Outcome& c = GetParam();
    server().on("POST", "/api/login", FixtureServer::respond(c.status, c.body, c.headers));
    Heard heard;
    auto login = loginAs("me@example.org", "secret");
    observe(*login, "login", heard);
    login->login();
    ASSERT_TRUE(waitUntil([&] { return !heard.names.isEmpty(); }));
    testsupport::settle(50);

    EXPECT_EQ(heard.names, QStringList{c.expectedName});
    EXPECT_EQ(LWSNObject::fromNotification<LWSimplenoteLogin>(heard.last), login);
    EXPECT_EQ(LWSimplenoteCredentialStore::authToken(), c.expectedToken);
    EXPECT_EQ(login->secondsToWait(), c.expectedWait);
    if (c.expectedToken.isNull()) {
        const auto* error = heard.last.value<foundation::Error>("error");
        ASSERT_NE(error, nullptr);
        EXPECT_EQ(*error, c.expectedError);
        EXPECT_TRUE(LWSimplenoteCredentialStore::email().isNull());
    } else {
        EXPECT_EQ(login->authToken(), c.expectedToken);
        EXPECT_EQ(LWSimplenoteCredentialStore::email(), "me@example.org");
    }
}

foundation::Error tooMany(int seconds) {
    return foundation::Error("LWSimplenoteErrorDomain", 429,
                             QString("too many attempts: wait %1 s").arg(seconds));
}

// The service's refusal after too many failed attempts is never a token, whatever its body, and
// says how long to wait: its Retry-After, a minute without one, and never no time at all.
INSTANTIATE_TEST_SUITE_P(
    Client, LoginOutcomeTest,
    ::testing::Values(
        Outcome{"Token", 200, "tok-123", kSuccess, "tok-123"},
        Outcome{"UnauthorisedWithBodyIsATokenToo", 401, "abc", kSuccess, "abc"},
        Outcome{"TokenKeepsItsLineEnd", 200, "tok\n", kSuccess, "tok\n"},
        Outcome{"EmptyBodyFails", 200, "", kFailure, QString()},
        Outcome{"EmptyServerErrorFails", 500, "", kFailure, QString()},
        Outcome{
            "TooManyAttempts", 429, "", kFailure, QString(), {{"Retry-After", "7"}}, tooMany(7), 7},
        Outcome{
            "TooManyAttemptsWithoutRetryAfter", 429, "", kFailure, QString(), {}, tooMany(60), 60},
        Outcome{"TooManyWithBodyNoWait",
                429,
                "slow",
                kFailure,
                QString(),
                {{"Retry-After", "0"}},
                tooMany(1),
                1}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(LoginTest, RedirectedLoginTakesOnlyTheLastBody) {
    server().on("POST", "/api/login", FixtureServer::redirectTo("/api/elsewhere", "moved", 307));
    server().on("POST", "/api/elsewhere", FixtureServer::respond(200, "final-token"));
    Heard heard;
    auto login = loginAs("me@example.org", "secret");
    observe(*login, "login", heard);
    login->login();
    ASSERT_TRUE(waitUntil([&] { return !heard.names.isEmpty(); }));
    EXPECT_EQ(login->authToken(), "final-token");
}

TEST_F(LoginTest, NewTokenReachesLaterObjectsOnly) {
    LWSimplenoteCredentialStore::setAuthToken("old");
    auto earlier = LWSNObject::create<LWSimplenoteLogin>();
    EXPECT_EQ(earlier->authParams(), (QStringList{"auth=old", "email=(null)"}));

    server().on("POST", "/api/login", FixtureServer::respond(200, "new"));
    Heard heard;
    auto login = loginAs("me@example.org", "secret");
    observe(*login, "login", heard);
    login->login();
    ASSERT_TRUE(waitUntil([&] { return !heard.names.isEmpty(); }));

    auto later = LWSNObject::create<LWSimplenoteLogin>();
    EXPECT_EQ(later->authParams(), (QStringList{"auth=new", "email=me@example.org"}));
    EXPECT_EQ(earlier->authParams(), (QStringList{"auth=old", "email=(null)"}));
    // On disk under the keys a later start reads.
    const foundation::UserDefaults reread(foundation::UserDefaults::defaultFilePath());
    EXPECT_EQ(reread.stringForKey("simplenote-authToken"), "new");
    EXPECT_EQ(reread.stringForKey("simplenote-email"), "me@example.org");
    EXPECT_TRUE(login->description().endsWith(" authToken:new>"))
        << login->description().toStdString();
    EXPECT_TRUE(login->description().startsWith("<<LWSimplenoteLogin: 0x"));
}

// A login aimed at a port where nobody listens.
class RefusedLogin : public LWSimplenoteLogin {
public:
    static inline int port = 0;
    QUrl URLForActionID(int) const override {
        return QUrl(QStringLiteral("http://127.0.0.1:%1/api/login").arg(port));
    }
};

TEST_F(LoginTest, TransportFailurePassesTheErrorThrough) {
    RefusedLogin::port = FixtureServer::closedPort();
    auto login = LWSNObject::create<RefusedLogin>();
    login->setPassword("secret");
    Heard heard;
    observe(*login, "login", heard);
    login->login();
    ASSERT_TRUE(waitUntil([&] { return !heard.names.isEmpty(); }));
    EXPECT_EQ(heard.names, QStringList{"RefusedLoginLoginFailureNotification"});
    const auto* error = heard.last.value<foundation::Error>("error");
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain, "QNetworkReplyErrorDomain");
    EXPECT_EQ(error->code, QNetworkReply::ConnectionRefusedError);
    EXPECT_NE(LWSNObject::fromNotification<RefusedLogin>(heard.last), nullptr);
    EXPECT_TRUE(LWSimplenoteCredentialStore::authToken().isNull());
}

}  // namespace
}  // namespace clienttest
