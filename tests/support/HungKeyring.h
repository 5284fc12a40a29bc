// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>
#include <QString>
#include <memory>

namespace testsupport {

// A Secret Service that takes every call and answers none, as a keyring stuck behind a prompt
// or a hung daemon does: it owns org.freedesktop.secrets on the session bus (the test process's
// private one), on a connection of its own, with its object in a thread that never looks at its
// events. Stop PrivateKeyring first: the name is not taken from a running keyring. On another
// bus (a second PrivateSessionBus's, given by its address) it stands beside the running one.
class HungKeyring {
public:
    explicit HungKeyring(
        const QString& busAddress = qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS"));
    ~HungKeyring();
    HungKeyring(const HungKeyring&) = delete;
    HungKeyring& operator=(const HungKeyring&) = delete;

    bool isRegistered() const { return registered_; }

private:
    struct Thread;
    QString connectionName_;
    std::unique_ptr<Thread> thread_;
    std::unique_ptr<QObject> silent_;
    bool registered_ = false;
};

}  // namespace testsupport
