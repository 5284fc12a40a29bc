// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

// The password kept in a file: its first line without the line end. A file that other users can
// read is refused, since the password would not be a secret there.
struct PasswordFileResult {
    QString password;  // null on failure
    QString error;
};

PasswordFileResult readPasswordFile(const QString& path);
