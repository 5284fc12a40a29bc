// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/support/AgentEnvironment.h"

namespace testsupport {

QProcessEnvironment agentEnvironment(const QString& home, const QString& apiUrl) {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("HOME", home);
    env.insert("XDG_CONFIG_HOME", home + "/.config");
    env.insert("XDG_DATA_HOME", home + "/.local/share");
    env.insert("XDG_CACHE_HOME", home + "/.cache");
    if (apiUrl.isEmpty())
        env.remove("FERRYBOX_API_URL");
    else
        env.insert("FERRYBOX_API_URL", apiUrl);
    env.remove("FERRYBOX_PASSWORD_FILE");
    env.remove("FERRYBOX_DOWNLOAD_PATIENCE");
    return env;
}

}  // namespace testsupport
