#include "service/NotesApi.h"

#include <httplib.h>

#include <QElapsedTimer>
#include <QUrl>
#include <map>

#include "Classes/TWJSON/TWJsonWriter.h"
#include "foundation/Log.h"

namespace notes {

namespace {

using Query = std::map<QString, QString>;

// The query string as the client wrote it: "&"-separated pairs, %XX decoded, "+" kept.
Query rawQuery(const httplib::Request& req) {
    Query query;
    const auto question = req.target.find('?');
    if (question == std::string::npos)
        return query;
    const QByteArray text = QByteArray::fromStdString(req.target.substr(question + 1));
    for (const QByteArray& pair : text.split('&')) {
        if (pair.isEmpty())
            continue;
        const qsizetype eq = pair.indexOf('=');
        const QByteArray name = eq < 0 ? pair : pair.left(eq);
        const QByteArray value = eq < 0 ? QByteArray() : pair.mid(eq + 1);
        query.emplace(QString::fromUtf8(QByteArray::fromPercentEncoding(name)),
                      QString::fromUtf8(QByteArray::fromPercentEncoding(value)));
    }
    return query;
}

QString value(const Query& query, const char* name) {
    auto it = query.find(QLatin1String(name));
    return it == query.end() ? QString() : it->second;
}

void answer(httplib::Response& res, int status, const QString& body = QString()) {
    res.status = status;
    res.set_content(body.toUtf8().toStdString(), "text/plain; charset=utf-8");
}

void answerJson(httplib::Response& res, const TWJsonValue& json) {
    TWJsonWriter writer;
    res.status = 200;
    res.set_content(writer.stringWithObject(json).toUtf8().toStdString(),
                    "application/json; charset=utf-8");
}

std::optional<QByteArray> decodeBase64(const std::string& body) {
    // Line breaks and blanks are allowed between the characters: many encoders wrap their
    // output at 76 columns.
    QByteArray text = QByteArray::fromStdString(body);
    text.removeIf([](char c) { return c == '\r' || c == '\n' || c == ' ' || c == '\t'; });
    const auto result =
        QByteArray::fromBase64Encoding(text, QByteArray::AbortOnBase64DecodingErrors);
    if (!result)
        return std::nullopt;
    return result.decoded;
}

class Api {
public:
    Api(NotesStore& store, LoginThrottle& throttle, const ApiSettings& settings)
        : store_(store), throttle_(throttle), settings_(settings) {}

    void login(const httplib::Request&, const std::string& body, httplib::Response& res) {
        const auto decoded = decodeBase64(body);
        const QString form = decoded ? QString::fromUtf8(*decoded) : QString();
        const qsizetype split = form.indexOf(QLatin1String("&password="));
        if (!form.startsWith(QLatin1String("email=")) || split < 0)
            return answer(res, 400);
        const QString email = form.mid(6, split - 6);
        const QString password = form.mid(split + 10);
        if (!throttle_.allowed(email))
            return answer(res, 429);
        const auto user = store_.userByEmail(email);
        // An unknown address costs the same hash as a known one, so timing tells nothing.
        static const QString decoy = hashPassword(QStringLiteral("decoy"));
        if (!verifyPassword(password, user ? user->passwordHash : decoy) || !user) {
            throttle_.failed(email);
            return answer(res, 401);
        }
        throttle_.succeeded(email);
        const QString token = newToken();
        store_.addToken(user->id, tokenHash(token),
                        nowMicros() + std::chrono::microseconds(settings_.tokenLifetime).count());
        answer(res, 200, token);
    }

    // The account the query's token and address stand for; nothing after a 401 is sent.
    std::optional<qint64> authorise(const Query& query, httplib::Response& res) {
        const QString token = value(query, "auth");
        const QString email = value(query, "email");
        std::optional<qint64> user;
        if (!token.isEmpty() && !email.isEmpty()) {
            user = store_.userForToken(tokenHash(token), email, nowMicros());
        }
        if (!user)
            answer(res, 401);
        return user;
    }

    void index(const httplib::Request& req, httplib::Response& res) {
        const Query query = rawQuery(req);
        const auto user = authorise(query, res);
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
            list.append(std::move(entry));
        }
        answerJson(res, list);
    }

    void getNote(const httplib::Request& req, httplib::Response& res) {
        const Query query = rawQuery(req);
        const auto user = authorise(query, res);
        if (!user)
            return;
        const auto note = store_.note(*user, value(query, "key"));
        if (!note)
            return answer(res, 404);
        res.set_header("Note-Key", note->key.toStdString());
        res.set_header("Note-Modifydate", formatMicros(note->modifyMicros).toStdString());
        res.set_header("Note-Createdate", formatMicros(note->createMicros).toStdString());
        res.set_header("Note-Deleted", note->deleted ? "true" : "false");
        answer(res, 200, note->text);
    }

