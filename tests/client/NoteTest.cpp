// A note's pull, push and delete against the scripted service, and reading notes from JSON.
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
        return heard;
    }
};

TEST_F(NoteTest, PullReadsTheHeadersAndTheText) {
    server().on("GET", "/api/note",
                FixtureServer::respond(200, "first line\nzweite Zeile ü",
                                       {{"Note-Key", "k2"},
                                        {"Note-Modifydate", "2010-03-05 12:34:56.123456"},
                                        {"Note-Createdate", "2009-01-02 03:04:05.000000"},
                                        {"Note-Deleted", "false"}}));
    auto n = note("k1");
    const Heard heard = run(*n, "pullFromRemote", &LWSimplenote::pullFromRemote);
    EXPECT_EQ(heard.names, QStringList{"LWSimplenotePullFromRemoteSuccessNotification"});
    EXPECT_EQ(server().requests().at(0).query, "auth=TOK&email=me+x@example.org&key=k1");
    EXPECT_EQ(n->key(), "k2");
    EXPECT_EQ(n->text(), QString::fromUtf8("first line\nzweite Zeile ü"));
    EXPECT_EQ(n->modifyDate(), kMarch5);
    EXPECT_EQ(n->createDate(), QDateTime(QDate(2009, 1, 2), QTime(3, 4, 5), Qt::LocalTime));
    ASSERT_TRUE(n->deleted().has_value());
    EXPECT_EQ(n->deleted()->stringValue(), "false");
}

TEST_F(NoteTest, PullWithoutHeadersKeepsDatesButNotKeyOrDeleted) {
    server().on("GET", "/api/note", FixtureServer::respond(200, ""));
    auto n = note("k1");
    n->setModifyDate(kMarch5);
    n->setCreateDate(kMarch5);
    n->setDeleted(TWJsonValue::boolean(true));
    run(*n, "pullFromRemote", &LWSimplenote::pullFromRemote);
    EXPECT_TRUE(n->key().isNull());
    EXPECT_FALSE(n->deleted().has_value());
    EXPECT_EQ(n->modifyDate(), kMarch5);
    EXPECT_EQ(n->createDate(), kMarch5);
    EXPECT_EQ(n->text(), "");
    EXPECT_FALSE(n->text().isNull());
}

TEST_F(NoteTest, HttpErrorsReachTheObserverOfEachAction) {
    const struct {
        const char* selector;
        void (LWSimplenote::*action)();
        std::string method;
        std::string path;
    } cases[] = {
        {"pullFromRemote", &LWSimplenote::pullFromRemote, "GET", "/api/note"},
        {"pushToRemote", &LWSimplenote::pushToRemote, "POST", "/api/note"},
        {"deleteNote", &LWSimplenote::deleteNote, "GET", "/api/delete"},
    };
    for (const auto& c : cases) {
        server().on(c.method, c.path, FixtureServer::respond(404, "no such note"));
        auto n = note("gone");
        n->setText("kept");
        const Heard heard = run(*n, c.selector, c.action);
        const QString name = n->failureNotificationNameForSelector(c.selector);
        EXPECT_EQ(heard.names, QStringList{name});
        const auto* error = heard.last.value<foundation::Error>("error");
        ASSERT_NE(error, nullptr) << c.selector;
        EXPECT_EQ(*error, foundation::Error("LWSimplenoteErrorDomain", 404, "not found"));
        EXPECT_EQ(n->key(), "gone");
        EXPECT_EQ(n->text(), "kept");
    }
}

TEST_F(NoteTest, PushWithoutKeyCreatesAndSendsAtMost384Bytes) {
    server().on("POST", "/api/note", FixtureServer::respond(200, "new-key"));
    auto n = note();
    const QString text(1000, QLatin1Char('x'));
    n->setText(text);
    const Heard heard = run(*n, "pushToRemote", &LWSimplenote::pushToRemote);
    EXPECT_EQ(heard.names, QStringList{"LWSimplenotePushToRemoteSuccessNotification"});
    const auto request = server().requests().at(0);
    EXPECT_EQ(request.query, "auth=TOK&email=me+x@example.org");
    EXPECT_EQ(request.body.size(), 512u);
    EXPECT_EQ(QByteArray::fromBase64(QByteArray::fromStdString(request.body)),
              text.left(384).toUtf8());
    EXPECT_TRUE(n->key().isNull()) << "the answer's key is not taken";
}

