// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QProcess>

namespace testsupport {

// Asks a server process to stop, and kills it when it does not within five seconds.
inline void stopProcess(QProcess& process) {
    if (process.state() == QProcess::NotRunning)
        return;
    process.terminate();
    if (!process.waitForFinished(5000))
        process.kill();
    process.waitForFinished(2000);
}

}  // namespace testsupport
