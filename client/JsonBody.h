#pragma once

#include <QByteArray>
#include <optional>

#include "Classes/TWJSON/TWJsonValue.h"

// A response body parsed as JSON through the facade: decoded as UTF-8 first (a body that is not
// UTF-8 decodes to nothing, which the facade takes as no input). Nothing when it does not parse.
std::optional<TWJsonValue> jsonFromBody(const QByteArray& body);

// The body as text; null when it is not valid UTF-8, empty (not null) when there are no bytes.
QString strictUtf8(const QByteArray& body);