    void postNote(const httplib::Request& req, const std::string& body, httplib::Response& res) {
        const Query query = rawQuery(req);
        const auto user = authorise(query, res);
        if (!user)
            return;
        const auto decoded = decodeBase64(body);
        if (!decoded)
            return answer(res, 400);
        const QString text = QString::fromUtf8(*decoded);
        const QString key = value(query, "key");
        if (key.isNull())
            return answer(res, 200, store_.createNote(*user, text, nowMicros()));
        if (!store_.updateNote(*user, key, text, nowMicros()))
            return answer(res, 404);
        answer(res, 200, key);
    }

    void deleteNote(const httplib::Request& req, httplib::Response& res) {
        const Query query = rawQuery(req);
        const auto user = authorise(query, res);
        if (!user)
            return;
        const QString key = value(query, "key");
        const bool forGood = value(query, "dead") == QLatin1String("1");
        const bool found =
            forGood ? store_.purge(*user, key) : store_.markDeleted(*user, key, nowMicros());
        if (!found)
            return answer(res, 404);
        answer(res, 200, key);
    }

    void search(const httplib::Request& req, httplib::Response& res) {
        const Query query = rawQuery(req);
        const auto user = authorise(query, res);
        if (!user)
            return;
        const QString text = value(query, "query");
        bool ok = false;
        int results = value(query, "results").toInt(&ok);
        if (!ok || results <= 0)
            results = 10;
        results = std::min(results, 100);
        int offset = value(query, "offset").toInt(&ok);
        if (!ok || offset < 0)
            offset = 0;

        TWJsonValue found = TWJsonValue::array();
        qint64 total = 0;
        for (const Note& note : store_.search(*user, text, results, offset, &total)) {
            TWJsonValue entry = TWJsonValue::dictionary();
            entry.insert(QStringLiteral("key"), TWJsonValue::string(note.key));
            entry.insert(QStringLiteral("content"), TWJsonValue::string(note.text));
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
    LoginThrottle& throttle_;
    ApiSettings settings_;
};

using Handler = void (Api::*)(const httplib::Request&, httplib::Response&);
using BodyHandler = void (Api::*)(const httplib::Request&, const std::string&, httplib::Response&);

// Runs work for one request and logs it: method, path without query, status, time taken.
template <typename Work>
void logged(const httplib::Request& req, httplib::Response& res, Work&& work) {
    QElapsedTimer clock;
    clock.start();
    try {
        work();
    } catch (const std::exception& e) {
        foundation::log(QStringLiteral("internal error: %1").arg(QString::fromUtf8(e.what())));
        answer(res, 500);
    }
    foundation::log(QStringLiteral("%1 %2 %3 %4 ms")
                        .arg(QString::fromStdString(req.method), QString::fromStdString(req.path))
                        .arg(res.status)
                        .arg(clock.nsecsElapsed() / 1e6, 0, 'f', 2));
}

}  // namespace

void installApi(httplib::Server& server, NotesStore& store, LoginThrottle& throttle,
                const ApiSettings& settings) {
    auto api = std::make_shared<Api>(store, throttle, settings);
    auto route = [api](Handler handler) {
        return [api, handler](const httplib::Request& req, httplib::Response& res) {
            logged(req, res, [&] { ((*api).*handler)(req, res); });
        };
    };
    // Bodies are read here rather than by the HTTP library, which refuses every form-encoded
    // body over 8 KiB, and clients of this API send their base64 under that content type.
    const std::size_t limit = static_cast<std::size_t>(settings.maxBodyBytes);
    auto routeWithBody = [api, limit](BodyHandler handler) {
        return [api, handler, limit](const httplib::Request& req, httplib::Response& res,
                                     const httplib::ContentReader& content) {
            logged(req, res, [&] {
                if (req.is_multipart_form_data())
                    return answer(res, 400);
                std::string body;
                const bool read = content([&body, limit](const char* data, std::size_t size) {
                    // Past the limit the rest is read and dropped, so the connection stays
                    // usable for the refusal and the requests after it.
                    if (body.size() <= limit)
                        body.append(data, std::min(size, limit + 1 - body.size()));
                    return true;
                });
                if (!read) {
                    res.set_header("Connection", "close");
                    return answer(res, res.status == 413 ? 413 : 400);
                }
                if (body.size() > limit)
                    return answer(res, 413);
                ((*api).*handler)(req, body, res);
            });
        };
    };
    server.Post("/api/login", routeWithBody(&Api::login));
    server.Get("/api/index", route(&Api::index));
    server.Get("/api/note", route(&Api::getNote));
    server.Post("/api/note", routeWithBody(&Api::postNote));
    server.Get("/api/delete", route(&Api::deleteNote));
    server.Get("/api/search", route(&Api::search));
}

}  // namespace notes
