// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/Assert.h"

#include "foundation/Log.h"

namespace foundation {

void failAssertion(const QString& message, const char* method, const char* source, int line) {
    log(QStringLiteral("*** Assertion failure in %1, %2:%3")
            .arg(QLatin1String(method), QLatin1String(source))
            .arg(line));
    throw AssertionFailure(message.toStdString());
}

}  // namespace foundation
