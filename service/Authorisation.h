// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <optional>

#include "service/Credentials.h"
#include "service/HttpServer.h"
#include "service/NotesStore.h"

namespace notes {

// The cookie that carries a web page's device session. The page's script never sees it.
inline constexpr char kDeviceCookie[] = "ferrybox_device";

// Whether the request comes from this service's own page: it carries the page's header, which
// a page of another site cannot send without a CORS preflight (never granted here), and no
// browser says it came from elsewhere. A device session's cookie counts only on such requests.
bool fromOwnPage(const HttpRequest& req);

// The value of the named cookie, or a null string.
QString cookie(const HttpRequest& req, const char* name);

// The device session the request's cookie stands for, when it came from the page.
std::optional<DeviceSession> deviceSessionOf(const HttpRequest& req, NotesStore& store);

// The account a request acts for: the API's auth=TOKEN&email=ADDRESS in the query, or, without
// those, the web page's device session. nullopt when neither stands for a live session.
std::optional<qint64> authorisedAccount(const HttpRequest& req, NotesStore& store);

// A password login of address from the request's client: the account, or the status to answer
// (401 wrong, 429 too many attempts from there). Failures are counted against address and
// client together, and an unknown address costs as much as a known one.
struct LoginResult {
    std::optional<User> user;
    int status = 200;
};
LoginResult checkLogin(const HttpRequest& req, NotesStore& store, LoginLimiter& throttle,
                       const QString& email, const QString& password);

}  // namespace notes
