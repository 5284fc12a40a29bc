// SPDX-License-Identifier: GPL-3.0-or-later
// A note's pull, push and delete against the scripted service, and reading notes from JSON.
#include <ctime>

#include "Classes/TWJSON/TWJSON.h"
#include "client/LWSimplenote.h"
#include "client/LWSimplenoteCredentialStore.h"
#include "client/NoteDate.h"
#include "tests/client/ClientFixture.h"
#include "tests/support/Wait.h"

namespace clienttest {
namespace {

using testsupport::FixtureServer;
using testsupport::waitUntil;

// Dates are read in local time. Under UTC a reader that ignored the time zone would pass, so
// this binary runs 13 hours 45 minutes ahead of it (set before any date below is made).
const bool kFarFromUtc = [] {
    qputenv("TZ", "FBX-13:45");
    tzset();
    return true;
}();
const QDateTime kMarch5(QDate(2010, 3, 5), QTime(12, 34, 56, 123), Qt::LocalTime);

class NoteTest : public ClientTest {
protected:
    void SetUp() override {
        ClientTest::SetUp();
        LWSimplenoteCredentialStore::setAuthToken("TOK");
        LWSimplenoteCredentialStore::setEmail("me+x@example.org");
    }
    std::shared_ptr<LWSimplenote> note(const QString& key = QString()) {
        auto n = LWSNObject::create<LWSimplenote>();
        n->setKey(key);
        return n;
    }
    // Runs one action and returns what its observer heard.
    Heard run(LWSimplenote& n, const QString& selector, void (LWSimplenote::*action)()) {
        Heard heard;
        observe(n, selector, heard);
        (n.*action)();
        EXPECT_TRUE(waitUntil([&] { return !heard.names.isEmpty(); }));
        foundation::NotificationCenter::defaultCenter().removeObserver(this);  // heard goes
        return heard;
    }
};

TEST_F(NoteTest, PullReadsTheHeadersAndTheText) {
    server().on("GET", "/api/note",
                FixtureServer::respond(200, "first line\nzweite Zeile ü",
                                       {{"Note-Key", "k2"},
                                        {"Note-Modifydate", "2010-03-05 12:34:56.123456"},
                                        {"Note-Createdate", "2009-01-02 03:04:05.000000"},
                                        {"Note-Deleted", "false"},
                                        {"Note-Version", "7"}}));
    auto n = note("k1");
    run(*n, "pullFromRemote", &LWSimplenote::pullFromRemote);
    EXPECT_EQ(n->key(), "k2");
    EXPECT_EQ(n->text(), QString::fromUtf8("first line\nzweite Zeile ü"));
    EXPECT_EQ(n->modifyDate(), kMarch5);
    EXPECT_EQ(n->createDate(), QDateTime(QDate(2009, 1, 2), QTime(3, 4, 5), Qt::LocalTime));
    ASSERT_TRUE(n->deleted().has_value());
    EXPECT_EQ(n->deleted()->stringValue(), "false");
    EXPECT_EQ(n->version(), 7);

    // Without headers the dates stay as they were; key, deleted flag and version go.
    server().on("GET", "/api/note", FixtureServer::respond(200, ""));
    run(*n, "pullFromRemote", &LWSimplenote::pullFromRemote);
    EXPECT_TRUE(n->key().isNull());
    EXPECT_FALSE(n->deleted().has_value());
    EXPECT_FALSE(n->version().has_value());
    EXPECT_EQ(n->modifyDate(), kMarch5);
    EXPECT_EQ(n->text(), "");
    EXPECT_FALSE(n->text().isNull());
}

// Each action's request, its success, and an HTTP error heard by its observer with the note
// left as it was. A push without key creates a note, sends at most 384 bytes of text and does
// not learn the new key.
TEST_F(NoteTest, EachActionsRequestAndOutcomes) {
    const QString text(1000, QLatin1Char('x'));
    const struct {
        const char* selector;
        void (LWSimplenote::*action)();
        QString key;
        std::string method;
        std::string path;
        std::string query;
        std::string body;
        QString success;
        QString failure;
    } cases[] = {
        {"pullFromRemote", &LWSimplenote::pullFromRemote, "k1", "GET", "/api/note",
         "auth=TOK&email=me+x@example.org&key=k1", "",
         "LWSimplenotePullFromRemoteSuccessNotification",
         "LWSimplenotePullFromRemoteFailureNotification"},
        {"pushToRemote", &LWSimplenote::pushToRemote, QString(), "POST", "/api/note",
         "auth=TOK&email=me+x@example.org", text.left(384).toUtf8().toBase64().toStdString(),
         "LWSimplenotePushToRemoteSuccessNotification",
         "LWSimplenotePushToRemoteFailureNotification"},
        {"deleteNote", &LWSimplenote::deleteNote, "k1", "GET", "/api/delete",
         "auth=TOK&email=me+x@example.org&key=k1", "", "LWSimplenoteDeleteNoteSuccessNotification",
         "LWSimplenoteDeleteNoteFailureNotification"},
    };
    for (const auto& c : cases) {
        server().clearRequests();
        server().on(c.method, c.path, FixtureServer::respond(200, "new-key"));
        auto n = note(c.key);
        n->setText(text);
        EXPECT_EQ(run(*n, c.selector, c.action).names, QStringList{c.success});
        const auto request = server().requests().at(0);
        EXPECT_EQ(request.query, c.query) << c.selector;
        EXPECT_EQ(request.body, c.body) << c.selector;
        if (c.method == "POST") {
            EXPECT_TRUE(n->key().isNull()) << "the answer's key is not taken";
        }

        server().on(c.method, c.path, FixtureServer::respond(404, "no such note"));
        n = note("gone");
        n->setText("kept");
        const Heard heard = run(*n, c.selector, c.action);
        EXPECT_EQ(heard.names, QStringList{c.failure});
        const auto* error = heard.last.value<foundation::Error>("error");
        ASSERT_NE(error, nullptr) << c.selector;
        EXPECT_EQ(*error, foundation::Error("LWSimplenoteErrorDomain", 404, "not found"));
        EXPECT_EQ(n->key(), "gone");
        EXPECT_EQ(n->text(), "kept");
    }
}

// A note whose service is gone.
class UnreachableNote : public LWSimplenote {
public:
    static inline int port = 0;
    QUrl URLForActionID(int) const override {
        return QUrl(QStringLiteral("http://127.0.0.1:%1/api/note").arg(port));
    }
};

TEST_F(NoteTest, TransportFailurePostsUnderTheColonNameOnly) {
    UnreachableNote::port = FixtureServer::closedPort();
    const struct {
        const char* selector;
        void (LWSimplenote::*action)();
        QString colonName;
    } cases[] = {
        {"pullFromRemote", &LWSimplenote::pullFromRemote,
         "UnreachableNotePullFromRemote:FailureNotification"},
        {"pushToRemote", &LWSimplenote::pushToRemote,
         "UnreachableNotePushToRemote:FailureNotification"},
        {"deleteNote", &LWSimplenote::deleteNote, "UnreachableNoteDeleteNote:FailureNotification"},
    };
    for (const auto& c : cases) {
        auto n = LWSNObject::create<UnreachableNote>();
        Heard observer;
        observe(*n, c.selector, observer);
        Heard colon;
        foundation::NotificationCenter::defaultCenter().addObserver(
            this, c.colonName, n.get(), [&](const foundation::Notification& note) {
                colon.names << note.name;
                colon.last = note;
            });
        ((*n).*c.action)();
        ASSERT_TRUE(waitUntil([&] { return !colon.names.isEmpty(); })) << c.selector;
        testsupport::settle(20);
        EXPECT_TRUE(observer.names.isEmpty()) << c.selector;
        ASSERT_NE(colon.last.value<foundation::Error>("error"), nullptr);
        EXPECT_EQ(colon.last.value<foundation::Error>("error")->domain, "QNetworkReplyErrorDomain");
    }
}

// A push names the version its text is based on, when the note has one; a note of a service
// without versions is pushed exactly as ever.
TEST_F(NoteTest, APushNamesTheVersionItReadOnly) {
    server().on("POST", "/api/note", FixtureServer::respond(200, "k1"));
    for (const std::optional<qint64> version :
         {std::optional<qint64>(41), std::optional<qint64>()}) {
        server().clearRequests();
        auto n = note("k1");
        n->setVersion(version);
        run(*n, "pushToRemote", &LWSimplenote::pushToRemote);
        const auto headers = server().requests().at(0).headers;
        const auto base = headers.find("Note-Base-Version");
        if (version) {
            ASSERT_NE(base, headers.end());
            EXPECT_EQ(base->second, "41");
        } else {
            EXPECT_EQ(base, headers.end());
        }
        EXPECT_EQ(n->version(), version) << "a push changes no field";
    }
}

TEST(NoteDictionaryTest, KeyAndTextFromTheFirstResultDatesFromTheTop) {
    TWJSON json;
    const auto d = json.objectWithString(
        R"({"Response": {"Results": [{"key": "k", "content": "c"}, {"key": "k2"}]},
            "modify": "2010-03-05 12:34:56.123456", "create": "not a date", "deleted": 1})");
    ASSERT_TRUE(d);
    const auto n = LWSimplenote::noteWithDictionary(&*d);
    EXPECT_EQ(n->key(), "k");
    EXPECT_EQ(n->text(), "c");
    EXPECT_EQ(n->modifyDate(), kMarch5);
    EXPECT_FALSE(n->createDate().has_value());
    ASSERT_TRUE(n->deleted().has_value());
    EXPECT_EQ(n->deleted()->numberText(), "1");
    EXPECT_FALSE(n->version().has_value());

