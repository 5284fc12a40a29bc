// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QSettings>

namespace foundation {

// A typed INI dialect for QSettings: strings are written in double quotes, numbers and booleans
// bare, so a value reads back with the type it was written with ("10" stays a string, 10 a
// number).
QSettings::Format typedIniFormat();

}  // namespace foundation
