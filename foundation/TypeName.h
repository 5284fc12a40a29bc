// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <typeinfo>

namespace foundation {

// The source-code name of a type, namespaces included ("std::out_of_range").
QString demangledTypeName(const std::type_info& type);

// The type of the exception being handled, inside a catch block; empty outside one.
QString currentExceptionTypeName();

}  // namespace foundation
