// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/PgLoginLimiter.h"

#include "service/PgConnections.h"

namespace notes {

bool PgLoginLimiter::allowed(const Key& who) {
    auto lease = connections_.take();
    const PgResult count = lease.run(
        "SELECT count(*) FROM login_failures WHERE email = $1 AND address = $2 "
        "AND at > clock_timestamp() - interval '60 seconds'",
        PgParams().add(who.email).add(who.clientAddress));
    return count.integer(0, 0) < kMaxFailures;
}

void PgLoginLimiter::failed(const Key& who) {
    auto lease = connections_.take();
    lease.run(
        "WITH forgotten AS (DELETE FROM login_failures "
        "  WHERE at <= clock_timestamp() - interval '60 seconds') "
        "INSERT INTO login_failures (email, address) VALUES ($1, $2)",
        PgParams().add(who.email).add(who.clientAddress));
}

void PgLoginLimiter::succeeded(const Key& who) {
    auto lease = connections_.take();
    lease.run("DELETE FROM login_failures WHERE email = $1 AND address = $2",
              PgParams().add(who.email).add(who.clientAddress));
}

}  // namespace notes
