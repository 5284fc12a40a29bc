// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <optional>

#include "Classes/TWJSON/TWJsonValue.h"

// A response body parsed as JSON through the facade: decoded as UTF-8 first (a body that is not
// UTF-8 decodes to nothing, which the facade takes as no input; a byte-order mark is kept and
// refused by the parser like any other byte that is not JSON). Nothing when it does not parse.
std::optional<TWJsonValue> jsonFromBody(const QByteArray& body);
