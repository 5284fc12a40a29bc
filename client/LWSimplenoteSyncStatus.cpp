// SPDX-License-Identifier: GPL-3.0-or-later
#include "client/LWSimplenoteSyncStatus.h"

// Function-local statics are made once, under the compiler's lock, whichever thread asks first.
#define FERRYBOX_SYNC_STATUS(function)                                 \
    const LWSimplenoteSyncStatus* LWSimplenoteSyncStatus::function() { \
        static const LWSimplenoteSyncStatus status(#function);         \
        return &status;                                                \
    }

FERRYBOX_SYNC_STATUS(notStartedStatus)
FERRYBOX_SYNC_STATUS(completeStatus)
FERRYBOX_SYNC_STATUS(completeWithErrorsStatus)
FERRYBOX_SYNC_STATUS(inProgressStatus)
FERRYBOX_SYNC_STATUS(inProgressWithErrorsStatus)
FERRYBOX_SYNC_STATUS(failedStatus)
