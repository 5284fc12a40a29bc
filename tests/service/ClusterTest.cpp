// SPDX-License-Identifier: GPL-3.0-or-later
// Several ferrybox-notes processes ("nodes") over one PostgreSQL database, as behind a load
// balancer: they act as one service, and they ride out the database going away and coming back.
#include <QProcess>
#include <atomic>
#include <mutex>
#include <thread>

#include "tests/service/RawClient.h"
#include "tests/service/ServiceFixture.h"
#include "tests/support/PostgresServer.h"
#include "tests/support/Wait.h"

namespace servicetest {
namespace {

using testsupport::NotesServerProcess;
using testsupport::PostgresServer;

constexpr const char* kEmail = "me@example.org";
constexpr const char* kPassword = "secret";

std::string loginBody(const std::string& password) {
    return base64(std::string("email=") + kEmail + "&password=" + password);
}

int status(const httplib::Result& res) {
    return res ? res->status : 0;
}

// A node and a client of it.
struct Node {
    explicit Node(const QString& database)
        : process(
              std::make_unique<NotesServerProcess>(QStringList{}, QProcessEnvironment{}, database)),
          client("127.0.0.1", process->port()) {
        client.set_read_timeout(10);
    }
    httplib::Result login(const std::string& password) {
        return client.Post("/api/login", loginBody(password), "application/x-www-form-urlencoded");
    }
    httplib::Result post(const std::string& auth, const std::string& text) {
        return client.Post(("/api/note" + auth).c_str(), base64(text),
                           "application/x-www-form-urlencoded");
    }
    std::unique_ptr<NotesServerProcess> process;
    httplib::Client client;
};

// The text of the note, or "" (after reading it from node).
std::string noteText(Node& node, const std::string& auth, const std::string& key) {
    auto res = node.client.Get(("/api/note" + auth + "&key=" + key).c_str());
    return status(res) == 200 ? res->body : "";
}

class ClusterTest : public ::testing::Test {
protected:
    // Two nodes on a new database of the given server, with one account.
    void startNodes(PostgresServer& server) {
        const QString database = server.newDatabase();
        ASSERT_FALSE(database.isEmpty()) << server.log().toStdString();
        a_ = std::make_unique<Node>(database);
        b_ = std::make_unique<Node>(database);
        ASSERT_TRUE(a_->process->isRunning() && b_->process->isRunning())
            << a_->process->log().toStdString() << b_->process->log().toStdString();
        ASSERT_TRUE(a_->process->addUser(kEmail, kPassword));
        auto token = a_->login(kPassword);
        ASSERT_EQ(status(token), 200);
        auth_ = "?auth=" + token->body + "&email=" + kEmail;
    }

