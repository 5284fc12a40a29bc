// SPDX-License-Identifier: GPL-3.0-or-later
// The web page's device sessions and its queueing of shared links, against the real binary.
#include <QRegularExpression>
#include <thread>

#include "Classes/TWJSON/TWJSON.h"
#include "service/SharedLink.h"
#include "tests/service/ServiceFixture.h"

namespace servicetest {
namespace {

std::string formEncode(const std::string& text) {
    return QUrl::toPercentEncoding(QString::fromStdString(text)).toStdString();
}

TWJsonValue parse(const std::string& body) {
    return TWJSON().fragmentWithString(QString::fromStdString(body)).value_or(TWJsonValue());
}

QString field(const TWJsonValue& object, const char* name) {
    const auto value = object.valueForKey(QLatin1String(name));
    return value ? value->stringValue() : QString();
}

class SessionTest : public ServiceTest {
protected:
    struct SignIn {
        int status = 0;
        std::string setCookie;
        std::string body;
        std::string cookie;  // "ferrybox_device=...", as a browser sends it back
    };
    SignIn signIn(const std::string& userAgent =
                      "Mozilla/5.0 (X11; Linux x86_64) "
                      "Chrome/120.0 Safari/537.36",
                  httplib::Headers headers = kFromPage) {
        headers.emplace("User-Agent", userAgent);
        auto res =
            client_->Post("/web/sign-in", headers,
                          "email=" + formEncode(kEmail) + "&password=" + formEncode(kPassword),
                          "application/x-www-form-urlencoded");
        if (!res)
            return {};
        const std::string setCookie = res->get_header_value("Set-Cookie");
        return {res->status, setCookie, res->body, setCookie.substr(0, setCookie.find(';'))};
    }

    httplib::Result call(const std::string& method, const std::string& path,
                         const std::string& cookie, const std::string& body = "",
                         httplib::Headers headers = kFromPage) {
        headers.emplace("Cookie", cookie);
        if (method == "GET")
            return client_->Get(path.c_str(), headers);
        return client_->Post(path.c_str(), headers, body, "application/x-www-form-urlencoded");
    }

    int status(const httplib::Result& res) { return res ? res->status : 0; }