    // The version comes with the result a search gives, else from the top as an index entry has
    // it; only a whole number from 1 on is one.
    const std::pair<const char*, std::optional<qint64>> versions[] = {
        {R"({"Response": {"Results": [{"key": "k", "version": 3}]}, "version": 9})", 3},
        {R"({"key": "k", "version": 12})", 12},
        {R"({"version": "3"})", std::nullopt},
        {R"({"version": 0})", std::nullopt},
        {R"({"version": 2.5})", std::nullopt},
    };
    for (const auto& [text, version] : versions) {
        const auto v = json.objectWithString(text);
        ASSERT_TRUE(v) << text;
        EXPECT_EQ(LWSimplenote::noteWithDictionary(&*v)->version(), version) << text;
    }
}

// Looking into nothing gives nothing; asking a value of the wrong kind raises.
TEST(NoteDictionaryTest, ShapesThatGiveAnEmptyNoteOrRaise) {
    enum Outcome { EmptyNote, OutOfRange, WrongKind };
    const std::pair<const char*, Outcome> cases[] = {
        {"{}", EmptyNote},
        {R"({"Response": {}})", EmptyNote},
        {R"({"Response": {"Results": []}})", OutOfRange},
        {"[]", WrongKind},
        {R"(["s"])", WrongKind},
        {R"({"Response": "x"})", WrongKind},
        {R"({"Response": null})", WrongKind},
        {R"({"Response": {"Results": {}}})", WrongKind},
        {R"({"Response": {"Results": ["s"]}})", WrongKind},
    };
    TWJSON json;
    for (const auto& [text, outcome] : cases) {
        const auto d = json.objectWithString(text);
        ASSERT_TRUE(d) << text;
        switch (outcome) {
            case EmptyNote: {
                const auto n = LWSimplenote::noteWithDictionary(&*d);
                EXPECT_TRUE(n->key().isNull() && n->text().isNull()) << text;
                EXPECT_FALSE(n->modifyDate() || n->createDate() || n->deleted()) << text;
                break;
            }
            case OutOfRange:
                EXPECT_THROW(LWSimplenote::noteWithDictionary(&*d), std::out_of_range) << text;
                break;
            case WrongKind:
                EXPECT_THROW(LWSimplenote::noteWithDictionary(&*d), std::invalid_argument) << text;
                break;
        }
    }
    EXPECT_TRUE(LWSimplenote::noteWithDictionary(nullptr)->key().isNull());
}

TEST(NoteDateTest, ReadsOnlyTheServicePattern) {
    ASSERT_TRUE(kFarFromUtc);
    ASSERT_EQ(kMarch5.offsetFromUtc(), 13 * 3600 + 45 * 60);
    EXPECT_EQ(noteDateFromString("2010-03-05 12:34:56.123456"), kMarch5);
    for (const char* bad :
         {"2010-03-05 12:34:56", "2010-03-05T12:34:56.123456", "2010-13-05 12:34:56.123456",
          "2010-02-30 12:34:56.123456", "2010-03-05 12:34:56.123456Z", ""}) {
        EXPECT_FALSE(noteDateFromString(bad).has_value()) << bad;
    }
}

}  // namespace
}  // namespace clienttest
