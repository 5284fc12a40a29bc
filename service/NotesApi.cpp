// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/NotesApi.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "Classes/TWJSON/TWJsonWriter.h"
#include "foundation/Utf8.h"
#include "service/Authorisation.h"
#include "service/HttpServer.h"
#include "service/NoteEvents.h"
#include "service/RequestQuery.h"
#include "service/WebSessions.h"

namespace notes {

namespace {

// The longest address mail allows; anything longer is refused before any work is done on it.
constexpr qsizetype kMaxEmailBytes = 254;
// An address and a password in base64, with room to spare.
constexpr std::size_t kMaxLoginBodyBytes = 4096;

void answer(HttpResponse& res, int status, const QString& body = QString()) {
    res.status = status;
    res.body = body.toUtf8().toStdString();
}

void answerJson(HttpResponse& res, const TWJsonValue& json) {
    TWJsonWriter writer;
    res.status = 200;
    res.body = writer.stringWithObject(json).toUtf8().toStdString();
    res.contentType = "application/json; charset=utf-8";
}

// Base64 of UTF-8 text; null when the body is either not base64 or not UTF-8 text underneath.
QString decodeBase64Text(const std::string& body) {
    // Line breaks and blanks are allowed between the characters: many encoders wrap their
    // output at 76 columns.
    QByteArray text = QByteArray::fromStdString(body);
    text.removeIf([](char c) { return c == '\r' || c == '\n' || c == ' ' || c == '\t'; });
    const auto result =
        QByteArray::fromBase64Encoding(text, QByteArray::AbortOnBase64DecodingErrors);
    if (!result)
        return QString();
    const QString decoded = foundation::strictUtf8(result.decoded);
    // A note is text: a NUL character is none, and PostgreSQL's text cannot hold one.
    return decoded.contains(QChar(0)) ? QString() : decoded;
}

// Text that can stand as one line of a note: not empty, no line break of any kind (a carriage
// return would read as one elsewhere), and no NUL character, which PostgreSQL's text cannot hold.
bool isOneLine(const QString& text) {
    return !text.isEmpty() && !text.contains(QLatin1Char('\n')) &&
           !text.contains(QLatin1Char('\r')) && !text.contains(QChar(0));
}

// Bodies come as base64 under any content type but multipart, which no client of this API sends.
bool admitForm(const HttpRequest& req, HttpResponse& res) {
    if (req.contentType.rfind("multipart/", 0) != 0)
        return true;
    answer(res, 400);
    return false;
}

class Api {
public:
    Api(NotesStore& store, LoginLimiter& throttle, HashPool& hashing, NoteEvents& events,
        const ApiSettings& settings)
        : store_(store),
          throttle_(throttle),
          hashing_(hashing),
          events_(events),
          settings_(settings) {}

    void login(const HttpRequest& req, HttpResponse& res) {
        const QString form = decodeBase64Text(req.body);
        const qsizetype split = form.indexOf(QLatin1String("&password="));
        if (!form.startsWith(QLatin1String("email=")) || split < 0)
            return answer(res, 400);
        const QString email = form.mid(6, split - 6);
        const QString password = form.mid(split + 10);
        if (email.toUtf8().size() > kMaxEmailBytes)
            return answer(res, 400);
        // Answered once the password has been checked, off this worker.
        checkLogin(
            req, store_, throttle_, hashing_, email, password,
            [this, later = res.defer()](const LoginResult& login) {
                if (!login.user)
                    return later->answer(refusedLogin(login));
                HttpResponse granted;
                try {
                    const QString token = newToken();
                    store_.addToken(
                        login.user->id, tokenHash(token),
                        nowMicros() + std::chrono::microseconds(settings_.tokenLifetime).count());
                    answer(granted, 200, token);
                } catch (const std::exception&) {
                    granted = refusedLogin({std::nullopt, 503});
                }
                later->answer(granted);
            });
    }

