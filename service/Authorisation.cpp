// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/Authorisation.h"

#include "service/Credentials.h"
#include "service/RequestQuery.h"

namespace notes {

std::optional<qint64> authorisedAccount(const HttpRequest& req, NotesStore& store) {
    const Query query = rawQuery(req);
    const QString token = queryValue(query, "auth");
    const QString email = queryValue(query, "email");
    if (token.isEmpty() || email.isEmpty())
        return std::nullopt;
    return store.userForToken(tokenHash(token), email, nowMicros());
}

}  // namespace notes
