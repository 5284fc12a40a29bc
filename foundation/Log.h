// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <QStringList>

namespace foundation {

// The system log: one plain line each to syslog (ident "Ferrybox") and to standard error.
void log(const QString& line);

// While alive, records every logged line (tests read them back). Captures nest.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    QStringList lines() const;
    bool contains(const QString& line) const { return lines().contains(line); }

private:
    QStringList* lines_;
};

}  // namespace foundation
