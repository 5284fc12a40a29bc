// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QProcess>
#include <QTemporaryDir>

#include "tests/support/QtPrinters.h"

namespace testsupport {

// A real Secret Service for the tests: gnome-keyring-daemon on the test process's private
// session bus, with keyrings of its own in a temporary folder and its login keyring unlocked
// with a test password. Start it before the code under test first asks the keyring.
class PrivateKeyring {
public:
    // The one keyring of this process, started on first use.
    static PrivateKeyring& shared();

    bool isRunning() const { return running_; }
    // Deletes every item of every keyring.
    void clear();
    // Stops the daemon: the keyring is no longer reachable.
    void stop();
    // Unlocks the login keyring with the test password, as the desktop's login does.
    bool unlockLoginKeyring();
    bool isLoginKeyringLocked();
    // The login collection's path.
    static QString loginCollection();
    // Makes the collection at this path the default one; an empty path leaves none the default.
    bool setDefaultCollection(const QString& path);

private:
    PrivateKeyring();
    ~PrivateKeyring();

    QTemporaryDir dir_;
    QProcess daemon_;
    bool running_ = false;
};

}  // namespace testsupport