    // The account the request acts for; nothing after a 401 is sent.
    std::optional<qint64> authorise(const HttpRequest& req, HttpResponse& res) {
        const auto access = authorisedAccess(req, store_);
        if (!access) {
            answer(res, 401);
            return std::nullopt;
        }
        return access->userId;
    }

    void index(const HttpRequest& req, HttpResponse& res) {
        const auto snapshot = store_.readSnapshot();
        const auto user = authorise(req, res);
        if (!user)
            return;
        TWJsonValue list = TWJsonValue::array();
        for (const Note& note : store_.index(*user)) {
            TWJsonValue entry = TWJsonValue::dictionary();
            entry.insert(QStringLiteral("key"), TWJsonValue::string(note.key));
            entry.insert(QStringLiteral("modify"),
                         TWJsonValue::string(formatMicros(note.modifyMicros)));
            entry.insert(QStringLiteral("create"),
                         TWJsonValue::string(formatMicros(note.createMicros)));
            entry.insert(QStringLiteral("deleted"), TWJsonValue::boolean(note.deleted));
            entry.insert(QStringLiteral("version"), TWJsonValue::number(note.version));
            list.append(std::move(entry));
        }
        answerJson(res, list);
    }

    void getNote(const HttpRequest& req, HttpResponse& res) {
        const auto snapshot = store_.readSnapshot();
        const Query query = rawQuery(req);
        const auto user = authorise(req, res);
        if (!user)
            return;
        const auto note = store_.note(*user, queryValue(query, "key"));
        if (!note)
            return answer(res, 404);
        res.headers = {
            {"Note-Key", note->key.toStdString()},
            {"Note-Modifydate", formatMicros(note->modifyMicros).toStdString()},
            {"Note-Createdate", formatMicros(note->createMicros).toStdString()},
            {"Note-Deleted", note->deleted ? "true" : "false"},
            {"Note-Version", std::to_string(note->version)},
        };
        answer(res, 200, note->text);
    }

    // Only an account holder may make the service read a large body.
    bool admitNote(const HttpRequest& req, HttpResponse& res) {
        return admitForm(req, res) && authorise(req, res).has_value();
    }

    void postNote(const HttpRequest& req, HttpResponse& res) {
        const Query query = rawQuery(req);
        const auto user = authorise(req, res);
        if (!user)
            return;
        const QString text = decodeBase64Text(req.body);
        if (text.isNull())
            return answer(res, 400);
        std::optional<qint64> base;
        if (const std::string* header = req.header("note-base-version")) {
            base = parseVersion(QString::fromStdString(*header));
            if (!base)
                return answer(res, 400);
        }
        QString key = queryValue(query, "key");
        qint64 version = 1;
        if (key.isNull()) {
            key = store_.createNote(*user, text, nowMicros());
        } else if (const auto written = store_.updateNote(*user, key, text, nowMicros(), base)) {
            version = written->version;
        } else {
            return answer(res, 404);
        }
        events_.noteChanged(*user, key);
        res.headers.emplace_back("Note-Version", std::to_string(version));
        answer(res, 200, key);
    }

    // One line added at the end of the newest note that begins with the header, made when
    // there is none, in one transaction: a client whose push could not carry the whole note
    // (or that must not write over links shared into it meanwhile) can still add to it.
    void appendLine(const HttpRequest& req, HttpResponse& res) {
        const Query query = rawQuery(req);
        const auto user = authorise(req, res);
        if (!user)
            return;
        const QString header = queryValue(query, "header");
        const QString line = decodeBase64Text(req.body);
        if (!isOneLine(header) || !isOneLine(line))
            return answer(res, 400);
        const Appended appended = store_.appendLine(*user, header, line, nowMicros(), std::nullopt,
                                                    settings_.maxBodyBytes);
        // No client could write such a note back whole.
        if (appended.tooLong)
            return answer(res, 413);
        if (appended.added)
            events_.noteChanged(*user, appended.key);
        res.headers.emplace_back("Note-Version", std::to_string(appended.version));
        answer(res, 200, appended.key);
    }

