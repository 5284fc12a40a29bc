// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "service/HttpServer.h"

namespace notes {

// Names and values in the order sent, each name once (its first value).
using Query = std::vector<std::pair<QString, QString>>;

// The query string as the client wrote it: "&"-separated pairs, %XX decoded, "+" kept. A name
// without "=" has the empty value, not none; of a name given twice, the first value counts.
Query rawQuery(const HttpRequest& req);
// Null when the name is absent.
QString queryValue(const Query& query, const char* name);

// One value of an application/x-www-form-urlencoded text (a form body, or the query a browser
// makes of a form such as the share target's: "+" is a blank there), or null.
QString formValue(const std::string& form, const char* name);

// A note version as a client names it (a header, a form value): digits only, at least 1;
// nothing for anything else, a null text included.
std::optional<qint64> parseVersion(const QString& text);

}  // namespace notes
