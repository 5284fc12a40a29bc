// SPDX-License-Identifier: GPL-3.0-or-later
// The whole client against the real ferrybox-notes: log in, create, pull, update, delete,
// search, index, append, and a whole-account sync.
#include <gtest/gtest.h>

#include <QNetworkReply>

#include "client/LWSimplenoteAppend.h"
#include "client/LWSimplenoteController.h"
#include "client/LWSimplenoteSearch.h"
#include "foundation/NotificationCenter.h"
#include "tests/support/FixtureServer.h"
#include "tests/support/NotesServerProcess.h"
#include "tests/support/TempHome.h"
#include "tests/support/Wait.h"

namespace {

using testsupport::waitUntil;

const QString kEmail = QStringLiteral("me+tag@example.org");
const QString kPassword = QStringLiteral("pa ss&word");

// One service for the binary: the client reads its address once per process. It is stopped
// when the tests are over.
testsupport::NotesServerProcess* gService = nullptr;

class ServiceEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        gService = new testsupport::NotesServerProcess();
        qputenv("FERRYBOX_API_URL", gService->apiUrl().toUtf8());
        gService->addUser(kEmail, kPassword);
    }
    void TearDown() override {
        delete gService;
        gService = nullptr;
    }
};

const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new ServiceEnvironment);

testsupport::NotesServerProcess& service() {
    return *gService;
}

class RealServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(service().isRunning());
        home_ = std::make_unique<testsupport::TempHome>();
        auto login = LWSNObject::create<LWSimplenoteLogin>();
        login->setEmail(kEmail);
        login->setPassword(kPassword);
        ASSERT_EQ(run(*login, "login", [&] { login->login(); }),
                  "LWSimplenoteLoginLoginSuccessNotification");
    }
    void TearDown() override {
        foundation::NotificationCenter::defaultCenter().removeObserver(this);
    }

    // Starts an action and returns the name of the outcome it posted.
    QString run(LWSNObject& object, const QString& selector, const std::function<void()>& start) {
        QString outcome;
        const auto heard = [&](const foundation::Notification& n) {
            outcome = n.name;
            last_ = n;
        };
        object.addObserver(this, selector, heard, heard);
        start();
        EXPECT_TRUE(waitUntil([&] { return !outcome.isNull(); }, 10000));
        foundation::NotificationCenter::defaultCenter().removeObserver(this);
        return outcome;
    }

    std::shared_ptr<LWSimplenote> find(const QString& text) {
        auto search = LWSimplenoteSearch::createWithQuery(text);
        EXPECT_EQ(run(*search, "pullFromRemote", [&] { search->pullFromRemote(); }),
                  "LWSimplenoteSearchPullFromRemoteSuccessNotification");
        if (!search->contents() || search->contents()->empty())
            return nullptr;
        return search->contents()->front();
    }

    std::unique_ptr<testsupport::TempHome> home_;
    foundation::Notification last_;  // the outcome run() heard last
};

TEST_F(RealServiceTest, NoteRoundTrip) {
    auto note = LWSNObject::create<LWSimplenote>();
    note->setText("Ferrybox_Downloads\n# keep this\nhttps://example.org/a.zip");
    EXPECT_EQ(run(*note, "pushToRemote", [&] { note->pushToRemote(); }),
              "LWSimplenotePushToRemoteSuccessNotification");
    EXPECT_TRUE(note->key().isNull()) << "a push does not learn the new key";

    const auto found = find("Ferrybox_Downloads");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->text(), note->text());
    ASSERT_FALSE(found->key().isEmpty());

    auto pulled = LWSNObject::create<LWSimplenote>();
    pulled->setKey(found->key());
    EXPECT_EQ(run(*pulled, "pullFromRemote", [&] { pulled->pullFromRemote(); }),
              "LWSimplenotePullFromRemoteSuccessNotification");
    EXPECT_EQ(pulled->text(), note->text());
    ASSERT_TRUE(pulled->modifyDate() && pulled->createDate());
    EXPECT_LE(qAbs(pulled->createDate()->toUTC().secsTo(QDateTime::currentDateTimeUtc())),
              3600 * 24);
    EXPECT_EQ(pulled->deleted()->stringValue(), "false");

    pulled->setText("Ferrybox_Downloads\n# keep this");
    EXPECT_EQ(run(*pulled, "pushToRemote", [&] { pulled->pushToRemote(); }),
              "LWSimplenotePushToRemoteSuccessNotification");
    EXPECT_EQ(run(*pulled, "deleteNote", [&] { pulled->deleteNote(); }),
              "LWSimplenoteDeleteNoteSuccessNotification");
    EXPECT_EQ(run(*pulled, "pullFromRemote", [&] { pulled->pullFromRemote(); }),
              "LWSimplenotePullFromRemoteSuccessNotification");
    EXPECT_EQ(pulled->text(), "Ferrybox_Downloads\n# keep this");
    EXPECT_EQ(pulled->deleted()->stringValue(), "true");

    auto missing = LWSNObject::create<LWSimplenote>();
    missing->setKey("nosuchkey");
    EXPECT_EQ(run(*missing, "pullFromRemote", [&] { missing->pullFromRemote(); }),
              "LWSimplenotePullFromRemoteFailureNotification");
}

TEST_F(RealServiceTest, LongPushArrivesAsItsFirst384Bytes) {
    const QString text = QStringLiteral("Capped_note ") + QString(988, QLatin1Char('y'));
    ASSERT_EQ(text.toUtf8().size(), 1000);
    auto note = LWSNObject::create<LWSimplenote>();
    note->setText(text);
    run(*note, "pushToRemote", [&] { note->pushToRemote(); });
    const auto found = find("Capped_note");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->text(), text.left(384));
}

