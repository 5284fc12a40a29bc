// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "service/Credentials.h"

namespace notes {

class PgConnections;

// Failed logins counted in the database (table login_failures), so that guesses spread over
// several nodes add up, timed by the database's clock, which every node shares. A failure is
// forgotten after a minute.
class PgLoginLimiter : public LoginLimiter {
public:
    explicit PgLoginLimiter(PgConnections& connections) : connections_(connections) {}
    bool attempt(const Key& who) override;
    void succeeded(const Key& who) override;
    void withdraw(const Key& who) override;

private:
    PgConnections& connections_;
};

}  // namespace notes
