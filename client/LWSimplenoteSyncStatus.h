// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

// The six states of a sync session. Each is one shared instance, compared by identity.
class LWSimplenoteSyncStatus {
public:
    static const LWSimplenoteSyncStatus* notStartedStatus();
    static const LWSimplenoteSyncStatus* completeStatus();
    static const LWSimplenoteSyncStatus* completeWithErrorsStatus();
    static const LWSimplenoteSyncStatus* inProgressStatus();
    static const LWSimplenoteSyncStatus* inProgressWithErrorsStatus();
    static const LWSimplenoteSyncStatus* failedStatus();

    QString name() const { return name_; }

    LWSimplenoteSyncStatus(const LWSimplenoteSyncStatus&) = delete;
    LWSimplenoteSyncStatus& operator=(const LWSimplenoteSyncStatus&) = delete;

private:
    explicit LWSimplenoteSyncStatus(const char* name) : name_(QLatin1String(name)) {}
    QString name_;
};
