// SPDX-License-Identifier: GPL-3.0-or-later
// The service facing strangers: each test plays a hostile client over a raw socket (idle
// connections, trickled or endless headers, huge and endless bodies, password guessing, odd
// requests) and checks that a well-behaved client is still answered and memory stays bounded.
#include <sys/stat.h>

#include <QFile>
#include <QProcess>
#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "service/Credentials.h"
#include "tests/service/RawClient.h"
#include "tests/service/ServiceFixture.h"

namespace servicetest {
namespace {

constexpr std::size_t kMiB = 1024 * 1024;
// The memory bound: the server's resident memory (VmRSS) may end at most 40 MiB above what it
// was right after start (once it has answered a login), far below what the hostile clients
// below offer it (300 MiB of headers, 60 logins of 900 KiB).
constexpr long kRssSlackKiB = 40 * 1024;
const std::string kForm = "Content-Type: application/x-www-form-urlencoded\r\n";

std::string head(const std::string& requestLine, const std::string& fields = "") {
    return requestLine + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + fields + "\r\n";
}

std::string get(const std::string& target) {
    return head("GET " + target);
}

std::string post(const std::string& target, const std::string& body) {
    return head("POST " + target,
                kForm + "Content-Length: " + std::to_string(body.size()) + "\r\n") +
           body;
}

long rssKiB(qint64 pid) {
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').first().toLong();
    }
    return -1;
}

struct Pushed {
    std::size_t sent = 0;  // bytes handed to the socket, head included
    int status = 0;
};

// Sends head, then what next() makes, until the server answers or hangs up, `limit` bytes
// have gone out or next() has nothing more; then waits up to 3 s for the answer.
Pushed push(RawClient& client, const std::string& head, const std::function<std::string()>& next,
            std::size_t limit) {
    Pushed pushed;
    for (std::string piece = head; !piece.empty() && pushed.sent < limit && !client.readable();
         piece = next()) {
        pushed.sent += piece.size();
        if (!client.send(piece))
            break;
    }
    client.read(3000);
    pushed.status = client.status();
    return pushed;
}

class ExposureTest : public ServiceTest {
protected:
    // The status of the answer to one request sent from source on a connection of its own;
    // 0 when none came within timeoutMs.
    int statusFrom(const char* source, const std::string& request, int timeoutMs = 3000) {
        RawClient client(source, server_->port());
        client.send(request);
        client.read(timeoutMs);
        return client.status();
    }
    long rss() const { return rssKiB(server_->pid()); }
};

TEST_F(ExposureTest, IdleConnectionsStarveNoOneAndEachAddressHasItsShare) {
    // 50 from each of ten addresses, all within the per-address cap, so the server holds 500.
    startServer({"--max-connections-per-address", "64"});
    std::string index = get("/api/index" + auth());
    {
        std::vector<std::unique_ptr<RawClient>> idle;
        for (int i = 0; i < 500; ++i) {
            const std::string source = "127.0.0." + std::to_string(10 + i / 50);
            idle.push_back(std::make_unique<RawClient>(source.c_str(), server_->port()));
            ASSERT_TRUE(idle.back()->connected()) << i;
        }
        EXPECT_EQ(statusFrom("127.0.0.2", index), 200);
        int dropped = 0;
        for (auto& c : idle)
            dropped += c->waitClosed(0);
        EXPECT_EQ(dropped, 0) << "connections within every limit are held, not shed";
    }

    startServer({"--max-connections-per-address", "20"});
    index = get("/api/index" + auth());
    // Each of the first 20 is answered, so the server has taken it before the next one comes.
    std::vector<std::unique_ptr<RawClient>> held;
    for (int i = 0; i < 20; ++i) {
        held.push_back(std::make_unique<RawClient>("127.0.0.20", server_->port()));
        held.back()->send(index);
        held.back()->read(3000);
        ASSERT_EQ(held.back()->status(), 200) << "connection " << i + 1;
    }
    for (int i = 21; i <= 25; ++i) {
        RawClient extra("127.0.0.20", server_->port());
        EXPECT_TRUE(extra.waitClosed(2000)) << "connection " << i << " should be closed at once";
    }
    for (std::size_t i = 0; i < held.size(); ++i) {
        held[i]->send(index);
        EXPECT_EQ(parseAnswers(held[i]->read(3000, 2)).size(), 2u) << "connection " << i + 1;
        EXPECT_EQ(held[i]->status(), 200) << "connection " << i + 1;
    }
    EXPECT_EQ(statusFrom("127.0.0.2", index), 200);
}

TEST_F(ExposureTest, HeaderTricklersAreCutOffAtTheRequestTimeout) {
    startServer({"--request-timeout", "2"});
    const std::string index = get("/api/index" + auth());
    const std::string trickle =
        "GET /api/index HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Slow: " + std::string(100, 'a');
    std::vector<std::unique_ptr<RawClient>> slow;
    for (int i = 0; i < 8; ++i) {
        slow.push_back(std::make_unique<RawClient>("127.0.0.30", server_->port()));
        ASSERT_TRUE(slow.back()->connected());
    }
    // One byte every 200 ms from each, for 5 s at most: well inside the idle time-out, so only
    // the request time-out (2 s) can end them.
    int open = 8;
    for (std::size_t tick = 0; tick < 25 && open > 0; ++tick) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the tricklers' pace
        open = 0;
        for (auto& c : slow)
            open += !c->closed() && c->send(trickle.substr(tick, 1)) && !c->waitClosed(0);
        if (tick == 2) {
            EXPECT_EQ(statusFrom("127.0.0.2", index), 200) << "answered while they trickle";
        }
    }
    EXPECT_EQ(open, 0) << "tricklers still connected after 5 s";
    EXPECT_EQ(statusFrom("127.0.0.2", index), 200);
}

