// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QDateTime>
#include <QString>
#include <optional>

// The service's dates, "2010-03-05 12:34:56.123456", read in the machine's local time zone. Any
// other text gives no date. The fraction keeps its milliseconds.
std::optional<QDateTime> noteDateFromString(const QString& text);
