// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <stdexcept>

namespace foundation {

// A broken promise of the program to itself, raised loudly and with its message in every build
// type, as the platform's assertions are. What catches it (the run loop, a test) decides what
// follows.
class AssertionFailure : public std::logic_error {
public:
    using std::logic_error::logic_error;
};

// Logs "*** Assertion failure in METHOD, SOURCE:LINE" and throws AssertionFailure(message).
[[noreturn]] void failAssertion(const QString& message, const char* method, const char* source,
                                int line);

}  // namespace foundation
