// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <functional>
#include <optional>

#include "service/Credentials.h"
#include "service/HashPool.h"
#include "service/HttpServer.h"
#include "service/NotesStore.h"

namespace notes {

// The cookie that carries a web page's device session. The page's script never sees it.
// Over HTTPS it has the __Host- prefix, with which a browser keeps it only when it is Secure,
// for the whole site and for this host alone (no Domain), so that no other site under the same
// name, nor anything on plain HTTP, can set one in its place. Browsers refuse such a cookie
// over plain HTTP, which keeps the plain name (on loopback, the only place plain HTTP is
// served). Each name counts only in its own setting.
inline constexpr char kDeviceCookie[] = "ferrybox_device";
inline constexpr char kSecureDeviceCookie[] = "__Host-ferrybox_device";
const char* deviceCookieName(const HttpRequest& req);

// Whether the request comes from this service's own page: it carries the page's header, which
// a page of another site cannot send without a CORS preflight (never granted here), and no
// browser says it came from elsewhere. A device session's cookie counts only on such requests.
bool fromOwnPage(const HttpRequest& req);

// The value of the named cookie, or a null string.
QString cookie(const HttpRequest& req, const char* name);

// The device session the request's cookie stands for, when it came from the page.
std::optional<DeviceSession> deviceSessionOf(const HttpRequest& req, NotesStore& store);

// What the request acts by: the API's auth=TOKEN&email=ADDRESS in the query, or, without
// those, the web page's device session. nullopt when neither stands for a live session.
std::optional<Access> authorisedAccess(const HttpRequest& req, NotesStore& store);

// A password login of address from the request's client: the account, or the status to answer
// (401 wrong, 429 too many attempts from there, 503 no room to check it now, or the database
// away). The password is checked on the hashing pool, never on the request's worker, and done
// is called there (or at once, on this thread, when the attempt is refused before any hashing).
// Failures are counted against address and client together, and against the client alone; an
// unknown address costs as much as a known one.
struct LoginResult {
    std::optional<User> user;
    int status = 200;
};
void checkLogin(const HttpRequest& req, NotesStore& store, LoginLimiter& throttle, HashPool& pool,
                const QString& email, const QString& password,
                std::function<void(LoginResult)> done);

// The answer for a login that did not let the client in: its status, and when to come back.
HttpResponse refusedLogin(const LoginResult& login);

}  // namespace notes
