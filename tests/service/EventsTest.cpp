// SPDX-License-Identifier: GPL-3.0-or-later
// The change stream (GET /api/events) against the real binary: what a client reads on it,
// whose changes it hears of, how many one account may hold, and how streams end.
#include <signal.h>

#include <QFile>
#include <QUrl>
#include <chrono>
#include <memory>
#include <thread>

#include "Classes/TWJSON/TWJSON.h"
#include "tests/service/RawClient.h"
#include "tests/service/ServiceFixture.h"

namespace servicetest {
namespace {

using Clock = std::chrono::steady_clock;

constexpr char kReady[] = "retry: 2000\n: ready\n\n";
constexpr char kHeartbeat[] = ": heartbeat\n\n";
constexpr const char* kOtherEmail = "other@example.org";
// Generous: the service announces within 200 ms (see the benchmark); this only catches a
// change that is not announced at all, or only by a later heartbeat.
constexpr int kAnnouncedWithinMs = 2000;

std::string changeEvent(const std::string& key) {
    return "event: change\ndata: {\"key\":\"" + key + "\"}\n\n";
}

std::string body(const RawClient& stream) {
    return parseStreamed(stream.received()).body;
}

std::size_t count(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

// The process has exited (gone, or a zombie its parent has not reaped yet).
bool exited(qint64 pid) {
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return true;
    const QByteArray text = stat.readAll();
    const qsizetype paren = text.lastIndexOf(')');
    return paren < 0 || text.mid(paren + 2, 1) == "Z";
}

class EventsTest : public ServiceTest {
protected:
    // Sends the request for a stream with that query (and extra header lines) from source.
    std::unique_ptr<RawClient> request(const std::string& query, const char* source = "127.0.0.1",
                                       const std::string& fields = "") {
        auto stream = std::make_unique<RawClient>(source, server_->port());
        stream->send("GET /api/events" + query + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + fields +
                     "\r\n");
        return stream;
    }

    // A stream of the fixture's account that has said it is ready.
    std::unique_ptr<RawClient> openStream(const std::string& query = "") {
        auto stream = request(query.empty() ? auth() : query);
        EXPECT_TRUE(waitForText(*stream, kReady)) << stream->received();
        return stream;
    }

    // The status of the answer, once its head is in (0 when none came within 3 s).
    static int statusOf(RawClient& stream) {
        stream.readUntil([](const std::string& raw) { return parseStreamed(raw).status != 0; },
                         3000);
        return parseStreamed(stream.received()).status;
    }

    // Waits until the stream's body holds text at or after `from`.
    static bool waitForText(RawClient& stream, const std::string& text, int timeoutMs = 3000,
                            std::size_t from = 0) {
        return stream.readUntil(
            [&](const std::string& raw) {
                const std::string so_far = parseStreamed(raw).body;
                return so_far.size() > from && so_far.find(text, from) != std::string::npos;
            },
            timeoutMs);
    }

    std::string otherAuth() {
        if (otherToken_.empty()) {
            EXPECT_TRUE(server_->addUser(kOtherEmail, kPassword));
            auto res = login(kOtherEmail, kPassword);
            EXPECT_TRUE(res && res->status == 200);
            otherToken_ = res ? res->body : "";
        }
        return "?auth=" + otherToken_ + "&email=" + kOtherEmail;
    }

    // This device signed in to the web page: its cookie, as the browser sends it back.
    std::string signIn() {
        const auto form = [](const char* text) {
            return QUrl::toPercentEncoding(QString::fromUtf8(text)).toStdString();
        };
        auto res = client_->Post("/web/sign-in", kFromPage,
                                 "email=" + form(kEmail) + "&password=" + form(kPassword),
                                 "application/x-www-form-urlencoded");
        EXPECT_TRUE(res && res->status == 200);
        const std::string set = res ? res->get_header_value("Set-Cookie") : "";
        return set.substr(0, set.find(';'));
    }

    // A call of the page's, with a device's cookie.
    httplib::Result web(const char* method, const std::string& path, const std::string& cookie) {
        httplib::Headers headers = kFromPage;
        headers.emplace("Cookie", cookie);
        if (std::string(method) == "GET")
            return client_->Get(path.c_str(), headers);
        return client_->Post(path.c_str(), headers, "", "application/x-www-form-urlencoded");
    }

    // A stream as the web page opens it, with a device's cookie.
    std::unique_ptr<RawClient> openPageStream(const std::string& cookie) {
        auto stream = request(
            "", "127.0.0.1",
            "X-Ferrybox-Page: 1\r\nSec-Fetch-Site: same-origin\r\nCookie: " + cookie + "\r\n");
        EXPECT_TRUE(waitForText(*stream, kReady)) << stream->received();
        return stream;
    }

    std::string post(const std::string& query, const std::string& text) {
        auto res = client_->Post(("/api/note" + query).c_str(), base64(text),
                                 "application/x-www-form-urlencoded");
        EXPECT_TRUE(res && res->status == 200);
        return res ? res->body : std::string();
    }

    std::string otherToken_;
};

INSTANTIATE_TEST_SUITE_P(Backends, EventsTest, kBackends, backendName);

TEST_P(EventsTest, AStreamSaysItIsReadyAtOnceWithHeadersThatKeepProxiesOutOfTheWay) {
    auto stream = openStream();
    const StreamedAnswer answer = parseStreamed(stream->received());
    EXPECT_EQ(answer.status, 200);
    for (const char* header : {"Content-Type: text/event-stream\r\n", "Cache-Control: no-cache\r\n",
                               "X-Accel-Buffering: no\r\n", "Transfer-Encoding: chunked\r\n"}) {
        EXPECT_NE(answer.head.find(header), std::string::npos) << header << answer.head;
    }
    EXPECT_EQ(answer.body, kReady);
    EXPECT_FALSE(answer.finished);
}

TEST_P(EventsTest, EachKindOfChangeIsAnnouncedAtOnce) {
    auto stream = openStream();
    // A note to change, whose own creation has been announced already.
    const auto existing = [&] {
        const std::string key = createNote("to be changed");
        EXPECT_TRUE(waitForText(*stream, changeEvent(key)));
        return key;
    };
    struct Case {
        const char* name;
        std::function<std::string()> prepare;  // the key of the note to change, if any
        std::function<std::string(const std::string&)> change;  // the key changed
    };
    const Case cases[] = {
        {"create", [] { return std::string(); },
         [&](const std::string&) { return post(auth(), "new note"); }},
        {"update", existing,
         [&](const std::string& key) { return post(auth("&key=" + key), "v2"); }},
        {"delete", existing,
         [&](const std::string& key) {
             EXPECT_EQ(client_->Get(("/api/delete" + auth("&key=" + key)).c_str())->status, 200);
             return key;
         }},
        {"append", existing,
         [&](const std::string& key) {
             auto res = client_->Post(("/api/append" + auth("&header=to%20be%20changed")).c_str(),
                                      base64("appended"), "application/x-www-form-urlencoded");
             EXPECT_EQ(res ? res->body : "", key);
             return key;
         }},
        {"purge", existing,
         [&](const std::string& key) {
             EXPECT_EQ(
                 client_->Get(("/api/delete" + auth("&key=" + key + "&dead=1")).c_str())->status,
                 200);
             return key;
         }},
    };
    for (const Case& c : cases) {
        const std::string target = c.prepare();
        const std::size_t from = body(*stream).size();
        const std::string key = c.change(target);
        ASSERT_FALSE(key.empty()) << c.name;
        const auto answered = Clock::now();
        EXPECT_TRUE(waitForText(*stream, changeEvent(key), kAnnouncedWithinMs, from))
            << c.name << ": not announced within " << kAnnouncedWithinMs << " ms";
        const auto ms =
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - answered);
        RecordProperty(std::string("announced_ms_") + c.name, static_cast<int>(ms.count()));
    }
    EXPECT_EQ(count(body(*stream), "event: change\n"), 9u) << "four notes made, five changes";
}

TEST_P(EventsTest, ChangesInQuickSuccessionAreEachAnnouncedInOrder) {
    auto stream = openStream();
    std::string expected;
    for (int i = 0; i < 40; ++i)
        expected += changeEvent(createNote("note " + std::to_string(i)));
    EXPECT_TRUE(waitForText(*stream, expected, kAnnouncedWithinMs)) << body(*stream);
}

TEST_P(EventsTest, OnlyTheAccountsOwnChangesAreAnnounced) {
    auto mine = openStream();
    auto theirs = openStream(otherAuth());
    // A change is written to the streams before its request is answered, so once a stream
    // has its account's last change, any change made before it would have come first.
    const std::string theirFirst = post(otherAuth(), "someone else's note");
    const std::string myFirst = createNote("my note");
    const std::string theirLast = post(otherAuth(), "someone else's second note");
    const std::string myLast = createNote("my second note");
    EXPECT_TRUE(waitForText(*mine, changeEvent(myFirst) + changeEvent(myLast)));
    EXPECT_TRUE(waitForText(*theirs, changeEvent(theirFirst) + changeEvent(theirLast)));
    EXPECT_EQ(body(*mine), kReady + changeEvent(myFirst) + changeEvent(myLast));
    EXPECT_EQ(body(*theirs), kReady + changeEvent(theirFirst) + changeEvent(theirLast));
}

TEST_P(EventsTest, WithoutALiveSessionTheAnswerIs401) {
    const std::string live = token();
    struct Case {
        const char* name;
        std::string query;
    };
    const Case cases[] = {
        {"no query", ""},
        {"no token", std::string("?email=") + kEmail},
        {"wrong token", std::string("?auth=0123456789abcdef0123456789abcdef&email=") + kEmail},
        {"token of another address", "?auth=" + live + "&email=" + kOtherEmail},
    };
    for (const Case& c : cases) {
        auto stream = request(c.query);
        const auto answers = parseAnswers(stream->read(3000));
        ASSERT_EQ(answers.size(), 1u) << c.name << ": " << stream->received();
        EXPECT_EQ(answers[0].status, 401) << c.name;
        EXPECT_EQ(answers[0].body, "") << c.name;
    }
}

TEST_P(EventsTest, AnAccountHoldsABoundedNumberOfStreamsAndAStreamThatGoesFreesItsPlace) {
    struct Case {
        const char* name;
        bool abruptly;
    };
    for (const Case c : {Case{"client closes", false}, Case{"client resets", true}}) {
        startServer({"--max-event-streams-per-account", "2", "--event-heartbeat", "1"});
        otherToken_.clear();
        std::vector<std::unique_ptr<RawClient>> open;
        open.push_back(openStream());
        open.push_back(openStream());
        auto refused = request(auth());
        const auto answers = parseAnswers(refused->read(3000));
        ASSERT_EQ(answers.size(), 1u) << c.name << ": " << refused->received();
        EXPECT_EQ(answers[0].status, 429) << c.name;
        EXPECT_EQ(answers[0].body, "") << c.name;
        EXPECT_EQ(statusOf(*request(otherAuth())), 200) << c.name << ": another account";

        // The service finds out at a heartbeat, whose write fails.
        open.front()->hangUp(c.abruptly);
        const auto deadline = Clock::now() + std::chrono::seconds(6);
        int status = 0;
        while (status != 200 && Clock::now() < deadline) {
            auto again = request(auth());
            status = statusOf(*again);
            if (status == 200) {
                EXPECT_TRUE(waitForText(*again, kReady)) << c.name;
                open.front() = std::move(again);
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));  // poll interval
            }
        }
        EXPECT_EQ(status, 200) << c.name << ": the place was not freed within 6 s";
        // The survivor still hears of changes.
        const std::string key = createNote(c.name);
        EXPECT_TRUE(waitForText(*open.back(), changeEvent(key))) << c.name;
    }
}

