// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <sys/types.h>
#include <QString>

namespace testsupport {

// A D-Bus session bus of the test process's own: a dbus-daemon that activates no services,
// whose address is put into DBUS_SESSION_BUS_ADDRESS. Qt connects to the session bus once per
// process, so make it before anything can reach for the bus. The daemon dies with the process,
// even one that crashes. A second one, made with becomeTheSessionBus false, leaves the
// environment alone: a bus for a child process whose world differs from the test's.
class PrivateSessionBus {
public:
    explicit PrivateSessionBus(bool becomeTheSessionBus = true);
    ~PrivateSessionBus();
    PrivateSessionBus(const PrivateSessionBus&) = delete;
    PrivateSessionBus& operator=(const PrivateSessionBus&) = delete;

    // Empty when the daemon could not be started (the tests that need it then fail clearly).
    QString address() const { return address_; }

private:
    pid_t pid_ = -1;
    QString address_;
};

}  // namespace testsupport
