// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/WebSessions.h"

#include <memory>

#include "Classes/TWJSON/TWJsonWriter.h"
#include "service/Authorisation.h"
#include "service/Credentials.h"
#include "service/HttpServer.h"
#include "service/NoteEvents.h"
#include "service/NotesStore.h"
#include "service/RequestQuery.h"
#include "service/SharedLink.h"

namespace notes {

namespace {

// What the agent looks for, and writes when it makes the note itself.
const QString kDownloadNoteHeader = QStringLiteral("Ferrybox_Downloads");

// Browsers keep a cookie at most this long (400 days); the server ends a session sooner when
// it goes unused (NotesStore::kDeviceIdleMicros).
constexpr int kCookieSeconds = 400 * 24 * 3600;

constexpr std::size_t kMaxSignInBodyBytes = 4096;
// A shared text with an address somewhere in it; more is no message anyone shares.
constexpr std::size_t kMaxShareBodyBytes = 64 * 1024;

// "Firefox on Android": enough for a person to tell their devices apart, and nothing more of
// what the browser says about itself is kept.
QString deviceName(const HttpRequest& req) {
    const std::string* header = req.header("user-agent");
    const QString agent = header ? QString::fromStdString(*header) : QString();
    auto has = [&](const char* word) { return agent.contains(QLatin1String(word)); };
    // Order matters: each browser also names the ones it descends from.
    const char* browser = has("Firefox/")  ? "Firefox"
                          : has("Edg/")    ? "Edge"
                          : has("OPR/")    ? "Opera"
                          : has("Chrome/") ? "Chrome"
                          : has("CriOS/")  ? "Chrome"
                          : has("Safari/") ? "Safari"
                                           : "A browser";
    const char* system = has("Android")                 ? "Android"
                         : has("iPhone") || has("iPad") ? "iOS"
                         : has("CrOS")                  ? "ChromeOS"
                         : has("Windows")               ? "Windows"
                         : has("Macintosh")             ? "macOS"
                         : has("Linux")                 ? "Linux"
                                                        : nullptr;
    QString name = QLatin1String(browser);
    if (system)
        name += QStringLiteral(" on ") + QLatin1String(system);
    return name;
}

// Named for the request's setting (Authorisation.h); never with a Domain, which a __Host-
// cookie must not have.
std::string deviceCookie(const HttpRequest& req, const QString& token, int maxAge) {
    std::string text = std::string(deviceCookieName(req)) + "=" + token.toStdString() +
                       "; Path=/; Max-Age=" + std::to_string(maxAge) +
                       "; HttpOnly; SameSite=Strict";
    if (req.secure)
        text += "; Secure";
    return text;
}

void answerJson(HttpResponse& res, int status, const TWJsonValue& json) {
    res.status = status;
    res.body = TWJsonWriter().stringWithObject(json).toUtf8().toStdString();
    res.contentType = "application/json; charset=utf-8";
    res.headers.emplace_back("Cache-Control", "no-store");
}

TWJsonValue object(std::initializer_list<std::pair<const char*, TWJsonValue>> members) {
    TWJsonValue json = TWJsonValue::dictionary();
    for (const auto& [name, value] : members)
        json.insert(QLatin1String(name), value);
    return json;
}

class WebSessions {
public:
    WebSessions(NotesStore& store, LoginLimiter& throttle, HashPool& hashing, NoteEvents& events,
                qint64 maxNoteBase64Bytes)
        : store_(store),
          throttle_(throttle),
          hashing_(hashing),
          events_(events),
          maxNoteBase64Bytes_(maxNoteBase64Bytes) {}

    void signIn(const HttpRequest& req, HttpResponse& res) {
        const QString email = formValue(req.body, "email");
        const QString password = formValue(req.body, "password");
        if (email.isEmpty() || password.isNull() || email.toUtf8().size() > 254) {
            res.status = 400;
            return;
        }
        // Answered once the password has been checked, off this worker.
        checkLogin(req, store_, throttle_, hashing_, email, password,
                   [this, req, later = res.defer()](const LoginResult& login) {
                       if (!login.user)
                           return later->answer(refusedLogin(login));
                       HttpResponse res;
                       try {
                           startDevice(req, *login.user, res);
                       } catch (const std::exception&) {
                           res = refusedLogin({std::nullopt, 503});
                       }
                       later->answer(std::move(res));
                   });
    }

    // The device of a sign-in that was right: its session, and the cookie that carries it.
    void startDevice(const HttpRequest& req, const User& user, HttpResponse& res) {
        const QString token = newToken();
        store_.addDevice(user.id, tokenHash(token), deviceName(req), nowMicros());
        answerJson(res, 200, object({{"email", TWJsonValue::string(user.email)}}));
        res.headers.emplace_back("Set-Cookie", deviceCookie(req, token, kCookieSeconds));
    }

    void me(const HttpRequest& req, HttpResponse& res) {
        if (const auto session = signedIn(req, res))
            answerJson(res, 200, object({{"email", TWJsonValue::string(session->email)}}));
    }

    void signOut(const HttpRequest& req, HttpResponse& res) {
        if (const auto session = deviceSessionOf(req, store_)) {
            store_.endDevice(session->userId, session->deviceId);
            events_.accessEnded(session->userId);
        }
        answerJson(res, 200, TWJsonValue::dictionary());
        res.headers.emplace_back("Set-Cookie", deviceCookie(req, QString(), 0));
    }

