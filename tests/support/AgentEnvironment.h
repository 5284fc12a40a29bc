// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QProcessEnvironment>
#include <QString>

namespace testsupport {

// The environment of an agent process that lives in a home of its own: its settings, its
// transfer journal and its downloads all under home, talking to the service at apiUrl (none
// when empty), with nothing of the test runner's own account or timings leaking in.
QProcessEnvironment agentEnvironment(const QString& home, const QString& apiUrl);

}  // namespace testsupport
