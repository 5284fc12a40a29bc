// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/Authorisation.h"

#include <QStringList>

#include "service/RequestQuery.h"

namespace notes {

bool fromOwnPage(const HttpRequest& req) {
    const std::string* page = req.header("x-ferrybox-page");
    const std::string* site = req.header("sec-fetch-site");
    return page && *page == "1" && (!site || *site == "same-origin");
}

QString cookie(const HttpRequest& req, const char* name) {
    const std::string* header = req.header("cookie");
    if (!header)
        return QString();
    const QString wanted = QLatin1String(name) + QLatin1Char('=');
    for (const QString& pair : QString::fromUtf8(*header).split(QLatin1Char(';'))) {
        const QString trimmed = pair.trimmed();
        if (trimmed.startsWith(wanted))
            return trimmed.mid(wanted.size());
    }
    return QString();
}

const char* deviceCookieName(const HttpRequest& req) {
    return req.secure ? kSecureDeviceCookie : kDeviceCookie;
}

std::optional<DeviceSession> deviceSessionOf(const HttpRequest& req, NotesStore& store) {
    const QString token = cookie(req, deviceCookieName(req));
    if (token.isEmpty() || !fromOwnPage(req))
        return std::nullopt;
    return store.deviceSession(tokenHash(token), nowMicros());
}

std::optional<Access> authorisedAccess(const HttpRequest& req, NotesStore& store) {
    const Query query = rawQuery(req);
    const QString token = queryValue(query, "auth");
    const QString email = queryValue(query, "email");
    if (token.isNull() && email.isNull()) {
        if (const auto session = deviceSessionOf(req, store))
            return Access{session->userId, session->deviceId, {}, 0};
        return std::nullopt;
    }
    if (token.isEmpty() || email.isEmpty())
        return std::nullopt;
    return store.tokenAccess(tokenHash(token), email, nowMicros());
}

void checkLogin(const HttpRequest& req, NotesStore& store, LoginLimiter& throttle, HashPool& pool,
                const QString& email, const QString& password,
                std::function<void(LoginResult)> done) {
    const LoginLimiter::Key who{email, addressGroup(QString::fromStdString(req.clientAddress))};
    if (!throttle.attempt(who))
        return done({std::nullopt, 429});
    const bool queued = pool.submit([&store, &throttle, who, password, done] {
        LoginResult result{std::nullopt, 401};
        try {
            auto user = store.userByEmail(who.email);
            static const QString decoy = hashPassword(QStringLiteral("decoy"));
            if (verifyPassword(password, user ? user->passwordHash : decoy) && user) {
                throttle.succeeded(who);
                result = {std::move(user), 200};
            }
        } catch (const StoreUnavailable&) {
            result.status = 503;
        } catch (const std::exception&) {
            result.status = 500;
        }
        done(std::move(result));
    });
    if (!queued) {
        throttle.withdraw(who);
        done({std::nullopt, 503});
    }
}

HttpResponse refusedLogin(const LoginResult& login) {
    HttpResponse refusal;
    refusal.status = login.status;
    // Failures leave the count a minute after they were made; a full pool has room in moments.
    if (login.status == 429)
        refusal.headers.emplace_back("Retry-After", "60");
    else if (login.status == 503)
        refusal.headers.emplace_back("Retry-After", "1");
    return refusal;
}

}  // namespace notes
