// SPDX-License-Identifier: GPL-3.0-or-later
// What the service client relies on from an HTTP exchange: every response is announced with its
// own body, HTTP errors finish, only transport errors fail, and a cancelled exchange is silent.
#include <gtest/gtest.h>

#include <QNetworkReply>
#include <functional>

#include "foundation/URLConnection.h"
#include "tests/foundation/RecordingDelegate.h"
#include "tests/support/FixtureServer.h"
#include "tests/support/Wait.h"

namespace {

using foundation::URLConnection;
using foundation::URLRequest;
using foundationtest::RecordingDelegate;
using testsupport::FixtureServer;
using testsupport::waitUntil;

struct ExchangeCase {
    const char* name;
    std::function<void(FixtureServer&)> routes;
    QByteArray method;
    QStringList expected;
};

class ExchangeTest : public ::testing::TestWithParam<ExchangeCase> {};

TEST_P(ExchangeTest, DeliversTheseEventsInOrder) {
    FixtureServer server;
    GetParam().routes(server);
    auto delegate = std::make_shared<RecordingDelegate>();
    URLRequest request;
    request.url = QUrl(server.baseUrl() + "/start");
    request.httpMethod = GetParam().method;
    if (request.httpMethod == "POST")
        request.httpBody = QByteArray("payload");
    URLConnection::create(request, delegate)->start();

    ASSERT_TRUE(waitUntil([&] { return delegate->over(); }))
        << delegate->events.join(" | ").toStdString();
    EXPECT_EQ(delegate->events, GetParam().expected);
    EXPECT_EQ(URLConnection::inFlightCount(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Foundation, ExchangeTest,
    ::testing::Values(
        ExchangeCase{
            "PlainAnswer",
            [](FixtureServer& s) { s.on("GET", "/start", FixtureServer::respond(200, "hello")); },
            "GET",
            {"response 200", "data hello", "finish"}},
        ExchangeCase{
            "ServerErrorFinishes",
            [](FixtureServer& s) { s.on("GET", "/start", FixtureServer::respond(500, "oops")); },
            "GET",
            {"response 500", "data oops", "finish"}},
        ExchangeCase{
            "NotFoundWithoutBody", [](FixtureServer&) {}, "GET", {"response 404", "finish"}},
        ExchangeCase{"RedirectReportsBothResponses",
                     [](FixtureServer& s) {
                         s.on("GET", "/start", FixtureServer::redirectTo("/end", "moved"));
                         s.on("GET", "/end", FixtureServer::respond(200, "final"));
                     },
                     "GET",
                     {"response 302", "data moved", "response 200", "data final", "finish"}},
        ExchangeCase{"PostRedirectedBy303BecomesGet",
                     [](FixtureServer& s) {
                         s.on("POST", "/start", FixtureServer::redirectTo("/end", "", 303));
                         s.on("GET", "/end", FixtureServer::respond(200, "got"));
                     },
                     "POST",
                     {"response 303", "response 200", "data got", "finish"}},
        ExchangeCase{
            "EndlessRedirectsFail",
            [](FixtureServer& s) { s.on("GET", "/start", FixtureServer::redirectTo("/start")); },
            "GET",
            [] {
                QStringList events;
                for (int i = 0; i < 17; ++i)
                    events << "response 302";
                events << QStringLiteral("fail QNetworkReplyErrorDomain %1")
                              .arg(QNetworkReply::TooManyRedirectsError);
                return events;
            }()}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(URLConnectionTest, RefusedConnectionFailsWithTheTransportError) {
    const int closedPort = FixtureServer::closedPort();
    auto delegate = std::make_shared<RecordingDelegate>();
    URLRequest request;
    request.url = QUrl(QStringLiteral("http://127.0.0.1:%1/").arg(closedPort));
    URLConnection::create(request, delegate)->start();
    ASSERT_TRUE(waitUntil([&] { return delegate->over(); }));
    EXPECT_EQ(delegate->events, QStringList{QStringLiteral("fail QNetworkReplyErrorDomain %1")
                                                .arg(QNetworkReply::ConnectionRefusedError)});
}

TEST(URLConnectionTest, PostCarriesMethodAndBodyAsGiven) {
    FixtureServer server;
    server.on("POST", "/start", FixtureServer::respond(200, "ok"));
    auto delegate = std::make_shared<RecordingDelegate>();
    URLRequest request;
    request.url = QUrl(server.baseUrl() + "/start?auth=a+b@c&email=x");
    request.httpMethod = "POST";
    request.httpBody = QByteArray("ZW1haWw=");
    URLConnection::create(request, delegate)->start();
    ASSERT_TRUE(waitUntil([&] { return delegate->over(); }));
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].query, "auth=a+b@c&email=x");
    EXPECT_EQ(requests[0].body, "ZW1haWw=");
    EXPECT_EQ(requests[0].headers.count("Authorization"), 0u);
}

// One exchange cancelled, or every exchange of a process that is about to end.
class CancelledExchangeTest : public ::testing::TestWithParam<bool> {};

TEST_P(CancelledExchangeTest, StaysSilentAndLetsGo) {
    FixtureServer server;
    server.on("GET", "/start", server.stall());
    auto delegate = std::make_shared<RecordingDelegate>();
    URLRequest request;
    request.url = QUrl(server.baseUrl() + "/start");
    auto connection = URLConnection::create(request, delegate);
    connection->start();
    ASSERT_TRUE(server.waitForRequests(1));
    EXPECT_EQ(URLConnection::inFlightCount(), 1);
    if (GetParam()) {
        URLConnection::cancelAll();
    } else {
        connection->cancel();
    }
    server.releaseStalled();
    testsupport::settle(200);
    EXPECT_TRUE(delegate->events.isEmpty()) << delegate->events.join(" | ").toStdString();
    EXPECT_EQ(URLConnection::inFlightCount(), 0);
    EXPECT_EQ(delegate.use_count(), 1) << "the delegate is let go";
}

INSTANTIATE_TEST_SUITE_P(URLConnectionTest, CancelledExchangeTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "All" : "One"; });

TEST(HTTPURLResponseTest, ReasonPhrasesInLowerCase) {
    EXPECT_EQ(foundation::HTTPURLResponse::localizedStringForStatusCode(404), "not found");
    EXPECT_EQ(foundation::HTTPURLResponse::localizedStringForStatusCode(599), "server error");
}

}  // namespace
