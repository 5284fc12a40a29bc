// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>

// Three generated documents of the usual real-world shapes, the same on every run.
namespace jsonbench {

// A social feed: posts full of strings, escapes and non-ASCII text.
std::string feedDocument();
// A shop catalog: nested objects of integers and short strings.
std::string catalogDocument();
// Map features: long arrays of floating-point coordinates.
std::string coordinatesDocument();

}  // namespace jsonbench