    std::unique_ptr<Node> a_, b_;
    std::string auth_;
};

TEST_F(ClusterTest, TwoNodesActAsOneService) {
    startNodes(PostgresServer::shared());
    // A session made on one node is good on the other; so is a write, and the change stream
    // of one hears of a write made through the other.
    RawClient stream("127.0.0.1", b_->process->port());
    stream.send("GET /api/events" + auth_ + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    ASSERT_TRUE(stream.readUntil(
        [](const std::string& raw) {
            return parseStreamed(raw).body.find(": ready") != std::string::npos;
        },
        3000));
    auto made = a_->post(auth_, "Ferrybox_Downloads\n# made on a");
    ASSERT_EQ(status(made), 200);
    const std::string key = made->body;
    EXPECT_EQ(noteText(*b_, auth_, key), "Ferrybox_Downloads\n# made on a");
    EXPECT_TRUE(stream.readUntil(
        [&](const std::string& raw) {
            return parseStreamed(raw).body.find("data: {\"key\":\"" + key + "\"}") !=
                   std::string::npos;
        },
        3000))
        << stream.received();

    // A device signed in on one node shares through both, at the same moment: all land.
    auto signIn = a_->client.Post("/web/sign-in", kFromPage,
                                  std::string("email=me%40example.org&password=") + kPassword,
                                  "application/x-www-form-urlencoded");
    ASSERT_EQ(status(signIn), 200);
    const std::string setCookie = signIn->get_header_value("Set-Cookie");
    const std::string cookie = setCookie.substr(0, setCookie.find(';'));
    constexpr int kShares = 16;
    std::atomic<int> ok{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kShares; ++i) {
        threads.emplace_back([&, i] {
            Node& node = i % 2 ? *a_ : *b_;
            httplib::Client client("127.0.0.1", node.process->port());
            httplib::Headers headers = kFromPage;
            headers.emplace("Cookie", cookie);
            auto res = client.Post("/web/append", headers,
                                   "url=https%3A%2F%2Fexample.org%2F" + std::to_string(i),
                                   "application/x-www-form-urlencoded");
            ok += status(res) == 200;
        });
    }
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(ok, kShares);
    const QStringList lines =
        QString::fromStdString(noteText(*a_, auth_, key)).split(QLatin1Char('\n'));
    EXPECT_EQ(lines.size(), 2 + kShares) << lines.join(QLatin1Char('|')).toStdString();
}

TEST_F(ClusterTest, GuessesSpreadOverNodesAddUp) {
    startNodes(PostgresServer::shared());
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(status(a_->login("wrong")), 401);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(status(b_->login("wrong")), 401);
    // Five failures in all: the right password waits on either node.
    EXPECT_EQ(status(a_->login(kPassword)), 429);
    EXPECT_EQ(status(b_->login(kPassword)), 429);
}

TEST_F(ClusterTest, NodesStartingTogetherOnAnEmptyDatabaseMakeItsSchemaOnce) {
    const QString database = PostgresServer::shared().newDatabase();
    ASSERT_FALSE(database.isEmpty());
    std::vector<std::unique_ptr<QProcess>> commands;
    for (int i = 0; i < 4; ++i) {
        auto& command = commands.emplace_back(std::make_unique<QProcess>());
        command->setProcessChannelMode(QProcess::MergedChannels);
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("FERRYBOX_NOTES_HASH_ITERATIONS", "1000");
        command->setProcessEnvironment(env);
        command->start(NotesServerProcess::binaryPath(),
                       {"add-user", QStringLiteral("user%1@example.org").arg(i), "--db", database});
        command->write("secret\n");
        command->closeWriteChannel();
    }
    for (auto& command : commands) {
        ASSERT_TRUE(command->waitForFinished(30000));
        EXPECT_EQ(command->exitCode(), 0) << command->readAll().toStdString();
    }
}

TEST_F(ClusterTest, ADatabaseThatGoesAwayIsA503AndNothingAnsweredIsLost) {
    PostgresServer database;  // of its own: it is stopped halfway
    startNodes(database);
    RawClient stream("127.0.0.1", a_->process->port());
    stream.send("GET /api/events" + auth_ + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");

    // Writers on both nodes keep saving new notes; what was answered 200 must be kept.
    std::mutex mutex;
    std::vector<std::string> saved;
    std::atomic<int> unavailable{0}, other{0};
    std::atomic<bool> stop{false};
    std::atomic<long> slowestMs{0};
    std::vector<std::thread> writers;
    for (Node* node : {a_.get(), b_.get()}) {
        writers.emplace_back([&, node] {
            httplib::Client client("127.0.0.1", node->process->port());
            client.set_read_timeout(10);
            for (int i = 0; !stop; ++i) {
                const auto began = std::chrono::steady_clock::now();
                auto res =
                    client.Post(("/api/note" + auth_).c_str(), base64("note " + std::to_string(i)),
                                "application/x-www-form-urlencoded");
                const long ms = long(std::chrono::duration_cast<std::chrono::milliseconds>(
                                         std::chrono::steady_clock::now() - began)
                                         .count());
                slowestMs = std::max(slowestMs.load(), ms);
                if (status(res) == 200) {
                    std::lock_guard lock(mutex);
                    saved.push_back(res->body);
                } else if (status(res) == 503) {
                    ++unavailable;
                    EXPECT_EQ(res->get_header_value("Retry-After"), "2");
                } else {
                    ++other;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        });
    }
    testsupport::settle(300);
    ASSERT_TRUE(database.stop()) << database.log().toStdString();
    EXPECT_TRUE(testsupport::waitUntil([&] { return unavailable > 10; }, 5000));
    ASSERT_TRUE(database.start()) << database.log().toStdString();
    const std::size_t before = [&] {
        std::lock_guard lock(mutex);
        return saved.size();
    }();
    EXPECT_TRUE(testsupport::waitUntil(
        [&] {
            std::lock_guard lock(mutex);
            return saved.size() > before + 20;
        },
        10000));
    stop = true;
    for (std::thread& t : writers)
        t.join();

    EXPECT_EQ(other, 0) << a_->process->log().toStdString() << b_->process->log().toStdString();
    // Refused at once, never held until a time-out.
    EXPECT_LT(slowestMs, 3000);
    for (const std::string& key : saved)
        EXPECT_NE(noteText(*b_, auth_, key), "") << key;
    // The change stream opened before the outage tells of changes made after it.
    auto after = a_->post(auth_, "after the outage");
    ASSERT_EQ(status(after), 200);
    EXPECT_TRUE(testsupport::waitUntil(
        [&] {
            stream.readUntil([](const std::string&) { return false; }, 50);
            return parseStreamed(stream.received()).body.find(after->body) != std::string::npos;
        },
        10000))
        << stream.received();
}

}  // namespace
}  // namespace servicetest
