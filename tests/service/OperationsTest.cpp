// SPDX-License-Identifier: GPL-3.0-or-later
// Running the service: sessions that expire, guessing slowed down, TLS, refusals, durability
// across kill -9, a damaged database, many clients at once, a write held up by the database,
// account commands, copying to another database, a quiet log.
#include <sqlite3.h>

#include <QFile>
#include <QProcess>
#include <thread>
#include <tuple>

#include "service/NotesStore.h"
#include "tests/service/RawClient.h"
#include "tests/service/ServiceFixture.h"
#include "tests/support/Wait.h"

namespace servicetest {
namespace {

class OperationsTest : public ServiceTest {};

INSTANTIATE_TEST_SUITE_P(Backends, OperationsTest, kBackends, backendName);

// What only a database in a file of its own has.
class SqliteOperationsTest : public OperationsTest {};
INSTANTIATE_TEST_SUITE_P(File, SqliteOperationsTest, ::testing::Values(Backend::SQLite),
                         backendName);

TEST_P(OperationsTest, TokensExpire) {
    QProcessEnvironment env;
    env.insert("FERRYBOX_NOTES_TOKEN_SECONDS", "1");
    startServer({}, env);
    EXPECT_EQ(client_->Get(("/api/index" + auth()).c_str())->status, 200);
    EXPECT_TRUE(testsupport::waitUntil(
        [&] { return client_->Get(("/api/index" + auth()).c_str())->status == 401; }, 5000));
}

TEST_P(OperationsTest, RepeatedFailuresAreSlowedDown) {
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(login(kEmail, "wrong")->status, 401) << i;
    auto refused = login(kEmail, kPassword);
    EXPECT_EQ(refused->status, 429);
    EXPECT_EQ(refused->body, "");
    // Other accounts are not held up.
    ASSERT_TRUE(server_->addUser("other@example.org", "secret"));
    EXPECT_EQ(login("other@example.org", "secret")->status, 200);
}

TEST_P(OperationsTest, ServesTlsWithItsOwnCertificate) {
    const QString dir = server_->folder();
    QProcess openssl;
    openssl.start("openssl",
                  {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "1", "-subj",
                   "/CN=127.0.0.1", "-keyout", dir + "/key.pem", "-out", dir + "/cert.pem"});
    ASSERT_TRUE(openssl.waitForFinished(60000) && openssl.exitCode() == 0);
    startServer({"--tls-cert", dir + "/cert.pem", "--tls-key", dir + "/key.pem"});

    httplib::SSLClient secure("127.0.0.1", server_->port());
    secure.enable_server_certificate_verification(false);
    auto res =
        secure.Post("/api/login", base64(std::string("email=") + kEmail + "&password=" + kPassword),
                    "application/x-www-form-urlencoded");
    ASSERT_TRUE(res) << httplib::to_string(res.error());
    EXPECT_EQ(res->status, 200);
    EXPECT_EQ(res->body.size(), 32u);
    EXPECT_FALSE(login(kEmail, kPassword)) << "plain HTTP must not be answered";
}

TEST_P(OperationsTest, PlainHttpOnlyOnLoopback) {
    QString output;
    const int port = testsupport::NotesServerProcess::freePort();
    EXPECT_EQ(
        server_->runCommand({"serve", "--listen", QString("0.0.0.0:%1").arg(port)}, {}, &output),
        2);
    EXPECT_TRUE(output.contains("refusing plain HTTP on 0.0.0.0")) << output.toStdString();
}

TEST_P(OperationsTest, AnAnsweredWriteSurvivesKill9) {
    const std::string key = createNote("durable");
    ASSERT_EQ(client_
                  ->Post(("/api/note" + auth("&key=" + key)).c_str(), base64("durable 2"),
                         "application/x-www-form-urlencoded")
                  ->status,
              200);
    server_->killHard();
    ASSERT_TRUE(server_->restart()) << server_->log().toStdString();
    client_ = std::make_unique<httplib::Client>("127.0.0.1", server_->port());
    EXPECT_EQ(client_->Get(("/api/note" + auth("&key=" + key)).c_str())->body, "durable 2");
}

// Runs SQL on the stopped server's database; the value of the first column of the last row.
std::string sql(const QString& path, const char* statements) {
    sqlite3* db = nullptr;
    std::string last;
    if (sqlite3_open(path.toUtf8().constData(), &db) == SQLITE_OK) {
        sqlite3_exec(
            db, statements,
            [](void* out, int, char** values, char**) {
                *static_cast<std::string*>(out) = values[0] ? values[0] : "";
                return 0;
            },
            &last, nullptr);
    }
    sqlite3_close(db);
    return last;
}

TEST_P(SqliteOperationsTest, ADatabaseOfTheFirstSchemaIsCarriedForward) {
    const std::string older = createNote("older");
    const std::string newer = createNote("newer");
    server_->killHard();
    // Back to the first schema: its index, no device sessions, no search index, no note
    // versions, accounts whose ids may be given again, and its version number.
    sql(server_->dbPath(),
        "DROP TABLE note_versions; ALTER TABLE notes DROP COLUMN version;"
        "DROP TRIGGER note_search_insert; DROP TRIGGER note_search_update;"
        "DROP TRIGGER note_search_delete; DROP TABLE note_search; DROP TABLE note_search_folding;"
        "DROP TABLE devices;"
        "DROP INDEX notes_by_change;"
        "CREATE INDEX notes_by_user ON notes(user_id, modified DESC);"
        "CREATE TABLE users_first (id INTEGER PRIMARY KEY, email TEXT NOT NULL UNIQUE,"
        "  password_hash TEXT NOT NULL);"
        "INSERT INTO users_first SELECT * FROM users; DROP TABLE users;"
        "ALTER TABLE users_first RENAME TO users;"
        "PRAGMA user_version=1;");
    ASSERT_EQ(sql(server_->dbPath(), "PRAGMA user_version"), "1");
    ASSERT_TRUE(server_->restart()) << server_->log().toStdString();
    client_ = std::make_unique<httplib::Client>("127.0.0.1", server_->port());
    const auto carried = client_->Get(("/api/note" + auth("&key=" + older)).c_str());
    EXPECT_EQ(carried->body, "older");
    EXPECT_EQ(carried->get_header_value("Note-Version"), "1");
    const std::string index = client_->Get(("/api/index" + auth()).c_str())->body;
    EXPECT_LT(index.find(newer), index.find(older)) << index;
    EXPECT_NE(client_->Get(("/api/search" + auth("&query=OLDER")).c_str())->body.find(older),
              std::string::npos);
    server_->killHard();
    EXPECT_EQ(sql(server_->dbPath(), "PRAGMA user_version"), "6");
    EXPECT_EQ(sql(server_->dbPath(),
                  "SELECT sql LIKE '%AUTOINCREMENT%' FROM sqlite_master "
                  "WHERE name = 'users'"),
              "1");
}

TEST_P(SqliteOperationsTest, DamagedDatabaseIsRefusedAndLeftAlone) {
    const QString path = server_->folder() + "/damaged.db";
    const QByteArray garbage = QByteArray("not a database at all, ").repeated(200);
    {
        QFile f(path);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write(garbage);
    }
    QProcess serve;
    serve.start(
        testsupport::NotesServerProcess::binaryPath(),
        {"serve", "--listen",
         QString("127.0.0.1:%1").arg(testsupport::NotesServerProcess::freePort()), "--db", path});
    ASSERT_TRUE(serve.waitForFinished(10000));
    EXPECT_EQ(serve.exitCode(), 1);
    EXPECT_TRUE(serve.readAllStandardError().contains("is unusable"));
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    EXPECT_EQ(f.readAll(), garbage);
}

TEST_P(OperationsTest, FiftyClientsAtOnce) {
    const std::string query = auth();
    std::atomic<int> failures{0};
    std::vector<std::thread> clients;
    for (int i = 0; i < 50; ++i) {
        clients.emplace_back([&, i] {
            httplib::Client c("127.0.0.1", server_->port());
            auto created =
                c.Post(("/api/note" + query).c_str(), base64("client " + std::to_string(i)),
                       "application/x-www-form-urlencoded");
            if (!created || created->status != 200) {
                ++failures;
                return;
            }
            auto read = c.Get(("/api/note" + query + "&key=" + created->body).c_str());
            if (!read || read->status != 200 || read->body != "client " + std::to_string(i))
                ++failures;
        });
    }
    for (auto& t : clients)
        t.join();
    EXPECT_EQ(failures.load(), 0);
}

// A proxy opens its connections to the service together. A write left waiting for the database
// (here: someone else holds its write lock) may hold up its own worker, but connections opened
// with it go to the other workers and are answered meanwhile.
TEST_P(SqliteOperationsTest, AWriteWaitingForTheDatabaseHoldsUpNoConnectionOpenedWithIt) {
    startServer({"--threads", "2"});
    const std::string key = createNote("before");
    RawClient writer("127.0.0.1", server_->port());
    RawClient reader("127.0.0.1", server_->port());
    ASSERT_TRUE(writer.connected() && reader.connected());

    sqlite3* holder = nullptr;
    ASSERT_EQ(sqlite3_open(server_->dbPath().toUtf8().constData(), &holder), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(holder, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    const std::string text = base64("after");
    ASSERT_TRUE(writer.send("POST /api/note" + auth("&key=" + key) +
                            " HTTP/1.1\r\nHost: notes\r\nContent-Type: "
                            "application/x-www-form-urlencoded\r\nContent-Length: " +
                            std::to_string(text.size()) + "\r\n\r\n" + text));
    ASSERT_TRUE(
        reader.send("GET /api/note" + auth("&key=" + key) + " HTTP/1.1\r\nHost: notes\r\n\r\n"));
    reader.read(3000);
    const bool writeStillWaiting = !writer.readable();
    sqlite3_exec(holder, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(holder);

    const std::vector<RawAnswer> read = parseAnswers(reader.received());
    ASSERT_EQ(read.size(), 1u) << "the read waited for the write";
    EXPECT_EQ(read[0].status, 200);
    EXPECT_EQ(read[0].body, "before");
    EXPECT_TRUE(writeStillWaiting);
    writer.read(10000);
    EXPECT_EQ(writer.status(), 200) << "the waiting write lands once the lock is let go";
    EXPECT_EQ(client_->Get(("/api/note" + auth("&key=" + key)).c_str())->body, "after");
}

TEST_P(OperationsTest, AccountCommands) {
    QString output;
    EXPECT_EQ(server_->runCommand({"add-user", kEmail}, "again\n", &output), 1);
    EXPECT_TRUE(output.contains("exists already"));
    EXPECT_EQ(server_->runCommand({"remove-user", "nobody@example.org"}), 1);

    // A new password shuts out whoever knew the old one: its tokens and devices end too.
    const std::string oldQuery = auth();
    auto signedIn = client_->Post("/web/sign-in", kFromPage,
                                  "email=me%2Btag%40example.org&password=pa%20ss%26word%3D1",
                                  "application/x-www-form-urlencoded");
    ASSERT_TRUE(signedIn && signedIn->status == 200);
    httplib::Headers device = kFromPage;
    device.emplace("Cookie", signedIn->get_header_value("Set-Cookie")
                                 .substr(0, signedIn->get_header_value("Set-Cookie").find(';')));
    EXPECT_EQ(server_->runCommand({"passwd", "nobody@example.org"}, "x\n", &output), 1);
    EXPECT_TRUE(output.contains("no account nobody@example.org")) << output.toStdString();
    EXPECT_EQ(server_->runCommand({"passwd", kEmail}, "\n"), 2);
    EXPECT_EQ(client_->Get(("/api/index" + oldQuery).c_str())->status, 200) << "nothing changed";
    EXPECT_EQ(server_->runCommand({"passwd", kEmail}, "the new one\n"), 0);
    EXPECT_EQ(client_->Get(("/api/index" + oldQuery).c_str())->status, 401);
    EXPECT_EQ(client_->Get("/web/me", device)->status, 401);
    EXPECT_EQ(login(kEmail, kPassword)->status, 401);
    auto fresh = login(kEmail, "the new one");
    ASSERT_EQ(fresh->status, 200);
    token_ = fresh->body;

    const std::string query = auth();
    EXPECT_EQ(server_->runCommand({"remove-user", kEmail}), 0);
    EXPECT_EQ(client_->Get(("/api/index" + query).c_str())->status, 401);
    EXPECT_EQ(login(kEmail, kPassword)->status, 401);
    EXPECT_EQ(server_->runCommand({"--help"}, {}, &output), 0);
    EXPECT_TRUE(output.contains("SYNOPSIS"));
}

// Accounts and notes, and nothing else, as the store gives them out.
using NoteRow = std::tuple<QString, QString, qint64, qint64, bool>;
using AccountRow = std::tuple<QString, QString, std::vector<NoteRow>>;

std::vector<AccountRow> contentsOf(const QString& location) {
    const auto store = notes::openNotesStore(location);
    std::vector<AccountRow> accounts;
    for (const notes::User& user : store->users()) {
        std::vector<NoteRow> notes;
        for (const notes::Note& note : store->notes(user.id))
            notes.emplace_back(note.key, note.text, note.createMicros, note.modifyMicros,
                               note.deleted);
        accounts.emplace_back(user.email, user.passwordHash, std::move(notes));
    }
    return accounts;
}

TEST_P(SqliteOperationsTest, CopyMovesAccountsAndNotesToPostgreSQLAndBack) {
    createNote("Ferrybox_Downloads\nhttps://example.org/a");
    createNote("Grüße, ΣΊΣΥΦΟΣ 😀\n\ttabs and \"quotes\"");
    const std::string gone = createNote("deleted later");
    ASSERT_EQ(client_->Get(("/api/delete" + auth("&key=" + gone)).c_str())->status, 200);
    ASSERT_TRUE(server_->addUser("second@example.org", "another"));
    const std::vector<AccountRow> original = contentsOf(server_->dbPath());
    ASSERT_EQ(original.size(), 2u);

    const QString postgres = newDatabase(Backend::PostgreSQL);
    const QString back = server_->folder() + "/back/notes.db";
    QString output;
    ASSERT_EQ(
        server_->runCommand({"copy", "--from", server_->dbPath(), "--to", postgres}, {}, &output),
        0)
        << output.toStdString();
    EXPECT_TRUE(output.contains("copied 2 accounts and 3 notes")) << output.toStdString();
    EXPECT_EQ(server_->runCommand({"copy", "--from", postgres, "--to", back}), 0);
    EXPECT_EQ(contentsOf(postgres), original);
    EXPECT_EQ(contentsOf(back), original);

    // Sessions stay behind; the copy's owner signs in again, with the same password.
    const auto copied = notes::openNotesStore(back);
    EXPECT_FALSE(copied->tokenAccess(notes::tokenHash(QString::fromStdString(token())), kEmail,
                                     notes::nowMicros()));
    // Only into an empty database, and never with a password on the command line.
    EXPECT_EQ(server_->runCommand({"copy", "--from", server_->dbPath(), "--to", back}, {}, &output),
              1);
    EXPECT_TRUE(output.contains("holds accounts already")) << output.toStdString();
    QString withPassword = postgres;
    withPassword.replace("ferrybox@", "ferrybox:secret@");
    EXPECT_EQ(server_->runCommand({"copy", "--from", withPassword, "--to", back}, {}, &output), 2);
    EXPECT_TRUE(output.contains("PGPASSWORD")) << output.toStdString();
    EXPECT_EQ(contentsOf(back), original);
}

TEST_P(OperationsTest, LogShowsRequestsButNoSecrets) {
    const std::string key = createNote("secret note text");
    client_->Get(("/api/note" + auth("&key=" + key)).c_str());
    const QString log = server_->log();
    EXPECT_TRUE(log.contains("POST /api/login 200")) << log.toStdString();
    EXPECT_TRUE(log.contains("GET /api/note 200"));
    for (const std::string& secret : {token(), std::string(kPassword), std::string(kEmail),
                                      std::string("secret note text"), key}) {
        EXPECT_FALSE(log.contains(QString::fromStdString(secret))) << secret;
    }
    // A path cannot write a line of its own into the log: its control characters stay escaped.
    client_->Get("/x%0aGET%20/api/forged%20200%200.1%20ms%0d");
    EXPECT_TRUE(testsupport::waitUntil([&] {
        return server_->log().contains("GET /x%0AGET /api/forged 200 0.1 ms%0D 404");
    })) << server_->log().toStdString();
    EXPECT_FALSE(server_->log().contains("\nGET /api/forged"));
}

// A body announced both by its length and as chunked has two ends: refused whole, and the
// connection closed, so that nothing after it is read as a request of its own.
TEST_P(OperationsTest, ABodyWithTwoLengthsIsRefused) {
    RawClient raw("127.0.0.1", server_->port());
    ASSERT_TRUE(raw.send("POST /api/note" + auth() +
                         " HTTP/1.1\r\nHost: notes\r\nContent-Length: 4\r\n"
                         "Transfer-Encoding: chunked\r\n\r\n0\r\n\r\nGET /api/index" +
                         auth() + " HTTP/1.1\r\nHost: notes\r\n\r\n"));
    EXPECT_TRUE(raw.waitClosed(3000));
    const std::vector<RawAnswer> answers = parseAnswers(raw.received());
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].status, 400);
}

}  // namespace
}  // namespace servicetest