    std::string noteText(const std::string& key) {
        auto res = client_->Get(("/api/note" + auth("&key=" + key)).c_str());
        return res && res->status == 200 ? res->body : "(no note)";
    }
};

INSTANTIATE_TEST_SUITE_P(Backends, SessionTest, kBackends, backendName);

TEST_P(SessionTest, SigningInGivesACookieTheScriptCannotReadThatActsForTheAccount) {
    const SignIn answer = signIn("ua");
    ASSERT_EQ(answer.status, 200);
    const std::string& cookie = answer.cookie;
    const QString setCookie = QString::fromStdString(answer.setCookie);
    EXPECT_TRUE(QRegularExpression("^ferrybox_device=[0-9a-f]{32}; Path=/; Max-Age=34560000; "
                                   "HttpOnly; SameSite=Strict$")
                    .match(setCookie)
                    .hasMatch())
        << setCookie.toStdString();
    EXPECT_EQ(field(parse(answer.body), "email").toStdString(), kEmail);

    const std::string key = createNote("mine");
    auto me = call("GET", "/web/me", cookie);
    EXPECT_EQ(status(me), 200);
    EXPECT_EQ(field(parse(me->body), "email").toStdString(), kEmail);
    EXPECT_EQ(call("GET", "/api/note?key=" + key, cookie)->body, "mine");
    EXPECT_EQ(status(call("POST", "/api/note?key=" + key, cookie, base64("changed"))), 200);
    EXPECT_EQ(noteText(key), "changed");
}

TEST_P(SessionTest, WrongPasswordsAreRefusedAndSlowedDownAsAtTheApi) {
    const std::string body = "email=" + formEncode(kEmail) + "&password=wrong";
    for (int i = 0; i < 5; ++i) {
        auto res =
            client_->Post("/web/sign-in", kFromPage, body, "application/x-www-form-urlencoded");
        EXPECT_EQ(status(res), 401);
        EXPECT_EQ(res->get_header_value("Set-Cookie"), "");
    }
    EXPECT_EQ(
        status(client_->Post("/web/sign-in", kFromPage, body, "application/x-www-form-urlencoded")),
        429);
    EXPECT_EQ(status(client_->Post("/web/sign-in", kFromPage, "password=x",
                                   "application/x-www-form-urlencoded")),
              400);
}

// A page of another site can make a browser send the cookie along (a link, a form, an image),
// but not the page's header, and the browser says where the request came from.
TEST_P(SessionTest, NothingIsDoneForRequestsAnotherSiteCouldHaveMade) {
    const std::string cookie = signIn().cookie;
    const std::string key = createNote("Ferrybox_Downloads");
    const httplib::Headers elsewhere[] = {
        {},
        {{"X-Ferrybox-Page", "0"}},
        {{"X-Ferrybox-Page", "1"}, {"Sec-Fetch-Site", "cross-site"}},
        {{"X-Ferrybox-Page", "1"}, {"Sec-Fetch-Site", "same-site"}},
        {{"Sec-Fetch-Site", "same-origin"}},
    };
    for (const httplib::Headers& headers : elsewhere) {
        const std::string which = headers.empty() ? "none" : headers.begin()->second;
        EXPECT_EQ(
            status(call("POST", "/web/append", cookie, "url=https://evil.example/x", headers)), 403)
            << which;
        EXPECT_EQ(status(call("GET", "/web/me", cookie, "", headers)), 403) << which;
        EXPECT_EQ(status(call("POST", "/web/sign-out", cookie, "", headers)), 403) << which;
        EXPECT_EQ(status(call("POST", "/web/sign-out-everywhere", cookie, "", headers)), 403)
            << which;
        EXPECT_EQ(status(call("GET", "/api/delete?key=" + key, cookie, "", headers)), 401) << which;
        EXPECT_EQ(status(call("GET", "/api/index", cookie, "", headers)), 401) << which;
    }
    EXPECT_EQ(noteText(key), "Ferrybox_Downloads");
    EXPECT_EQ(status(call("GET", "/web/me", cookie)), 200);
}

TEST_P(SessionTest, DevicesAreListedByNameAndEachCanBeEnded) {
    const struct {
        const char* userAgent;
        const char* name;
    } browsers[] = {
        {"Mozilla/5.0 (Linux; Android 14; Pixel 8) AppleWebKit/537.36 Chrome/120.0 Mobile "
         "Safari/537.36",
         "Chrome on Android"},
        {"Mozilla/5.0 (iPhone; CPU iPhone OS 17_0 like Mac OS X) AppleWebKit/605.1.15 "
         "Version/17.0 Mobile/15E148 Safari/604.1",
         "Safari on iOS"},
        {"Mozilla/5.0 (X11; Linux x86_64; rv:121.0) Gecko/20100101 Firefox/121.0",
         "Firefox on Linux"},
        {"Mozilla/5.0 (Windows NT 10.0; Win64; x64) Chrome/120.0 Safari/537.36 Edg/120.0",
         "Edge on Windows"},
        {"curl/8.0", "A browser"},
    };
    std::vector<std::string> cookies;
    for (const auto& browser : browsers)
        cookies.push_back(signIn(browser.userAgent).cookie);

    auto res = call("GET", "/web/devices", cookies.front());
    ASSERT_EQ(status(res), 200);
    const TWJsonValue list = parse(res->body);
    ASSERT_EQ(list.count(), qsizetype(std::size(browsers)));
    QStringList names;
    QString otherId, currentId;
    for (const TWJsonValue& device : list.elements()) {
        names << field(device, "name");
        const bool current = device.valueForKey(QStringLiteral("current"))->boolValue();
        (current ? currentId : otherId) = field(device, "id");
        EXPECT_TRUE(QRegularExpression(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}$)")
                        .match(field(device, "lastSeen"))
                        .hasMatch());
    }
    for (const auto& browser : browsers)
        EXPECT_TRUE(names.contains(QLatin1String(browser.name))) << browser.name;
    EXPECT_FALSE(currentId.isEmpty());

    // Ending another device ends only that one; the list no longer has it.
    EXPECT_EQ(status(call("POST", "/web/devices/end?id=" + otherId.toStdString(), cookies.front())),
              200);
    int live = 0;
    for (const std::string& cookie : cookies)
        live += status(call("GET", "/web/me", cookie)) == 200;
    EXPECT_EQ(live, int(std::size(browsers)) - 1);
    EXPECT_EQ(status(call("POST", "/web/devices/end?id=" + otherId.toStdString(), cookies.front())),
              404);

