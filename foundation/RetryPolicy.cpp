// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/RetryPolicy.h"

#include <QLocale>
#include <QTimeZone>
#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace foundation {

RetryTimings RetryTimings::standard() {
    RetryTimings timings;
    const QByteArray patience = qgetenv("FERRYBOX_DOWNLOAD_PATIENCE");
    bool ok = false;
    const double seconds = patience.toDouble(&ok);
    if (ok && seconds >= 0 && std::isfinite(seconds))
        timings.giveUpSeconds = seconds;
    return timings;
}

double RetryTimings::waitBefore(int attempt, double random01) const {
    const double doubled = firstWaitSeconds * std::pow(2.0, std::clamp(attempt - 1, 0, 30));
    const double wait = std::min(doubled, longestWaitSeconds);
    return wait + wait * 0.25 * std::clamp(random01, 0.0, 1.0);
}

bool isTransientStatus(int statusCode) {
    switch (statusCode) {
        case 408:
        case 425:
        case 429:
        case 500:
        case 502:
        case 503:
        case 504:
            return true;
        default:
            return false;
    }
}

std::optional<double> retryAfterSeconds(const QByteArray& value, const QDateTime& now) {
    const QByteArray text = value.trimmed();
    if (text.isEmpty())
        return std::nullopt;
    bool ok = false;
    const qlonglong seconds = text.toLongLong(&ok);
    if (ok)
        return seconds >= 0 ? std::optional<double>(double(seconds)) : std::nullopt;
    // IMF-fixdate, the form HTTP dates are sent in: "Sun, 06 Nov 1994 08:49:37 GMT".
    QDateTime when = QLocale::c().toDateTime(QString::fromLatin1(text.left(29)),
                                             QStringLiteral("ddd, dd MMM yyyy HH:mm:ss 'GMT'"));
    if (!when.isValid())
        return std::nullopt;
    when.setTimeZone(QTimeZone::utc());
    return std::max(0.0, double(now.msecsTo(when)) / 1000.0);
}

}  // namespace foundation
