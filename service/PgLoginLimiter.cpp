// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/PgLoginLimiter.h"

#include "service/PgConnections.h"

namespace notes {

// Attempts from one address are decided one at a time, on every node: under this lock (the
// two-number form, whose first number no other lock of the service uses) the check and the
// count are one step.
bool PgLoginLimiter::attempt(const Key& who) {
    auto lease = connections_.take();
    PgTransaction transaction(lease);
    lease.run("SELECT pg_advisory_xact_lock(1179796019, hashtext($1))",
              PgParams().add(who.clientAddress));
    const PgResult counts = lease.run(
        "SELECT count(*) FILTER (WHERE email = $1), count(*) FROM login_failures "
        "WHERE address = $2 AND at > clock_timestamp() - interval '60 seconds'",
        PgParams().add(who.email).add(who.clientAddress));
    if (counts.integer(0, 0) >= kMaxFailures || counts.integer(0, 1) >= kMaxAddressFailures)
        return false;
    lease.run(
        "WITH forgotten AS (DELETE FROM login_failures "
        "  WHERE at <= clock_timestamp() - interval '60 seconds') "
        "INSERT INTO login_failures (email, address) VALUES ($1, $2)",
        PgParams().add(who.email).add(who.clientAddress));
    transaction.commit();
    return true;
}

void PgLoginLimiter::succeeded(const Key& who) {
    auto lease = connections_.take();
    lease.run("DELETE FROM login_failures WHERE email = $1 AND address = $2",
              PgParams().add(who.email).add(who.clientAddress));
}

void PgLoginLimiter::withdraw(const Key& who) {
    auto lease = connections_.take();
    lease.run(
        "DELETE FROM login_failures WHERE ctid = (SELECT ctid FROM login_failures "
        "WHERE email = $1 AND address = $2 ORDER BY at DESC LIMIT 1)",
        PgParams().add(who.email).add(who.clientAddress));
}

}  // namespace notes
