// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <map>

#include "service/HttpServer.h"

namespace notes {

using Query = std::map<QString, QString>;

// The query string as the client wrote it: "&"-separated pairs, %XX decoded, "+" kept. A name
// without "=" has the empty value, not none.
Query rawQuery(const HttpRequest& req);
// Null when the name is absent.
QString queryValue(const Query& query, const char* name);

}  // namespace notes