    void devices(const HttpRequest& req, HttpResponse& res) {
        const auto session = signedIn(req, res);
        if (!session)
            return;
        TWJsonValue list = TWJsonValue::array();
        for (const Device& device : store_.devices(session->userId, nowMicros())) {
            list.append(object({
                {"id", TWJsonValue::string(QString::number(device.id))},
                {"name", TWJsonValue::string(device.name)},
                {"created", TWJsonValue::string(formatMicros(device.createdMicros))},
                {"lastSeen", TWJsonValue::string(formatMicros(device.lastSeenMicros))},
                {"current", TWJsonValue::boolean(device.id == session->deviceId)},
            }));
        }
        answerJson(res, 200, list);
    }

    void endDevice(const HttpRequest& req, HttpResponse& res) {
        const auto session = signedIn(req, res);
        if (!session)
            return;
        bool ok = false;
        const qint64 id = queryValue(rawQuery(req), "id").toLongLong(&ok);
        if (!ok || !store_.endDevice(session->userId, id)) {
            res.status = 404;
            return;
        }
        events_.accessEnded(session->userId);
        answerJson(res, 200, TWJsonValue::dictionary());
        if (id == session->deviceId)
            res.headers.emplace_back("Set-Cookie", deviceCookie(req, QString(), 0));
    }

    // Every device session and every API token of the account, this device's included: for a
    // phone that was lost, or a password that someone else may know (with a new one set by
    // the passwd command, which ends them too). Every client, the agent too, signs in again.
    void signOutEverywhere(const HttpRequest& req, HttpResponse& res) {
        const auto session = signedIn(req, res);
        if (!session)
            return;
        store_.endSessions(session->userId);
        events_.accessEnded(session->userId);
        answerJson(res, 200, TWJsonValue::dictionary());
        res.headers.emplace_back("Set-Cookie", deviceCookie(req, QString(), 0));
    }

    void append(const HttpRequest& req, HttpResponse& res) {
        const auto session = signedIn(req, res);
        if (!session)
            return;
        const QUrl link = sharedLink(req.body);
        if (link.isEmpty()) {
            return answerJson(
                res, 422,
                object({{"error", TWJsonValue::string(QStringLiteral(
                                      "Nothing to download: what was shared holds no web "
                                      "address."))}}));
        }
        const QString line = link.toString(QUrl::FullyEncoded);
        // The download note as the page last saw it, if it did: a link it saw there that the
        // agent has taken since is not queued a second time.
        std::optional<SeenVersion> seen;
        if (const auto version = parseVersion(formValue(req.body, "version")))
            seen = SeenVersion{formValue(req.body, "key"), *version};
        const Appended appended = store_.appendLine(session->userId, kDownloadNoteHeader, line,
                                                    nowMicros(), seen, maxNoteBase64Bytes_);
        // A note no client could write back (the agent, once it has taken the links) would be
        // stuck at its size for good.
        if (appended.tooLong) {
            return answerJson(
                res, 413,
                object({{"error", TWJsonValue::string(QStringLiteral(
                                      "The download note is full: let Ferrybox on your "
                                      "computer take the links in it first, then queue this "
                                      "one again."))}}));
        }
        if (appended.added)
            events_.noteChanged(session->userId, appended.key);
        answerJson(res, 200,
                   object({
                       {"queued", TWJsonValue::string(linkName(link))},
                       {"link", TWJsonValue::string(line)},
                       {"key", TWJsonValue::string(appended.key)},
                       {"added", TWJsonValue::boolean(appended.added)},
                       {"version", TWJsonValue::number(appended.version)},
                   }));
    }

private:
    // The device session of a request; nothing after a 401 is sent.
    std::optional<DeviceSession> signedIn(const HttpRequest& req, HttpResponse& res) {
        auto session = deviceSessionOf(req, store_);
        if (!session)
            res.status = 401;
        return session;
    }

    NotesStore& store_;
    LoginLimiter& throttle_;
    HashPool& hashing_;
    NoteEvents& events_;
    const qint64 maxNoteBase64Bytes_;
};

// Nothing under /web is done for a request that another site's page could have made.
bool admitFromOwnPage(const HttpRequest& req, HttpResponse& res) {
    if (fromOwnPage(req))
        return true;
    res.status = 403;
    return false;
}

}  // namespace

void installWebSessions(HttpServer& server, NotesStore& store, LoginLimiter& throttle,
                        HashPool& hashing, NoteEvents& events, qint64 maxNoteBase64Bytes) {
    auto web = std::make_shared<WebSessions>(store, throttle, hashing, events, maxNoteBase64Bytes);
    using Handler = void (WebSessions::*)(const HttpRequest&, HttpResponse&);
    auto add = [&](const char* method, const char* path, Handler handler,
                   std::size_t bodyLimit = 0) {
        server.addRoute({method, path, bodyLimit, &admitFromOwnPage,
                         [web, handler](const HttpRequest& req, HttpResponse& res) {
                             ((*web).*handler)(req, res);
                         }});
    };
    add("POST", "/web/sign-in", &WebSessions::signIn, kMaxSignInBodyBytes);
    add("GET", "/web/me", &WebSessions::me);
    add("POST", "/web/sign-out", &WebSessions::signOut);
    add("GET", "/web/devices", &WebSessions::devices);
    add("POST", "/web/devices/end", &WebSessions::endDevice);
    add("POST", "/web/sign-out-everywhere", &WebSessions::signOutEverywhere);
    add("POST", "/web/append", &WebSessions::append, kMaxShareBodyBytes);
}

}  // namespace notes
