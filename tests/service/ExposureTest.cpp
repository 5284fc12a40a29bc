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

INSTANTIATE_TEST_SUITE_P(Backends, ExposureTest, kBackends, backendName);

// What only a database in a file of its own has.
class SqliteExposureTest : public ExposureTest {};
INSTANTIATE_TEST_SUITE_P(File, SqliteExposureTest, ::testing::Values(Backend::SQLite), backendName);

TEST_P(ExposureTest, IdleConnectionsStarveNoOneAndEachAddressHasItsShare) {
    // 50 from each of ten addresses, all within the per-address cap, so the server holds 500.
    startServer({"--max-connections-per-address", "64"});
    const std::string index = get("/api/index" + auth());
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

TEST_P(ExposureTest, AnAddressAtItsLimitGivesUpItsLongestIdleConnectionForANewOne) {
    startServer({"--max-connections-per-address", "4"});
    const std::string index = get("/api/index" + auth());
    // Each is answered before the next comes, so they fell idle in this order.
    std::vector<std::unique_ptr<RawClient>> held;
    for (int i = 0; i < 4; ++i) {
        held.push_back(std::make_unique<RawClient>("127.0.0.20", server_->port()));
        held.back()->send(index);
        held.back()->read(3000);
        ASSERT_EQ(held.back()->status(), 200) << "connection " << i + 1;
    }
    // Two more, one after the other: each costs the longest-idle one its place.
    for (int i = 0; i < 2; ++i) {
        auto newcomer = std::make_unique<RawClient>("127.0.0.20", server_->port());
        newcomer->send(index);
        newcomer->read(3000);
        EXPECT_EQ(newcomer->status(), 200) << "newcomer " << i + 1 << " is served";
        EXPECT_TRUE(held[i]->waitClosed(3000)) << "connection " << i + 1 << " is closed";
        held.push_back(std::move(newcomer));
    }
    // The others keep theirs, and still answer.
    for (std::size_t i = 2; i < held.size(); ++i) {
        EXPECT_FALSE(held[i]->waitClosed(0)) << "connection " << i + 1;
        held[i]->send(index);
        EXPECT_EQ(parseAnswers(held[i]->read(3000, 2)).size(), 2u) << "connection " << i + 1;
        EXPECT_EQ(held[i]->status(), 200) << "connection " << i + 1;
    }
    // One that has not sent a thing yet waits for its request too, and has waited longest.
    RawClient silent("127.0.0.21", server_->port());
    std::vector<std::unique_ptr<RawClient>> answered;
    for (int i = 0; i < 3; ++i) {
        answered.push_back(std::make_unique<RawClient>("127.0.0.21", server_->port()));
        answered.back()->send(index);
        answered.back()->read(3000);
        ASSERT_EQ(answered.back()->status(), 200);
    }
    EXPECT_EQ(statusFrom("127.0.0.21", index), 200);
    EXPECT_TRUE(silent.waitClosed(3000));
    for (auto& c : answered)
        EXPECT_FALSE(c->waitClosed(0));
    EXPECT_EQ(statusFrom("127.0.0.2", index), 200) << "other addresses never noticed";
}

TEST_P(ExposureTest, ConnectionsThatAreBusyAreNeverClosedToMakeRoom) {
    startServer({"--max-connections-per-address", "3"});
    const std::string events = get("/api/events" + auth());
    // Three live event streams: three connections busy for as long as they last.
    std::vector<std::unique_ptr<RawClient>> streams;
    for (int i = 0; i < 3; ++i) {
        streams.push_back(std::make_unique<RawClient>("127.0.0.22", server_->port()));
        streams.back()->send(events);
        ASSERT_TRUE(streams.back()->readUntil(
            [](const std::string& raw) {
                return parseStreamed(raw).body.find(": ready\n\n") != std::string::npos;
            },
            3000))
            << "stream " << i + 1;
    }
    for (int i = 0; i < 3; ++i) {
        RawClient extra("127.0.0.22", server_->port());
        EXPECT_TRUE(extra.waitClosed(2000)) << "newcomer " << i + 1 << " should be refused";
    }
    const std::string key = createNote("told to every stream");
    for (std::size_t i = 0; i < streams.size(); ++i) {
        EXPECT_TRUE(streams[i]->readUntil(
            [&](const std::string& raw) {
                return parseStreamed(raw).body.find(key) != std::string::npos;
            },
            3000))
            << "stream " << i + 1 << " was cut";
    }
    EXPECT_EQ(statusFrom("127.0.0.2", get("/api/index" + auth())), 200);
}

TEST_P(ExposureTest, HeaderTricklersAreCutOffAtTheRequestTimeout) {
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

TEST_P(ExposureTest, EndlessHeadersAreCutOffEarly) {
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

TEST_P(ExposureTest, LoginBodiesAreCappedBeforeTheAddressIsLookedAt) {
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

TEST_P(ExposureTest, HugeAndEndlessBodiesAreCutOff) {
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

TEST_P(ExposureTest, GuessingSlowsDownThatAddressOnly) {
    const auto attempt = [&](const char* password) {
        return statusFrom("127.0.0.2", post("/api/login", base64(std::string("email=") + kEmail +
                                                                 "&password=" + password)));
    };
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(attempt("wrong"), 401) << i;
    EXPECT_EQ(attempt(kPassword), 429);
    EXPECT_EQ(login(kEmail, kPassword)->status, 200) << "the owner, from another address";
}

// Behind a reverse proxy every client comes from the proxy's address; the proxy names the
// client last in X-Forwarded-For, and only a proxy the service was told to trust is believed.
TEST_P(ExposureTest, TheLoginSlowDownCountsTheClientATrustedProxyNamesAndNoOneElse) {
    const auto forwarded = [](const std::string& list) {
        return "X-Forwarded-For: " + list + "\r\n";
    };
    struct Case {
        const char* name;
        QStringList serve;
        const char* source;                       // the peer the service sees
        std::function<std::string(int)> failing;  // the header of the i-th wrong password
        std::string checking;                     // the header of the right one after five
        int status;                               // what the right one gets
    };
    const QStringList trusting = {"--trusted-proxy", "127.0.0.1"};
    const Case cases[] = {
        {"trusted proxy, the same client", trusting, "127.0.0.1",
         [&](int) { return forwarded("127.0.0.77"); }, forwarded("127.0.0.77"), 429},
        {"trusted proxy, another client behind it", trusting, "127.0.0.1",
         [&](int) { return forwarded("127.0.0.77"); }, forwarded("127.0.0.78"), 200},
        {"trusted proxy, what the client wrote before the proxy's entry is not believed", trusting,
         "127.0.0.1",
         [&](int i) { return forwarded("127.9.9." + std::to_string(i) + ", 127.0.0.77"); },
         forwarded("127.9.9.99,127.0.0.77"), 429},
        {"trusted proxy, the client of a second header the proxy added", trusting, "127.0.0.1",
         [&](int i) { return forwarded("127.9.9." + std::to_string(i)) + forwarded("127.0.0.77"); },
         forwarded("127.0.0.77"), 429},
        {"no trusted proxy: the header is ignored",
         {},
         "127.0.0.2",
         [&](int i) { return forwarded("127.0.0." + std::to_string(100 + i)); },
         forwarded("127.0.0.99"),
         429},
        {"a peer that is not the trusted proxy: the header is ignored", trusting, "127.0.0.2",
         [&](int i) { return forwarded("127.0.0." + std::to_string(100 + i)); },
         forwarded("127.0.0.99"), 429},
    };
    const auto attempt = [&](const Case& c, const std::string& fields, const char* password) {
        const std::string body = base64(std::string("email=") + kEmail + "&password=" + password);
        return statusFrom(c.source,
                          head("POST /api/login", kForm + fields + "Content-Length: " +
                                                      std::to_string(body.size()) + "\r\n") +
                              body);
    };
    for (const Case& c : cases) {
        startServer(c.serve);
        for (int i = 0; i < 5; ++i)
            ASSERT_EQ(attempt(c, c.failing(i), "wrong"), 401) << c.name << ", attempt " << i + 1;
        EXPECT_EQ(attempt(c, c.checking, kPassword), c.status) << c.name;
    }
}

TEST_P(ExposureTest, ATrustedProxyMustNameItsClient) {
    startServer({"--trusted-proxy", "127.0.0.1"});
    const std::string index = "/api/index" + auth();
    struct Case {
        const char* name;
        std::string fields;
        int status;
    };
    const Case cases[] = {
        {"an IPv4 client", "X-Forwarded-For: 127.0.0.77\r\n", 200},
        {"an IPv6 client", "X-Forwarded-For: 127.0.0.77, ::1\r\n", 200},
        {"with the scheme", "X-Forwarded-For: 127.0.0.77\r\nX-Forwarded-Proto: https\r\n", 200},
        {"no header: the proxy's own request", "", 200},
        {"a name", "X-Forwarded-For: client.example.org\r\n", 400},
        {"with a port", "X-Forwarded-For: 127.0.0.77:5000\r\n", 400},
        {"nothing after the last comma", "X-Forwarded-For: 127.0.0.77,\r\n", 400},
    };
    for (const Case& c : cases)
        EXPECT_EQ(statusFrom("127.0.0.1", head("GET " + index, c.fields)), c.status) << c.name;
    // From anyone else, the same headers change nothing.
    for (const Case& c : cases)
        EXPECT_EQ(statusFrom("127.0.0.2", head("GET " + index, c.fields)), 200) << c.name;
}

TEST_P(ExposureTest, BehindATrustedProxyEachClientHasItsOwnShare) {
    startServer({"--trusted-proxy", "127.0.0.1", "--max-connections-per-address", "2",
                 "--event-heartbeat", "1"});
    const std::string index = "/api/index" + auth();
    const auto from = [](const char* client) {
        return std::string("X-Forwarded-For: ") + client + "\r\n";
    };
    // The proxy carries everyone: its connections are not held to an address's share.
    std::vector<std::unique_ptr<RawClient>> proxy;
    for (int i = 0; i < 6; ++i) {
        proxy.push_back(std::make_unique<RawClient>("127.0.0.1", server_->port()));
        proxy.back()->send(head("GET " + index, from("127.0.0.77")));
        proxy.back()->read(3000);
        ASSERT_EQ(proxy.back()->status(), 200) << "proxy connection " << i + 1;
    }
    for (std::size_t i = 0; i < proxy.size(); ++i)
        EXPECT_FALSE(proxy[i]->waitClosed(0)) << "proxy connection " << i + 1;
    // A client behind it may have two requests under way; two streams take both.
    std::vector<std::unique_ptr<RawClient>> streams;
    for (int i = 0; i < 2; ++i) {
        streams.push_back(std::make_unique<RawClient>("127.0.0.1", server_->port()));
        streams.back()->send(head("GET /api/events" + auth(), from("127.0.0.77")));
        ASSERT_TRUE(streams.back()->readUntil(
            [](const std::string& raw) {
                return parseStreamed(raw).body.find(": ready\n\n") != std::string::npos;
            },
            3000))
            << "stream " << i + 1 << ": " << streams.back()->received();
    }
    EXPECT_EQ(statusFrom("127.0.0.1", head("GET " + index, from("127.0.0.77"))), 429);
    EXPECT_EQ(statusFrom("127.0.0.1", head("GET " + index, from("127.0.0.78"))), 200);
    EXPECT_EQ(statusFrom("127.0.0.1", head("GET " + index)), 200) << "the proxy's own";
    // A stream that ends gives its place back (found out at the next heartbeat).
    streams.front()->hangUp();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(6);
    int status = 0;
    while (status != 200 && std::chrono::steady_clock::now() < deadline) {
        status = statusFrom("127.0.0.1", head("GET " + index, from("127.0.0.77")));
        if (status != 200)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));  // poll interval
    }
    EXPECT_EQ(status, 200);
}

TEST_P(SqliteExposureTest, DatabaseFilesArePrivateAndAnExposedOneIsRefused) {
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

TEST_P(ExposureTest, OddRequests) {
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

TEST_P(ExposureTest, LimitsOutsideTheirRangeAreRefusedAtStart) {
    const QStringList refused[] = {{"--threads", "0"},
                                   {"--max-connections", "-5"},
                                   {"--idle-timeout", "soon"},
                                   {"--connection-memory", "2147483648"},
                                   {"--max-body-bytes"},
                                   {"--event-heartbeat", "0"},
                                   {"--max-event-streams-per-account", "0"},
                                   {"--trusted-proxy", "proxy.example.org"},
                                   {"--trusted-proxy", "127.0.0.1:8080"},
                                   {"--trusted-proxy"}};
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
            EXPECT_TRUE(throttle.attempt(who));
    }
    EXPECT_EQ(throttle.size(), 2u);
    EXPECT_FALSE(throttle.attempt(b));
    EXPECT_FALSE(throttle.attempt(c));
    EXPECT_TRUE(throttle.attempt(a));
}

// An address that tries a new account each time is held up too, an IPv6 client by its /64
// (a household gets the /64 whole and picks the rest at will); a success is counted as none,
// and an attempt that was never checked is taken back.
TEST(LoginThrottleTest, AnAddressTryingManyAccountsIsHeldUp) {
    EXPECT_EQ(notes::addressGroup("2001:db8:1:2:aaaa:bbbb:cccc:dddd"), "2001:db8:1:2::/64");
    EXPECT_EQ(notes::addressGroup("127.0.0.9"), "127.0.0.9");
    notes::LoginThrottle throttle;
    const auto from = [](const char* address, int account) {
        return notes::LoginThrottle::Key{QStringLiteral("user%1@example.org").arg(account),
                                         notes::addressGroup(address)};
    };
    EXPECT_TRUE(throttle.attempt(from("127.0.0.9", 0)));
    throttle.succeeded(from("127.0.0.9", 0));
    EXPECT_TRUE(throttle.attempt(from("127.0.0.9", 1)));
    throttle.withdraw(from("127.0.0.9", 1));
    for (int i = 0; i < notes::LoginLimiter::kMaxAddressFailures; ++i) {
        EXPECT_TRUE(throttle.attempt(from("127.0.0.9", 10 + i))) << i;
        EXPECT_TRUE(throttle.attempt(from(i % 2 ? "2001:db8::1:2" : "2001:db8::3:4", i))) << i;
    }
    EXPECT_FALSE(throttle.attempt(from("127.0.0.9", 99)));
    EXPECT_FALSE(throttle.attempt(from("2001:db8::5:6", 99)));
    EXPECT_TRUE(throttle.attempt(from("127.0.0.10", 99)));
    EXPECT_TRUE(throttle.attempt(from("2001:db8:0:1::1", 99)));
}

}  // namespace
}  // namespace servicetest
