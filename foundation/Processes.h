// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QtGlobal>

namespace foundation {

// When the process with this id started, in seconds since the epoch; 0 when it cannot be told.
double processStartTime(qint64 pid);
// Whether a process that was running at time `when` (seconds since the epoch) with this id still
// runs: a process of that id that started after `when` is another one given the id later.
bool processStillRuns(qint64 pid, double when);

}  // namespace foundation
