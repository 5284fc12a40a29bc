// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

namespace foundation {

// A path with a leading "~" (alone or before "/") made absolute in the user's home folder;
// any other path as it is.
QString expandingTildeInPath(const QString& path);

}  // namespace foundation