TEST_P(EventsTest, AStreamOutlivesTheIdleTimeOutOnHeartbeats) {
    startServer({"--idle-timeout", "1", "--event-heartbeat", "1"});
    auto stream = openStream();
    RawClient idle("127.0.0.1", server_->port());
    ASSERT_TRUE(idle.connected());
    EXPECT_TRUE(idle.waitClosed(5000)) << "a silent connection is still closed";
    // Three heartbeats: three seconds, three times the idle time-out.
    EXPECT_TRUE(stream->readUntil(
        [](const std::string& raw) { return count(parseStreamed(raw).body, kHeartbeat) >= 3; },
        8000))
        << body(*stream);
    EXPECT_FALSE(stream->closed());
    EXPECT_EQ(body(*stream).rfind(kReady, 0), 0u);
    const std::string key = createNote("still listening");
    EXPECT_TRUE(waitForText(*stream, changeEvent(key))) << body(*stream);
}

// Whoever had the right to listen no longer hears of the notes once it is taken back: signed out,
// ended from the list of devices, "Sign out everywhere", a new password, the account removed,
// or a token that ran out. Ended by the serving process, or announced to it through the
// database, the stream ends at once (heartbeats far apart here); a command beside a SQLite
// file has no way to tell the service, which finds out at the stream's next heartbeat.
TEST_P(EventsTest, AStreamEndsWithTheSessionItWasOpenedWith) {
    const auto endDevice = [&](const std::string& cookie) {
        // From another device, whose list shows the stream's device as not the current one.
        const std::string other = signIn();
        const TWJsonValue list =
            TWJSON()
                .fragmentWithString(QString::fromStdString(web("GET", "/web/devices", other)->body))
                .value_or(TWJsonValue());
        for (const TWJsonValue& device : list.elements()) {
            if (!device.valueForKey(QStringLiteral("current"))->boolValue()) {
                const QString id = device.valueForKey(QStringLiteral("id"))->stringValue();
                EXPECT_EQ(web("POST", "/web/devices/end?id=" + id.toStdString(), other)->status,
                          200);
            }
        }
        EXPECT_EQ(web("GET", "/web/me", cookie)->status, 401);
    };
    struct Case {
        const char* name;
        bool device;            // opened by the web page with its cookie, else with a token
        bool byAnotherProcess;  // a command beside the service
        int tokenSeconds;       // how long a token lasts, when not the default
        std::function<void(const std::string& cookie)> end;
        const char* password;  // to sign in with afterwards; nullptr: the account is gone
    };
    const Case cases[] = {
        {"sign-out", true, false, 0,
         [&](const std::string& cookie) {
             EXPECT_EQ(web("POST", "/web/sign-out", cookie)->status, 200);
         },
         kPassword},
        {"ended from the list of devices", true, false, 0, endDevice, kPassword},
        {"sign out everywhere, page", true, false, 0,
         [&](const std::string&) {
             EXPECT_EQ(web("POST", "/web/sign-out-everywhere", signIn())->status, 200);
         },
         kPassword},
        {"sign out everywhere, token", false, false, 0,
         [&](const std::string&) {
             EXPECT_EQ(web("POST", "/web/sign-out-everywhere", signIn())->status, 200);
         },
         kPassword},
        {"passwd", false, true, 0,
         [&](const std::string&) {
             EXPECT_EQ(server_->runCommand({"passwd", kEmail}, "a new password\n"), 0);
         },
         "a new password"},
        {"remove-user", false, true, 0,
         [&](const std::string&) {
             EXPECT_EQ(server_->runCommand({"remove-user", kEmail}), 0);
         },
         nullptr},
        {"token expiry", false, false, 3, [](const std::string&) {}, kPassword},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const bool atHeartbeat = c.byAnotherProcess && GetParam() == Backend::SQLite;
        QProcessEnvironment env;
        if (c.tokenSeconds)
            env.insert("FERRYBOX_NOTES_TOKEN_SECONDS", QString::number(c.tokenSeconds));
        startServer(
            {"--event-heartbeat", atHeartbeat ? "1" : "60", "--max-event-streams-per-account", "1"},
            env);
        const std::string cookie = c.device ? signIn() : "";
        auto stream = c.device ? openPageStream(cookie) : openStream();
        const auto asked = Clock::now();
        c.end(cookie);
        EXPECT_TRUE(
            stream->readUntil([](const std::string& raw) { return parseStreamed(raw).finished; },
                              1000 * (c.tokenSeconds + 3)))
            << "the stream did not end: " << stream->received();
        RecordProperty(std::string("ended_ms_") + c.name,
                       static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                            Clock::now() - asked)
                                            .count()));
        if (!c.password)
            continue;
        // Its place is free: the account's one stream may be opened again by a new sign-in.
        auto res = login(kEmail, c.password);
        ASSERT_TRUE(res && res->status == 200);
        auto again = request("?auth=" + res->body + "&email=" + kEmail);
        EXPECT_EQ(statusOf(*again), 200) << again->received();
    }
}