    // Signing out ends this device on the server, not only in the browser.
    auto out = call("POST", "/web/sign-out", cookies.front());
    EXPECT_EQ(status(out), 200);
    EXPECT_TRUE(QString::fromStdString(out->get_header_value("Set-Cookie"))
                    .startsWith(QLatin1String("ferrybox_device=; Path=/; Max-Age=0")));
    EXPECT_EQ(status(call("GET", "/web/me", cookies.front())), 401);
    EXPECT_EQ(status(call("GET", "/api/index", cookies.front())), 401);
    // Signing out everywhere ends every device and every API token of the account, this
    // device's included.
    const std::string query = auth();
    auto everywhere = call("POST", "/web/sign-out-everywhere", cookies.back());
    EXPECT_EQ(status(everywhere), 200);
    EXPECT_TRUE(QString::fromStdString(everywhere->get_header_value("Set-Cookie"))
                    .startsWith(QLatin1String("ferrybox_device=; Path=/; Max-Age=0")));
    for (const std::string& cookie : cookies)
        EXPECT_EQ(status(call("GET", "/web/me", cookie)), 401);
    EXPECT_EQ(status(client_->Get(("/api/index" + query).c_str())), 401);
    // Removing the account ends its devices.
    cookies = {signIn().cookie, signIn().cookie};
    for (const std::string& cookie : cookies)
        EXPECT_EQ(status(call("GET", "/web/me", cookie)), 200);
    ASSERT_EQ(server_->runCommand({QStringLiteral("remove-user"), QLatin1String(kEmail)}), 0);
    for (const std::string& cookie : cookies)
        EXPECT_EQ(status(call("GET", "/web/me", cookie)), 401);
}

// Over HTTPS (here: a trusted proxy that says so) the cookie's name has the __Host- prefix,
// with which browsers keep it only from a secure page, for the whole site, and for this host
// alone; over plain HTTP, where browsers refuse that prefix, the plain name. Each counts only
// in the setting it was given in.
TEST_P(SessionTest, TheCookieIsNamedForHttpsOrPlainHttpAndCountsOnlyThere) {
    startServer({"--trusted-proxy", "127.0.0.1"});
    httplib::Headers https = kFromPage;
    https.emplace("X-Forwarded-Proto", "https");
    const SignIn secure = signIn("ua", https);
    EXPECT_TRUE(QRegularExpression("^__Host-ferrybox_device=[0-9a-f]{32}; Path=/; "
                                   "Max-Age=34560000; HttpOnly; SameSite=Strict; Secure$")
                    .match(QString::fromStdString(secure.setCookie))
                    .hasMatch())
        << secure.setCookie;
    const SignIn plain = signIn("ua");
    EXPECT_TRUE(QRegularExpression("^ferrybox_device=[0-9a-f]{32}; Path=/; Max-Age=34560000; "
                                   "HttpOnly; SameSite=Strict$")
                    .match(QString::fromStdString(plain.setCookie))
                    .hasMatch())
        << plain.setCookie;
    const std::string secureToken = secure.cookie.substr(secure.cookie.find('=') + 1);
    const std::string plainToken = plain.cookie.substr(plain.cookie.find('=') + 1);
    const struct {
        std::string cookie;
        bool overHttps;
        int status;
    } uses[] = {
        {"__Host-ferrybox_device=" + secureToken, true, 200},
        {"ferrybox_device=" + plainToken, false, 200},
        {"__Host-ferrybox_device=" + secureToken, false, 401},
        {"ferrybox_device=" + plainToken, true, 401},
        {"ferrybox_device=" + secureToken, true, 401},
    };
    for (const auto& use : uses) {
        EXPECT_EQ(status(call("GET", "/web/me", use.cookie, "", use.overHttps ? https : kFromPage)),
                  use.status)
            << use.cookie << (use.overHttps ? " over HTTPS" : " over HTTP");
    }
    auto out = call("POST", "/web/sign-out", secure.cookie, "", https);
    EXPECT_TRUE(QRegularExpression("^__Host-ferrybox_device=; Path=/; Max-Age=0; .*; Secure$")
                    .match(QString::fromStdString(out->get_header_value("Set-Cookie")))
                    .hasMatch())
        << out->get_header_value("Set-Cookie");
}

TEST(SharedLinkTest, TheFirstWebAddressIsTakenFromWhatAppsShare) {
    const struct {
        const char* shared;
        const char* address;  // empty: none
    } cases[] = {
        {"https://example.org/file.iso", "https://example.org/file.iso"},
        {"Look at this: https://example.org/a.mp4. Nice!", "https://example.org/a.mp4"},
        {"\"http://example.org/x?y=1&z=2\"", "http://example.org/x?y=1&z=2"},
        {"(see https://en.wikipedia.org/wiki/Ferry_(boat))",
         "https://en.wikipedia.org/wiki/Ferry_(boat)"},
        {"<https://example.org/a>, then https://example.org/b", "https://example.org/a"},
        {"HTTPS://EXAMPLE.ORG/Up", "https://example.org/Up"},
        {"ftp://example.org/a and https://example.org/b", "https://example.org/b"},
        {"https:// nothing here", ""},
        {"just words", ""},
        {"", ""},
        {"mailto:me@example.org", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(notes::firstWebAddress(QString::fromUtf8(c.shared)).toString().toStdString(),
                  c.address)
            << c.shared;
    }
    EXPECT_EQ(notes::linkName(QUrl("https://example.org/dir/My%20File.iso?x=1")), "My File.iso");
    EXPECT_EQ(notes::linkName(QUrl("https://example.org/")), "example.org");
}

TEST_P(SessionTest, ASharedLinkIsQueuedOnceInTheDownloadNote) {
    const std::string cookie = signIn().cookie;
    // No download note yet: one is made as the agent makes it, with the link under it.
    auto first = call("POST", "/web/append", cookie,
                      "title=A+file&text=Get+it+at+https%3A%2F%2Fexample.org%2Fa.iso+today&url=");
    ASSERT_EQ(status(first), 200);
    const TWJsonValue answer = parse(first->body);
    EXPECT_EQ(field(answer, "queued"), "a.iso");
    EXPECT_EQ(field(answer, "link"), "https://example.org/a.iso");
    EXPECT_TRUE(answer.valueForKey(QStringLiteral("added"))->boolValue());
    const std::string key = field(answer, "key").toStdString();
    EXPECT_EQ(noteText(key), "Ferrybox_Downloads\nhttps://example.org/a.iso");

    const struct {
        std::string body;
        int status;
        bool added;
    } shares[] = {
        {"url=https%3A%2F%2Fexample.org%2Fb.iso&text=https%3A%2F%2Fexample.org%2Fc", 200, true},
        {"url=https%3A%2F%2Fexample.org%2Fa.iso", 200, false},  // already there
        {"url=&text=nothing+to+see", 422, false},
        {"title=only+a+title", 422, false},
    };
    for (const auto& share : shares) {
        auto res = call("POST", "/web/append", cookie, share.body);
        EXPECT_EQ(status(res), share.status) << share.body;
        if (share.status == 200) {
            EXPECT_EQ(parse(res->body).valueForKey(QStringLiteral("added"))->boolValue(),
                      share.added)
                << share.body;
        } else {
            EXPECT_EQ(field(parse(res->body), "error"),
                      "Nothing to download: what was shared holds no web address.");
        }
    }
    EXPECT_EQ(noteText(key),
              "Ferrybox_Downloads\nhttps://example.org/a.iso\nhttps://example.org/b.iso");

    // The newest live note that begins with the header takes the link; a deleted one does not.
    const std::string newer = createNote("Ferrybox_Downloads\n# mine\n");
    const std::string deleted = createNote("Ferrybox_Downloads");
    ASSERT_EQ(client_->Get(("/api/delete" + auth("&key=" + deleted)).c_str())->status, 200);
    EXPECT_EQ(
        field(parse(call("POST", "/web/append", cookie, "url=http%3A%2F%2Fh.example%2F")->body),
              "queued"),
        "h.example");
    EXPECT_EQ(noteText(newer), "Ferrybox_Downloads\n# mine\nhttp://h.example/");
    EXPECT_EQ(noteText(deleted), "Ferrybox_Downloads");
}

// A link that would make the download note longer than a note's body may be (--max-body-bytes,
// counted in base64) is refused with the reason, and nothing changes: no client could write
// such a note back, not even the agent once it has taken the links.
TEST_P(SessionTest, ALinkThatWouldOverfillTheDownloadNoteIsRefused) {
    // "Ferrybox_Downloads", a line feed and a link of 29 bytes: 48 bytes, 64 in base64.
    startServer({"--max-body-bytes", "64"});
    const std::string cookie = signIn().cookie;
    const auto downloadNote = [&] {
        const TWJsonValue found =
            parse(client_->Get(("/api/search" + auth("&query=Ferrybox_Downloads")).c_str())->body);
        const auto results =
            found.valueForKey(QStringLiteral("Response"))->valueForKey(QStringLiteral("Results"));
        return results->count() ? field(results->at(0), "content").toStdString()
                                : std::string("(none)");
    };
    const std::string kept = "Ferrybox_Downloads\nhttps://example.org/123456789";
    const struct {
        const char* link;
        int status;
        std::string note;
    } shares[] = {
        {"https://example.org/1234567890", 413, "(none)"},
        {"https://example.org/123456789", 200, kept},
        {"https://e.org/", 413, kept},
    };
    for (const auto& share : shares) {
        auto res = call("POST", "/web/append", cookie, "url=" + formEncode(share.link));
        EXPECT_EQ(status(res), share.status) << share.link;
        if (share.status == 413) {
            EXPECT_EQ(field(parse(res->body), "error"),
                      "The download note is full: let Ferrybox on your computer take the links "
                      "in it first, then queue this one again.");
        }
        EXPECT_EQ(downloadNote(), share.note) << share.link;
    }
}

// A page that saw a link in the download note, shared again after the agent took it, does not
// queue it a second time; without that sight, the same link is queued anew.
TEST_P(SessionTest, ALinkTheAgentTookIsNotQueuedAgainByAPageThatSawIt) {
    const std::string cookie = signIn().cookie;
    const std::string key = createNote("Ferrybox_Downloads\nhttps://example.org/a.iso");
    ASSERT_EQ(client_
                  ->Post(("/api/note" + auth("&key=" + key)).c_str(), base64("Ferrybox_Downloads"),
                         "application/x-www-form-urlencoded")
                  ->status,
              200);
    const std::string share = "url=https%3A%2F%2Fexample.org%2Fa.iso&key=" + key;
    const TWJsonValue seen = parse(call("POST", "/web/append", cookie, share + "&version=1")->body);
    EXPECT_FALSE(seen.valueForKey(QStringLiteral("added"))->boolValue());
    EXPECT_EQ(seen.valueForKey(QStringLiteral("version"))->numberText(), "2");
    EXPECT_EQ(noteText(key), "Ferrybox_Downloads");
    const TWJsonValue fresh = parse(call("POST", "/web/append", cookie, share)->body);
    EXPECT_TRUE(fresh.valueForKey(QStringLiteral("added"))->boolValue());
    EXPECT_EQ(fresh.valueForKey(QStringLiteral("version"))->numberText(), "3");
    EXPECT_EQ(noteText(key), "Ferrybox_Downloads\nhttps://example.org/a.iso");
}

TEST_P(SessionTest, SharesAtTheSameMomentAllLand) {
    const std::string cookie = signIn().cookie;
    const std::string key = createNote("Ferrybox_Downloads\n# header comment");
    constexpr int kShares = 16;
    std::vector<std::thread> threads;
    std::atomic<int> ok{0};
    for (int i = 0; i < kShares; ++i) {
        threads.emplace_back([&, i] {
            httplib::Client client("127.0.0.1", server_->port());
            httplib::Headers headers = kFromPage;
            headers.emplace("Cookie", cookie);
            auto res = client.Post("/web/append", headers,
                                   "url=https%3A%2F%2Fexample.org%2F" + std::to_string(i),
                                   "application/x-www-form-urlencoded");
            ok += res && res->status == 200;
        });
    }
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(ok, kShares);
    const QStringList lines = QString::fromStdString(noteText(key)).split(QLatin1Char('\n'));
    EXPECT_EQ(lines.size(), 2 + kShares);
    for (int i = 0; i < kShares; ++i)
        EXPECT_TRUE(lines.contains(QStringLiteral("https://example.org/%1").arg(i))) << i;
}

}  // namespace
}  // namespace servicetest
