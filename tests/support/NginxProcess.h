// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

#include "tests/support/QtPrinters.h"

namespace testsupport {

// Debian's nginx serving a folder of files on a free loopback port, with a configuration and
// all its working files of its own in a temporary folder.
class NginxProcess {
public:
    NginxProcess();
    ~NginxProcess();
    NginxProcess(const NginxProcess&) = delete;
    NginxProcess& operator=(const NginxProcess&) = delete;

    bool isRunning() const { return running_; }
    QString baseUrl() const;  // "http://127.0.0.1:PORT"
    // The folder it serves; files put there are served under their names.
    QString root() const { return dir_.path() + QStringLiteral("/files"); }
    // Writes a file of size bytes (a pattern that is not all one byte) into the root.
    QString addFile(const QString& name, qint64 size);

private:
    QTemporaryDir dir_;
    QProcess process_;
    int port_ = 0;
    bool running_ = false;
};

}  // namespace testsupport
