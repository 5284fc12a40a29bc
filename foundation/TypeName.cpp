// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/TypeName.h"

#include <cxxabi.h>

#include <cstdlib>

namespace foundation {

QString demangledTypeName(const std::type_info& type) {
    int status = 0;
    char* demangled = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
    const QString name = QString::fromLatin1(status == 0 && demangled ? demangled : type.name());
    std::free(demangled);
    return name;
}

QString currentExceptionTypeName() {
    const std::type_info* type = abi::__cxa_current_exception_type();
    return type ? demangledTypeName(*type) : QString();
}

}  // namespace foundation
