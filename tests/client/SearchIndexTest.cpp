// SPDX-License-Identifier: GPL-3.0-or-later
// What search and index answers turn into, including answers a correct service would not give.
#include <QScopeGuard>

#include "client/LWSimplenoteCredentialStore.h"
#include "client/LWSimplenoteIndex.h"
#include "client/LWSimplenoteSearch.h"
#include "foundation/Log.h"
#include "tests/client/ClientFixture.h"
#include "tests/support/Wait.h"

namespace clienttest {
namespace {

using testsupport::FixtureServer;
using testsupport::waitUntil;

class SearchIndexTest : public ClientTest {
protected:
    void SetUp() override {
        ClientTest::SetUp();
        LWSimplenoteCredentialStore::setAuthToken("TOK");
        LWSimplenoteCredentialStore::setEmail("me@example.org");
    }
    template <class T>
    Heard pull(T& object) {
        Heard heard;
        observe(object, "pullFromRemote", heard);
        object.pullFromRemote();
        EXPECT_TRUE(waitUntil([&] { return !heard.names.isEmpty(); }));
        foundation::NotificationCenter::defaultCenter().removeObserver(this);  // heard goes
        return heard;
    }
};

struct SearchCase {
    const char* name;
    int status;
    std::string body;
    int notes;  // -1: failure
    QString key = QString();
    QString text = QString();
};

class SearchAnswerTest : public SearchIndexTest,
                         public ::testing::WithParamInterface<SearchCase> {};

TEST_P(SearchAnswerTest, OnlyTheFirstResultCounts) {
    const SearchCase& c = GetParam();
    server().on("GET", "/api/search", FixtureServer::respond(c.status, c.body));
    auto search = LWSimplenoteSearch::createWithQuery("Ferrybox_Downloads");
    const Heard heard = pull(*search);
    EXPECT_EQ(server().requests().at(0).query,
              "query=Ferrybox_Downloads&auth=TOK&email=me@example.org");
    if (c.notes < 0) {
        EXPECT_EQ(heard.names, QStringList{"LWSimplenoteSearchPullFromRemoteFailureNotification"});
        ASSERT_NE(heard.last.value<foundation::Error>("error"), nullptr);
        EXPECT_EQ(heard.last.value<foundation::Error>("error")->code, c.status);
        EXPECT_FALSE(search->contents().has_value());
        return;
    }
    EXPECT_EQ(heard.names, QStringList{"LWSimplenoteSearchPullFromRemoteSuccessNotification"});
    EXPECT_EQ(LWSNObject::fromNotification<LWSimplenoteSearch>(heard.last), search);
    ASSERT_TRUE(search->contents().has_value());
    ASSERT_EQ(static_cast<int>(search->contents()->size()), c.notes);
    if (c.notes == 1) {
        EXPECT_EQ(search->contents()->at(0)->key(), c.key);
        EXPECT_EQ(search->contents()->at(0)->text(), c.text);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Client, SearchAnswerTest,
    ::testing::Values(
        SearchCase{"ThreeResults", 200,
                   R"({"Response": {"totalRecords": 3, "Results": [
                       {"key": "a", "content": "Ferrybox_Downloads\nhttp://x/1"},
                       {"key": "b", "content": "Ferrybox_Downloads too"},
                       {"key": "c", "content": "and again"}]}})",
                   1, "a", "Ferrybox_Downloads\nhttp://x/1"},
        SearchCase{"NoResults", 200, R"({"Response": {"totalRecords": 0, "Results": []}})", 0},
        SearchCase{"NotJson", 200, "<html>busy</html>", 1, QString(), QString()},
        SearchCase{"NotUtf8", 200, "{\"Response\": \"\xff\"}", 1, QString(), QString()},
        SearchCase{"ScalarIsNoJson", 200, "\"x\"", 1, QString(), QString()},
        SearchCase{"NullIsNoJson", 200, "null", 1, QString(), QString()},
        SearchCase{"ByteOrderMarkIsNoJson", 200, "\xef\xbb\xbf{\"Response\": {\"Results\": []}}", 1,
                   QString(), QString()},
        SearchCase{"NoResponseMember", 200, "{}", 1, QString(), QString()},
        // Wrong kinds raise inside the search, which keeps no note.
        SearchCase{"ArrayAnswer", 200, "[]", 0}, SearchCase{"ArrayOfStrings", 200, "[\"s\"]", 0},
        SearchCase{"ResponseIsAString", 200, R"({"Response": "x"})", 0},
        SearchCase{"ResultsIsAnObject", 200, R"({"Response": {"Results": {}}})", 0},
        SearchCase{"Unauthorised", 401, "", -1}, SearchCase{"ServerError", 500, "{}", -1}),
    [](const auto& info) { return std::string(info.param.name); });

