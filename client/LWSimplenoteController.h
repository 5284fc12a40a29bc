// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <memory>
#include <vector>

#include "client/LWSimplenoteIndex.h"
#include "client/LWSimplenoteLogin.h"
#include "client/LWSimplenoteSyncSession.h"
#include "foundation/NotificationCenter.h"

// Fetches the whole account: logs in, pulls the index, pulls every listed note, and reports the
// run through its session. One per process.
//
// The target given to syncWithTarget() is registered for the sync notifications as sent by the
// controller, but the session sends them: the target is never called. Whoever wants them
// listens to the session. A failed login, a failed index pull, a note pull that fails last, or
// an empty index leave the sync unfinished; notes and the failure count carry over to the next
// sync.
class LWSimplenoteController {
public:
    static LWSimplenoteController* sharedController();
    // Makes the one controller; nothing once it exists.
    static LWSimplenoteController* alloc();

    LWSimplenoteController(const LWSimplenoteController&) = delete;
    LWSimplenoteController& operator=(const LWSimplenoteController&) = delete;

    void syncWithTarget(const void* target, foundation::NotificationCenter::Block begin,
                        foundation::NotificationCenter::Block complete,
                        foundation::NotificationCenter::Block progress, bool inBackground);
    void prepareSync();
    void performSync();
    void finishSync();

    void loginSucceeded(const foundation::Notification& notification);
    void loginFailed(const foundation::Notification& notification);
    void indexPullSucceeded(const foundation::Notification& notification);
    void indexPullFailed(const foundation::Notification& notification);
    void notePullSucceeded(const foundation::Notification& notification);
    void notePullFailed(const foundation::Notification& notification);

    const std::shared_ptr<LWSimplenoteLogin>& login();
    const std::shared_ptr<LWSimplenoteIndex>& index();
    std::vector<std::shared_ptr<LWSimplenote>>& notes() { return notes_; }
    const std::shared_ptr<LWSimplenoteSyncSession>& session() const { return session_; }
    bool indexPullError() const { return indexPullError_; }
    qint64 notePullErrorCount() const { return notePullErrorCount_; }

private:
    LWSimplenoteController();

    std::shared_ptr<LWSimplenoteLogin> login_;
    std::shared_ptr<LWSimplenoteIndex> index_;
    std::vector<std::shared_ptr<LWSimplenote>> notes_;
    std::shared_ptr<LWSimplenoteSyncSession> session_;
    bool indexPullError_ = false;
    qint64 notePullErrorCount_ = 0;
};