TEST_F(NoteTest, DeleteAsksForTheKey) {
    server().on("GET", "/api/delete", FixtureServer::respond(200, "k1"));
    auto n = note("k1");
    const Heard heard = run(*n, "deleteNote", &LWSimplenote::deleteNote);
    EXPECT_EQ(heard.names, QStringList{"LWSimplenoteDeleteNoteSuccessNotification"});
    EXPECT_EQ(server().requests().at(0).query, "auth=TOK&email=me+x@example.org&key=k1");
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
    const std::pair<const char*, void (LWSimplenote::*)()> actions[] = {
        {"pullFromRemote", &LWSimplenote::pullFromRemote},
        {"pushToRemote", &LWSimplenote::pushToRemote},
        {"deleteNote", &LWSimplenote::deleteNote},
    };
    for (const auto& [selector, action] : actions) {
        auto n = LWSNObject::create<UnreachableNote>();
        Heard observer;
        observe(*n, selector, observer);
        Heard colon;
        const QString colonName =
            QStringLiteral("UnreachableNote%1%2:FailureNotification")
                .arg(QString(selector).left(1).toUpper(), QString(selector).mid(1));
        foundation::NotificationCenter::defaultCenter().addObserver(
            this, colonName, n.get(), [&](const foundation::Notification& note) {
                colon.names << note.name;
                colon.last = note;
            });
        ((*n).*action)();
        ASSERT_TRUE(waitUntil([&] { return !colon.names.isEmpty(); })) << selector;
        testsupport::settle(20);
        EXPECT_TRUE(observer.names.isEmpty()) << selector;
        ASSERT_NE(colon.last.value<foundation::Error>("error"), nullptr);
        EXPECT_EQ(colon.last.value<foundation::Error>("error")->domain, "QNetworkReplyErrorDomain");
    }
}

TEST(NoteDictionaryTest, KeyAndTextFromTheFirstResultDatesFromTheTop) {
    TWJSON json;
    const auto d = json.objectWithString(
        R"({"Response": {"Results": [{"key": "k", "content": "c"}, {"key": "k2"}]},
            "modify": "2010-03-05 12:34:56.123456", "create": "not a date", "deleted": 1})");
    ASSERT_TRUE(d);
    const auto n = LWSimplenote::noteWithDictionary(*d);
    EXPECT_EQ(n->key(), "k");
    EXPECT_EQ(n->text(), "c");
    EXPECT_EQ(n->modifyDate(), kMarch5);
    EXPECT_FALSE(n->createDate().has_value());
    ASSERT_TRUE(n->deleted().has_value());
    EXPECT_EQ(n->deleted()->numberText(), "1");

    const auto empty = LWSimplenote::noteWithDictionary(TWJsonValue::dictionary());
    EXPECT_TRUE(empty->key().isNull());
    EXPECT_TRUE(empty->text().isNull());
    EXPECT_FALSE(empty->modifyDate() || empty->createDate() || empty->deleted());

    const auto noResults = json.objectWithString(R"({"Response": {"Results": []}})");
    EXPECT_THROW(LWSimplenote::noteWithDictionary(*noResults), std::out_of_range);
}

TEST(NoteDateTest, ReadsOnlyTheServicePattern) {
    EXPECT_EQ(noteDateFromString("2010-03-05 12:34:56.123456"), kMarch5);
    for (const char* bad :
         {"2010-03-05 12:34:56", "2010-03-05T12:34:56.123456", "2010-13-05 12:34:56.123456",
          "2010-02-30 12:34:56.123456", "2010-03-05 12:34:56.123456Z", ""}) {
        EXPECT_FALSE(noteDateFromString(bad).has_value()) << bad;
    }
}

}  // namespace
}  // namespace clienttest
