// SPDX-License-Identifier: GPL-3.0-or-later
#include "client/LWSimplenoteController.h"

#include <mutex>

#include "foundation/Log.h"

namespace {

std::mutex gInstanceLock;
LWSimplenoteController* gInstance = nullptr;

}  // namespace

LWSimplenoteController::LWSimplenoteController() : session_(LWSimplenoteSyncSession::create()) {}

LWSimplenoteController* LWSimplenoteController::alloc() {
    // Lives for the rest of the process.
    std::lock_guard lock(gInstanceLock);
    if (gInstance)
        return nullptr;
    gInstance = new LWSimplenoteController();
    return gInstance;
}

LWSimplenoteController* LWSimplenoteController::sharedController() {
    {
        std::lock_guard lock(gInstanceLock);
        if (gInstance)
            return gInstance;
    }
    alloc();
    std::lock_guard lock(gInstanceLock);
    return gInstance;
}

const std::shared_ptr<LWSimplenoteLogin>& LWSimplenoteController::login() {
    if (!login_)
        login_ = LWSNObject::create<LWSimplenoteLogin>();
    return login_;
}

const std::shared_ptr<LWSimplenoteIndex>& LWSimplenoteController::index() {
    if (!index_)
        index_ = LWSNObject::create<LWSimplenoteIndex>();
    return index_;
}

void LWSimplenoteController::syncWithTarget(const void* target,
                                            foundation::NotificationCenter::Block begin,
                                            foundation::NotificationCenter::Block complete,
                                            foundation::NotificationCenter::Block progress, bool) {
    auto& center = foundation::NotificationCenter::defaultCenter();
    center.addObserver(target, QStringLiteral("LWSimplenoteSyncBeginNotification"), this,
                       std::move(begin));
    center.addObserver(target, QStringLiteral("LWSimplenoteSyncCompleteNotification"), this,
                       std::move(complete));
    center.addObserver(target, QStringLiteral("LWSimplenoteSyncProgressNotification"), this,
                       std::move(progress));
    if (session_->status() != LWSimplenoteSyncStatus::notStartedStatus()) {
        session_ = LWSimplenoteSyncSession::create();
    }
    prepareSync();
}

void LWSimplenoteController::prepareSync() {
    session_->beginWithTotalItemCount(0);
    login()->addObserver(
        this, QStringLiteral("login"),
        [this](const foundation::Notification& n) { loginSucceeded(n); },
        [this](const foundation::Notification& n) { loginFailed(n); });
    login()->login();
}

void LWSimplenoteController::loginSucceeded(const foundation::Notification&) {
    index()->addObserver(
        this, QStringLiteral("pullFromRemote"),
        [this](const foundation::Notification& n) { indexPullSucceeded(n); },
        [this](const foundation::Notification& n) { indexPullFailed(n); });
    index()->pullFromRemote();
}

void LWSimplenoteController::loginFailed(const foundation::Notification& notification) {
    const foundation::Error* error = notification.value<foundation::Error>(QStringLiteral("error"));
    foundation::log(QStringLiteral("Login failed: %1")
                        .arg(error ? error->description() : QStringLiteral("(null)")));
}

void LWSimplenoteController::indexPullSucceeded(const foundation::Notification&) {
    indexPullError_ = false;
    // A copy: the index may be pulled again while these pulls run.
    const auto listed = index()->contents();
    for (const auto& note : listed) {
        note->addObserver(
            this, QStringLiteral("pullFromRemote"),
            [this](const foundation::Notification& n) { notePullSucceeded(n); },
            [this](const foundation::Notification& n) { notePullFailed(n); });
        note->pullFromRemote();
    }
}

void LWSimplenoteController::indexPullFailed(const foundation::Notification&) {
    indexPullError_ = true;
}

void LWSimplenoteController::notePullSucceeded(const foundation::Notification& notification) {
    if (auto pulled = LWSNObject::fromNotification<LWSimplenote>(notification))
        notes_.push_back(std::move(pulled));
    const auto listed = static_cast<qint64>(index()->contents().size());
    if (listed == static_cast<qint64>(notes_.size()) + notePullErrorCount_)
        performSync();
}

void LWSimplenoteController::notePullFailed(const foundation::Notification&) {
    ++notePullErrorCount_;
}

void LWSimplenoteController::performSync() {
    session_->updateCompleted(0, 0);
    finishSync();
}

void LWSimplenoteController::finishSync() {
    session_->complete();
}