    void deleteNote(const HttpRequest& req, HttpResponse& res) {
        const Query query = rawQuery(req);
        const auto user = authorise(req, res);
        if (!user)
            return;
        const QString key = queryValue(query, "key");
        const bool forGood = queryValue(query, "dead") == QLatin1String("1");
        const bool found =
            forGood ? store_.purge(*user, key) : store_.markDeleted(*user, key, nowMicros());
        if (!found)
            return answer(res, 404);
        events_.noteChanged(*user, key);
        answer(res, 200, key);
    }

    void search(const HttpRequest& req, HttpResponse& res) {
        const auto snapshot = store_.readSnapshot();
        const Query query = rawQuery(req);
        const auto user = authorise(req, res);
        if (!user)
            return;
        const QString text = queryValue(query, "query");
        bool ok = false;
        int results = queryValue(query, "results").toInt(&ok);
        if (!ok || results <= 0)
            results = 10;
        results = std::min(results, 100);
        int offset = queryValue(query, "offset").toInt(&ok);
        if (!ok || offset < 0)
            offset = 0;

        TWJsonValue found = TWJsonValue::array();
        qint64 total = 0;
        for (const Note& note : store_.search(*user, text, results, offset, &total)) {
            TWJsonValue entry = TWJsonValue::dictionary();
            entry.insert(QStringLiteral("key"), TWJsonValue::string(note.key));
            entry.insert(QStringLiteral("content"), TWJsonValue::string(note.text));
            entry.insert(QStringLiteral("version"), TWJsonValue::number(note.version));
            found.append(std::move(entry));
        }
        TWJsonValue response = TWJsonValue::dictionary();
        response.insert(QStringLiteral("totalRecords"), TWJsonValue::number(total));
        response.insert(QStringLiteral("Results"), found);
        TWJsonValue top = TWJsonValue::dictionary();
        top.insert(QStringLiteral("Response"), response);
        answerJson(res, top);
    }

private:
    NotesStore& store_;
    LoginLimiter& throttle_;
    HashPool& hashing_;
    NoteEvents& events_;
    ApiSettings settings_;
};

}  // namespace

void installApi(HttpServer& server, NotesStore& store, LoginLimiter& throttle, HashPool& hashing,
                NoteEvents& events, const ApiSettings& settings) {
    auto api = std::make_shared<Api>(store, throttle, hashing, events, settings);
    using Handler = void (Api::*)(const HttpRequest&, HttpResponse&);
    using Admission = bool (*)(const HttpRequest&, HttpResponse&);
    auto add = [&](const char* method, const char* path, Handler handler, std::size_t bodyLimit = 0,
                   std::function<bool(const HttpRequest&, HttpResponse&)> admit = {}) {
        server.addRoute({method, path, bodyLimit, std::move(admit),
                         [api, handler](const HttpRequest& req, HttpResponse& res) {
                             ((*api).*handler)(req, res);
                         }});
    };
    add("POST", "/api/login", &Api::login, kMaxLoginBodyBytes, Admission(&admitForm));
    add("GET", "/api/index", &Api::index);
    add("GET", "/api/note", &Api::getNote);
    add("POST", "/api/note", &Api::postNote, static_cast<std::size_t>(settings.maxBodyBytes),
        [api](const HttpRequest& req, HttpResponse& res) { return api->admitNote(req, res); });
    add("POST", "/api/append", &Api::appendLine, static_cast<std::size_t>(settings.maxBodyBytes),
        [api](const HttpRequest& req, HttpResponse& res) { return api->admitNote(req, res); });
    add("GET", "/api/delete", &Api::deleteNote);
    add("GET", "/api/search", &Api::search);
    // The web page's sessions share the accounts, the slow-down, the password checks, the events
    // and the note body limit with the API.
    installWebSessions(server, store, throttle, hashing, events, settings.maxBodyBytes);
}

}  // namespace notes