// An account made after another was removed never has its id, which a stream of the removed
// account (or anything else that still holds the id) would take for its own.
TEST_P(EventsTest, AStreamOfARemovedAccountNeverHearsOfTheNextOne) {
    startServer({"--event-heartbeat", "60"});
    auto removed = openStream();
    ASSERT_EQ(server_->runCommand({"remove-user", kEmail}), 0);
    ASSERT_TRUE(server_->addUser(kEmail, "the next owner's password"));
    auto res = login(kEmail, "the next owner's password");
    ASSERT_TRUE(res && res->status == 200);
    const std::string next = "?auth=" + res->body + "&email=" + kEmail;
    auto theirs = openStream(next);
    const std::string key = post(next, "the next owner's note");
    ASSERT_TRUE(waitForText(*theirs, changeEvent(key)));
    // Written to every stream of that id before the note's answer, so long since delivered
    // to any stream that would hear of it.
    EXPECT_FALSE(waitForText(*removed, key, 1000)) << body(*removed);
}

TEST_P(EventsTest, StreamsEndCleanlyWhenTheServiceStops) {
    auto first = openStream();
    auto second = openStream();
    const auto asked = Clock::now();
    ASSERT_EQ(::kill(static_cast<pid_t>(server_->pid()), SIGTERM), 0);
    for (RawClient* stream : {first.get(), second.get()}) {
        EXPECT_TRUE(stream->readUntil(
            [](const std::string& raw) { return parseStreamed(raw).finished; }, 5000))
            << "the stream's last chunk did not come: " << stream->received();
    }
    const auto deadline = asked + std::chrono::seconds(5);
    while (!exited(server_->pid()) && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));  // poll interval
    EXPECT_TRUE(exited(server_->pid())) << "still running 5 s after SIGTERM";
}

}  // namespace
}  // namespace servicetest
