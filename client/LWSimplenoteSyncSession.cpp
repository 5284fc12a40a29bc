// SPDX-License-Identifier: GPL-3.0-or-later
#include "client/LWSimplenoteSyncSession.h"

#include "foundation/NotificationCenter.h"

std::shared_ptr<LWSimplenoteSyncSession> LWSimplenoteSyncSession::create() {
    return std::shared_ptr<LWSimplenoteSyncSession>(new LWSimplenoteSyncSession());
}

LWSimplenoteSyncSession::~LWSimplenoteSyncSession() {
    foundation::NotificationCenter::defaultCenter().removeObserversForSender(this);
}

void LWSimplenoteSyncSession::beginWithTotalItemCount(qint64 totalItems) {
    completedItems_ = 0;
    failedItems_ = 0;
    totalItems_ = totalItems;
    errors_.clear();
    status_ = LWSimplenoteSyncStatus::inProgressStatus();
    post("LWSimplenoteSyncBeginNotification");
}

void LWSimplenoteSyncSession::replaceCompleted(qint64 completed, qint64 failed) {
    completedItems_ = completed;
    failedItems_ = failed;
    inProgress();
}

void LWSimplenoteSyncSession::updateCompleted(qint64 completed, qint64 failed) {
    completedItems_ += completed;
    failedItems_ += failed;
    inProgress();
}

void LWSimplenoteSyncSession::settleStatus() {
    status_ = errors_.empty() && failedItems_ == 0
                  ? LWSimplenoteSyncStatus::completeStatus()
                  : LWSimplenoteSyncStatus::completeWithErrorsStatus();
}

void LWSimplenoteSyncSession::inProgress() {
    settleStatus();
    post("LWSimplenoteSyncProgressNotification");
}

void LWSimplenoteSyncSession::complete() {
    settleStatus();
    post("LWSimplenoteSyncCompleteNotification");
}

bool LWSimplenoteSyncSession::allItemsComplete() const {
    return completedItems_ + failedItems_ == totalItems_;
}

void LWSimplenoteSyncSession::post(const char* name) {
    foundation::NotificationCenter::defaultCenter().post(
        QLatin1String(name), this, {{QStringLiteral("session"), shared_from_this()}});
}