TEST_F(ExposureTest, EndlessHeadersAreCutOffEarly) {
    const std::string index = get("/api/index" + auth());
    const long before = rss();
    ASSERT_GT(before, 0);
    RawClient client("127.0.0.2", server_->port());
    int line = 0;
    const Pushed pushed = push(
        client, "GET /api/index HTTP/1.1\r\nHost: 127.0.0.1\r\n",
        [&] {
            return "X-Filler-" + std::to_string(++line) + ": " + std::string(8192, 'x') + "\r\n";
        },
        300 * kMiB);
    EXPECT_LT(pushed.sent, kMiB);
    EXPECT_TRUE(pushed.status == 431 || client.waitClosed(3000)) << pushed.status;
    EXPECT_LE(rss(), before + kRssSlackKiB);
    EXPECT_EQ(statusFrom("127.0.0.2", index), 200);
}

TEST_F(ExposureTest, LoginBodiesAreCappedBeforeTheAddressIsLookedAt) {
    const std::string index = get("/api/index" + auth());
    const long before = rss();
    ASSERT_GT(before, 0);
    // 60 failed logins, each with a new address of 700 KB: too big a body for a login.
    for (int i = 0; i < 60; ++i) {
        const std::string body = base64("email=" + std::to_string(i) +
                                        std::string(700 * 1024, 'a') + "@example.org&password=x");
        RawClient client("127.0.0.2", server_->port());
        std::size_t at = 0;
        const Pushed pushed = push(
            client,
            head("POST /api/login",
                 kForm + "Content-Length: " + std::to_string(body.size()) + "\r\n"),
            [&] {
                const std::size_t from = std::min(at, body.size());
                at += 65536;
                return body.substr(from, 65536);
            },
            body.size() + 4096);
        ASSERT_EQ(pushed.status, 413) << "attempt " << i;
    }
    EXPECT_LE(rss(), before + kRssSlackKiB);
    // The longest address there can be is looked up; one byte more is not an address.
    const std::string domain = "@example.org";
    const std::string longest = std::string(254 - domain.size(), 'a') + domain;
    EXPECT_EQ(login(longest, "x")->status, 401);
    EXPECT_EQ(login("a" + longest, "x")->status, 400);
    EXPECT_EQ(statusFrom("127.0.0.2", index), 200);
}

TEST_F(ExposureTest, HugeAndEndlessBodiesAreCutOff) {
    // Notes capped at 64 KiB here, logins at 4 KiB always: both far below the 1 MiB offered.
    startServer({"--max-body-bytes", "65536"});
    const std::string note = "/api/note" + auth();
    ASSERT_EQ(statusFrom("127.0.0.2", post(note, base64(std::string(40000, 'n')))), 200);
    const std::string chunked = kForm + "Transfer-Encoding: chunked\r\n";
    const std::string announced = kForm + "Content-Length: " + std::to_string(300 * kMiB) + "\r\n";
    struct Case {
        const char* name;
        std::string head;
        std::string piece;
        int status;  // a chunked body is cut off mid-way, where no answer can be sent any more
    };
    const std::string data(8192, 'A');
    const Case cases[] = {
        {"chunked login", head("POST /api/login", chunked), "2000\r\n" + data + "\r\n", 0},
        {"announced login", head("POST /api/login", announced), data, 413},
        {"chunked note", head("POST " + note, chunked), "2000\r\n" + data + "\r\n", 0},
        {"announced note", head("POST " + note, announced), data, 413},
    };
    for (const Case& c : cases) {
        RawClient client("127.0.0.2", server_->port());
        const Pushed pushed = push(
            client, c.head, [&] { return c.piece; }, 300 * kMiB);
        EXPECT_EQ(pushed.status, c.status) << c.name;
        EXPECT_LT(pushed.sent, kMiB) << c.name;
        EXPECT_TRUE(client.waitClosed(3000)) << c.name;
    }
    EXPECT_EQ(statusFrom("127.0.0.2", get("/api/index" + auth())), 200);
}