// What the service receives for a query: only what a URL cannot carry is escaped.
TEST_F(SearchIndexTest, QueryTravelsAsTheUrlParserLeavesIt) {
    const std::pair<QString, std::string> cases[] = {
        {"two words", "query=two%20words&auth=TOK&email=me@example.org"},
        {"tab\there", "query=tab%09here&auth=TOK&email=me@example.org"},
        {"100%", "query=100%25&auth=TOK&email=me@example.org"},
        {"%41", "query=A&auth=TOK&email=me@example.org"},
        {QString::fromUtf8("café"), "query=caf%C3%A9&auth=TOK&email=me@example.org"},
        {"a&b+c", "query=a&b+c&auth=TOK&email=me@example.org"},
        {"a#b", "query=a"},
    };
    server().on("GET", "/api/search", FixtureServer::respond(200, "{}"));
    for (const auto& [query, sent] : cases) {
        server().clearRequests();
        pull(*LWSimplenoteSearch::createWithQuery(query));
        EXPECT_EQ(server().requests().at(0).query, sent) << query.toStdString();
    }
}

TEST_F(SearchIndexTest, IndexNotesCarryDatesButNoKeys) {
    server().on("GET", "/api/index", FixtureServer::respond(200, R"([
                    {"key": "a", "modify": "2010-03-05 12:34:56.123456", "deleted": false},
                    {"key": "b", "modify": "2011-01-01 00:00:00.000000", "create": "x"}])"));
    auto index = LWSNObject::create<LWSimplenoteIndex>();
    const Heard heard = pull(*index);
    EXPECT_EQ(heard.names, QStringList{"LWSimplenoteIndexPullFromRemoteSuccessNotification"});
    EXPECT_EQ(server().requests().at(0).query, "auth=TOK&email=me@example.org");
    ASSERT_EQ(index->contents().size(), 2u);
    for (const auto& note : index->contents()) {
        EXPECT_TRUE(note->key().isNull());
        EXPECT_TRUE(note->text().isNull());
        EXPECT_TRUE(note->modifyDate().has_value());
        EXPECT_FALSE(note->createDate().has_value());
    }
    EXPECT_EQ(index->contents()[0]->modifyDate()->date(), QDate(2010, 3, 5));
    ASSERT_TRUE(index->contents()[0]->deleted().has_value());
}

// The index has no guard: an answer of the wrong shape raises out of its handler, nothing is
// posted, the run loop logs the exception and the client goes on working.
TEST_F(SearchIndexTest, IndexAnswersOfEveryShape) {
    const struct {
        std::string body;
        int notes;              // -1: raises
        const char* exception;  // the kind the log line names
    } cases[] = {
        {"[]", 0, nullptr},
        {"not json", 0, nullptr},
        {"{}", 0, nullptr},
        {R"([{"Response": {"Results": []}}])", -1, "std::out_of_range"},
        {R"({"a": 1})", -1, "std::invalid_argument"},
        {"[1]", -1, "std::invalid_argument"},
    };
    for (const auto& c : cases) {
        server().on("GET", "/api/index", FixtureServer::respond(200, c.body));
        foundation::LogCapture log;
        auto index = LWSNObject::create<LWSimplenoteIndex>();
        Heard heard;
        const auto forget = qScopeGuard(
            [this] { foundation::NotificationCenter::defaultCenter().removeObserver(this); });
        observe(*index, "pullFromRemote", heard);
        index->pullFromRemote();
        if (c.notes >= 0) {
            ASSERT_TRUE(waitUntil([&] { return !heard.names.isEmpty(); })) << c.body;
            EXPECT_EQ(heard.names,
                      QStringList{"LWSimplenoteIndexPullFromRemoteSuccessNotification"});
            EXPECT_EQ(static_cast<int>(index->contents().size()), c.notes) << c.body;
            continue;
        }
        ASSERT_TRUE(waitUntil([&] { return !log.lines().isEmpty(); })) << c.body;
        EXPECT_TRUE(log.lines().first().startsWith(
            QStringLiteral("An uncaught exception was raised: %1: ").arg(c.exception)))
            << log.lines().first().toStdString();
        testsupport::settle(20);
        EXPECT_TRUE(heard.names.isEmpty()) << c.body;
    }
}

}  // namespace
}  // namespace clienttest