// An append whose service is gone.
class UnreachableAppend : public LWSimplenoteAppend {
public:
    QUrl URLForActionID(int) const override {
        return QUrl(QStringLiteral("http://127.0.0.1:%1/api/append")
                        .arg(testsupport::FixtureServer::closedPort()));
    }
};

// The line lands whole at the end of the note that begins with the header, however long (the
// push would cut it at 384 bytes); the note is made by the first append. Every character of the
// header that a query gives a meaning of its own reaches the service as text.
TEST_F(RealServiceTest, AppendAddsTheWholeLineToTheNoteWithTheHeader) {
    const QString header = QString::fromUtf8("Append test & more+ü=#1");
    const QString failed = QStringLiteral("# failed: not found: https://example.org/a.zip");
    const QString longLine = QStringLiteral("# failed: ") + QString(990, QLatin1Char('z'));
    ASSERT_EQ(longLine.toUtf8().size(), 1000);
    const struct {
        QString line;
        QString text;  // the note's, after the append
        qint64 version;
    } rows[] = {
        {failed, header + "\n" + failed, 1},
        {longLine, header + "\n" + failed + "\n" + longLine, 2},
    };
    QString key;
    for (const auto& row : rows) {
        auto append = LWSNObject::create<LWSimplenoteAppend>();
        append->setHeader(header);
        append->setLine(row.line);
        EXPECT_EQ(run(*append, "appendToRemote", [&] { append->appendToRemote(); }),
                  "LWSimplenoteAppendAppendToRemoteSuccessNotification");
        ASSERT_FALSE(append->key().isEmpty());
        if (key.isNull())
            key = append->key();
        EXPECT_EQ(append->key(), key) << "the same note takes every line";
        EXPECT_EQ(append->version(), row.version);

        auto pulled = LWSNObject::create<LWSimplenote>();
        pulled->setKey(key);
        EXPECT_EQ(run(*pulled, "pullFromRemote", [&] { pulled->pullFromRemote(); }),
                  "LWSimplenotePullFromRemoteSuccessNotification");
        EXPECT_EQ(pulled->text(), row.text);
        EXPECT_EQ(pulled->version(), row.version);
    }

    // A session the service does not know, or no service at all: the failure, with why, and
    // nothing added.
    auto refused = LWSNObject::create<LWSimplenoteAppend>();
    refused->setAuthToken(QStringLiteral("00000000000000000000000000000000"));
    const struct {
        std::shared_ptr<LWSimplenoteAppend> append;
        QString failure;
        QString domain;
        int code;
    } failures[] = {
        {refused, "LWSimplenoteAppendAppendToRemoteFailureNotification", "LWSimplenoteErrorDomain",
         401},
        {LWSNObject::create<UnreachableAppend>(),
         "UnreachableAppendAppendToRemoteFailureNotification", "QNetworkReplyErrorDomain",
         QNetworkReply::ConnectionRefusedError},
    };
    for (const auto& f : failures) {
        f.append->setHeader(header);
        f.append->setLine(QStringLiteral("never added"));
        EXPECT_EQ(run(*f.append, "appendToRemote", [&] { f.append->appendToRemote(); }), f.failure);
        const auto* error = last_.value<foundation::Error>("error");
        ASSERT_NE(error, nullptr) << f.failure.toStdString();
        EXPECT_EQ(error->domain, f.domain);
        EXPECT_EQ(error->code, f.code);
        EXPECT_TRUE(f.append->key().isNull());
        EXPECT_FALSE(f.append->version().has_value());
    }
    auto pulled = LWSNObject::create<LWSimplenote>();
    pulled->setKey(key);
    run(*pulled, "pullFromRemote", [&] { pulled->pullFromRemote(); });
    EXPECT_EQ(pulled->text(), rows[1].text);
}

TEST_F(RealServiceTest, IndexAndSyncOfTheAccount) {
    for (const char* text : {"one", "two", "three"}) {
        auto note = LWSNObject::create<LWSimplenote>();
        note->setText(text);
        run(*note, "pushToRemote", [&] { note->pushToRemote(); });
    }
    auto index = LWSNObject::create<LWSimplenoteIndex>();
    EXPECT_EQ(run(*index, "pullFromRemote", [&] { index->pullFromRemote(); }),
              "LWSimplenoteIndexPullFromRemoteSuccessNotification");
    const std::size_t listed = index->contents().size();
    ASSERT_GE(listed, 3u);
    for (const auto& note : index->contents()) {
        EXPECT_TRUE(note->key().isNull());
        EXPECT_TRUE(note->modifyDate().has_value());
    }

    // Index notes have no key, so every note pull of a sync asks for no note, which the
    // service answers 404: the sync counts the failures and never completes.
    QStringList heard;
    foundation::NotificationCenter::defaultCenter().addObserver(
        this, "LWSimplenoteSyncCompleteNotification", nullptr,
        [&](const foundation::Notification& n) { heard << n.name; });
    auto* controller = LWSimplenoteController::sharedController();
    // The controller lives as long as the process and never resets its count: only what this
    // sync adds is this test's.
    const qint64 failedBefore = controller->notePullErrorCount();
    // The controller's login reads the stored address; only the password is the caller's.
    controller->login()->setPassword(kPassword);
    controller->syncWithTarget(this, {}, {}, {}, false);
    ASSERT_TRUE(waitUntil(
        [&] { return controller->notePullErrorCount() >= failedBefore + qint64(listed); }, 10000));
    testsupport::settle(100);
    EXPECT_TRUE(heard.isEmpty());
    EXPECT_TRUE(controller->notes().empty());
}

}  // namespace