TEST_F(ExposureTest, GuessingSlowsDownThatAddressOnly) {
    const auto attempt = [&](const char* password) {
        return statusFrom("127.0.0.2", post("/api/login", base64(std::string("email=") + kEmail +
                                                                 "&password=" + password)));
    };
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(attempt("wrong"), 401) << i;
    EXPECT_EQ(attempt(kPassword), 429);
    EXPECT_EQ(login(kEmail, kPassword)->status, 200) << "the owner, from another address";
}

TEST_F(ExposureTest, DatabaseFilesArePrivateAndAnExposedOneIsRefused) {
    createNote("written");
    const QString db = server_->dbPath();
    for (const char* suffix : {"", "-wal", "-shm"}) {
        struct stat info {};
        if (::stat((db + suffix).toUtf8().constData(), &info) != 0) {
            EXPECT_STRNE(suffix, "") << "no database file";
            continue;
        }
        EXPECT_EQ(info.st_mode & 0777, 0600u) << "notes.db" << suffix;
    }

    server_->killHard();
    ASSERT_EQ(::chmod(db.toUtf8().constData(), 0644), 0);
    QProcess serve;
    serve.start(
        testsupport::NotesServerProcess::binaryPath(),
        {"serve", "--listen",
         QString("127.0.0.1:%1").arg(testsupport::NotesServerProcess::freePort()), "--db", db});
    if (!serve.waitForFinished(10000))
        serve.kill();
    serve.waitForFinished(5000);
    const QString error = QString::fromUtf8(serve.readAllStandardError());
    EXPECT_EQ(serve.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(serve.exitCode(), 1);
    EXPECT_TRUE(error.contains(db) && error.contains("readable by other users"))
        << error.toStdString();
}

TEST_F(ExposureTest, OddRequests) {
    const std::string first = createNote("first");
    const std::string second = createNote("second");
    const auto indexBefore = client_->Get(("/api/index" + auth()).c_str());
    ASSERT_TRUE(indexBefore);
    struct Case {
        const char* name;
        std::string request;
        int status;
    };
    const Case cases[] = {
        {"key without '='", post("/api/note" + auth("&key"), base64("new")), 404},
        {"note not UTF-8", post("/api/note" + auth(), base64("\xff\xfe")), 400},
        {"login not UTF-8", post("/api/login", base64("email=\xff\xfe@example.org&password=x")),
         400},
        {"Content-Length not a number",
         head("POST /api/note" + auth(), kForm + "Content-Length: abc\r\n") + base64("new"), 400},
    };
    for (const Case& c : cases)
        EXPECT_EQ(statusFrom("127.0.0.1", c.request), c.status) << c.name;
    EXPECT_EQ(client_->Get(("/api/index" + auth()).c_str())->body, indexBefore->body)
        << "no note was made";

    // Two requests in one write are answered both, in order.
    RawClient pipelined("127.0.0.1", server_->port());
    pipelined.send(get("/api/note" + auth("&key=" + first)) +
                   get("/api/note" + auth("&key=" + second)));
    const auto answers = parseAnswers(pipelined.read(3000, 2));
    ASSERT_EQ(answers.size(), 2u);
    EXPECT_EQ(answers[0].status, 200);
    EXPECT_EQ(answers[0].body, "first");
    EXPECT_EQ(answers[1].status, 200);
    EXPECT_EQ(answers[1].body, "second");
}

TEST_F(ExposureTest, LimitsOutsideTheirRangeAreRefusedAtStart) {
    const QStringList refused[] = {{"--threads", "0"},
                                   {"--max-connections", "-5"},
                                   {"--idle-timeout", "soon"},
                                   {"--connection-memory", "2147483648"},
                                   {"--max-body-bytes"}};
    for (const QStringList& limit : refused) {
        QString output;
        EXPECT_EQ(server_->runCommand(QStringList{"serve", "--listen", "127.0.0.1:1"} + limit, {},
                                      &output),
                  2)
            << limit.join(' ').toStdString();
        EXPECT_TRUE(output.contains(limit[0])) << output.toStdString();
    }
}

// The failure table keeps the most recently failed pairs of account and address, so a stream of
// made-up addresses cannot grow it; a pair pushed out starts afresh.
TEST(LoginThrottleTest, HoldsOnlyTheNewestPairs) {
    notes::LoginThrottle throttle(std::chrono::seconds(60), 2);
    const notes::LoginThrottle::Key a{"a@example.org", "127.0.0.2"},
        b{"b@example.org", "127.0.0.2"}, c{"a@example.org", "127.0.0.3"};
    for (const auto& who : {a, b, c}) {
        for (int i = 0; i < notes::LoginThrottle::kMaxFailures; ++i)
            throttle.failed(who);
    }
    EXPECT_EQ(throttle.size(), 2u);
    EXPECT_TRUE(throttle.allowed(a));
    EXPECT_FALSE(throttle.allowed(b));
    EXPECT_FALSE(throttle.allowed(c));
}

}  // namespace
}  // namespace servicetest
