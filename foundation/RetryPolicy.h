// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <optional>

namespace foundation {

// How long a transfer waits between attempts and when it gives up. The waits double from the
// first to the longest, each with up to a quarter of it added at random so that many transfers
// from one server do not come back at the same moment; a transfer that gets no further for
// giveUpSeconds (the time the network was down not counted) fails.
struct RetryTimings {
    double firstWaitSeconds = 1.0;
    double longestWaitSeconds = 60.0;
    double giveUpSeconds = 600.0;

    // The built-in timings; FERRYBOX_DOWNLOAD_PATIENCE=SECONDS sets how long to try without
    // progress (0: never retry), for scripts and tests that cannot wait ten minutes.
    static RetryTimings standard();
    // The wait before attempt number `attempt` (1 for the first retry), random01 in [0, 1).
    double waitBefore(int attempt, double random01) const;
};

// Statuses that say "not now" rather than "never": a request timed out or came too early, too
// many requests, or a server or gateway that is down for a moment.
bool isTransientStatus(int statusCode);

// A Retry-After value (delay-seconds or an HTTP date) as seconds from now; none when it is
// neither. A date in the past is no wait.
std::optional<double> retryAfterSeconds(const QByteArray& value, const QDateTime& now);

}  // namespace foundation
