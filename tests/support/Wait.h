// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <functional>

#include "foundation/RunLoop.h"
#include "tests/support/QtPrinters.h"

namespace testsupport {

// Runs the event loop until pred() holds; false after timeoutMs.
inline bool waitUntil(const std::function<bool()>& pred, int timeoutMs = 5000) {
    return foundation::RunLoop::runUntil(pred, timeoutMs);
}

// Runs the event loop for a while so that anything that would happen has a chance to.
inline void settle(int ms = 100) {
    foundation::RunLoop::runUntil([] { return false; }, ms);
}

}  // namespace testsupport
