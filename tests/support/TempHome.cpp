// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/support/TempHome.h"

#include <QDir>

#include "foundation/UserDefaults.h"

namespace testsupport {

TempHome::TempHome() {
    setVariable("HOME", path());
    setVariable("XDG_CONFIG_HOME", path() + QStringLiteral("/.config"));
    setVariable("XDG_DATA_HOME", path() + QStringLiteral("/.local/share"));
    setVariable("XDG_CACHE_HOME", path() + QStringLiteral("/.cache"));
    foundation::UserDefaults::resetStandardUserDefaults();
}

TempHome::~TempHome() {
    for (const auto& [name, value] : saved_) {
        if (value) {
            qputenv(name.constData(), *value);
        } else {
            qunsetenv(name.constData());
        }
    }
    foundation::UserDefaults::resetStandardUserDefaults();
}

QString TempHome::configFile() const {
    return foundation::UserDefaults::defaultFilePath();
}

void TempHome::setVariable(const char* name, const QString& value) {
    if (!saved_.count(name)) {
        saved_[name] =
            qEnvironmentVariableIsSet(name) ? std::optional(qgetenv(name)) : std::nullopt;
    }
    qputenv(name, value.toUtf8());
}

}  // namespace testsupport
