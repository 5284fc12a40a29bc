// SPDX-License-Identifier: GPL-3.0-or-later
#include "client/JsonBody.h"

#include "Classes/TWJSON/TWJSON.h"
#include "foundation/Utf8.h"

std::optional<TWJsonValue> jsonFromBody(const QByteArray& body) {
    TWJSON json;
    return json.objectWithString(foundation::strictUtf8(body));
}
