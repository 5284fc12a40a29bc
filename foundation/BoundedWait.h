// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <functional>

namespace foundation {

// Runs work on a thread of its own and waits for it at most timeoutMs: for a call into another
// process that usually answers at once but may hang (a keyring behind a prompt, a stuck daemon).
// While it waits, the event loop goes on for everything but the person's input, with the
// default run-loop mode held as under a modal alert: the desktop keeps showing the agent, and
// none of the agent's own work runs in between. Answers false when the work did not finish in
// time; it then finishes unobserved, and so must touch only what it owns.
bool runWithin(int timeoutMs, std::function<void()> work);

}  // namespace foundation
