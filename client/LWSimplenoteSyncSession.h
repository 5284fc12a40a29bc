// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <memory>
#include <vector>

#include "client/LWSimplenoteSyncStatus.h"
#include "foundation/Error.h"

// The record of one sync run: counts, errors and status. It posts the sync notifications
// ("LWSimplenoteSyncBeginNotification", "...ProgressNotification", "...CompleteNotification")
// with itself as sender and itself under "session".
//
// Progress and completion both set a complete status (never an in-progress one); nothing adds
// to errors.
class LWSimplenoteSyncSession : public std::enable_shared_from_this<LWSimplenoteSyncSession> {
public:
    static std::shared_ptr<LWSimplenoteSyncSession> create();
    ~LWSimplenoteSyncSession();

    void beginWithTotalItemCount(qint64 totalItems);
    void replaceCompleted(qint64 completed, qint64 failed);
    void updateCompleted(qint64 completed, qint64 failed);
    void inProgress();
    void complete();
    bool allItemsComplete() const;

    qint64 completedItems() const { return completedItems_; }
    void setCompletedItems(qint64 n) { completedItems_ = n; }
    qint64 failedItems() const { return failedItems_; }
    void setFailedItems(qint64 n) { failedItems_ = n; }
    qint64 totalItems() const { return totalItems_; }
    void setTotalItems(qint64 n) { totalItems_ = n; }
    const std::vector<foundation::Error>& errors() const { return errors_; }
    const LWSimplenoteSyncStatus* status() const { return status_; }
    void setStatus(const LWSimplenoteSyncStatus* status) { status_ = status; }

private:
    LWSimplenoteSyncSession() = default;
    void settleStatus();
    void post(const char* name);

    qint64 completedItems_ = 0;
    qint64 failedItems_ = 0;
    qint64 totalItems_ = 0;
    std::vector<foundation::Error> errors_;
    const LWSimplenoteSyncStatus* status_ = LWSimplenoteSyncStatus::notStartedStatus();
};
