// SPDX-License-Identifier: GPL-3.0-or-later
// Listening for the service's change events while the agent runs, so that a link saved into the
// download note from any device starts its download at once instead of at the next tick of the
// check timer. The timer stays exactly as it is: an event only fires it by hand, as "Check For
// Downloads Now" does, and only when the note that changed is the download note and holds a
// link. The agent's own push of the rewritten note (header and comments only) therefore starts
// nothing more. A service without events, a lost stream or a refused session never shows an
// alert or turns the agent off: the timer goes on checking at its interval.
#include <QPointer>
#include <algorithm>

#include "agent/AppController.h"
#include "client/LWSimplenote.h"
#include "client/LWSimplenoteEventStream.h"
#include "client/LWSimplenoteSearch.h"
#include "foundation/RunLoop.h"
#include "foundation/Timer.h"

namespace {

const QString kSearchSucceeded =
    QStringLiteral("LWSimplenoteSearchPullFromRemoteSuccessNotification");
const QString kSearchFailed = QStringLiteral("LWSimplenoteSearchPullFromRemoteFailureNotification");
const QString kPushSucceeded = QStringLiteral("LWSimplenotePushToRemoteSuccessNotification");
const QString kPushFailed = QStringLiteral("LWSimplenotePushToRemoteFailureNotification");
// A note action's transport failure goes out under its handler's name (see LWSimplenote).
const QString kPushFailedInTransport =
    QStringLiteral("LWSimplenotePushToRemote:FailureNotification");

// Longer than any check can take: its search and its push each give up after 60 seconds. Past
// this, a check whose end went unseen (it threw on the way) holds up no change any longer.
constexpr double kLongestCheckSeconds = 150.0;

// Whether a check would download anything from this text: it must begin with the search term.
bool holdsLinks(const QString& text, const QString& searchTerm) {
    if (text.isNull() || !text.startsWith(searchTerm))
        return false;
    const QStringList lines = text.split(QLatin1Char('\n'));
    return std::any_of(lines.begin(), lines.end(), [&](const QString& line) {
        return AppController::isLinkLine(line, searchTerm);
    });
}

bool isDeleted(const LWSimplenote& note) {
    const auto& deleted = note.deleted();
    return deleted && deleted->isString() && deleted->stringValue() == QLatin1String("true");
}

}  // namespace

// Called at every login: a new session means a new token, and a service that had no events (or
// refused the old session) is asked again.
void AppController::listenForChanges() {
    if (!listensForChanges_)
        return;
    if (!changeStream_) {
        changeStream_ = std::make_shared<LWSimplenoteEventStream>(LWSNObject::baseURLString());
        QPointer<AppController> controller(this);
        // Like the timer's ticks and the service's answers, the work an event starts waits while
        // an alert or the open status menu holds the default mode.
        changeStream_->setChangeHandler([controller](const QString& key) {
            foundation::RunLoop::main().performInDefaultMode(
                [controller, key] {
                    if (controller)
                        controller->noteDidChange(key);
                },
                controller);
        });
        // What changed while the stream was lost went unheard: once it is back, the download
        // note is looked at as if it had changed.
        changeStream_->setStateHandler([controller](LWSimplenoteEventStream::State state) {
            if (state != LWSimplenoteEventStream::State::Open || !controller ||
                !controller->changeStream_->reopened())
                return;
            foundation::RunLoop::main().performInDefaultMode(
                [controller] {
                    if (controller && !controller->downloadNoteKey_.isEmpty())
                        controller->noteDidChange(controller->downloadNoteKey_);
                },
                controller);
        });
    }
    watchChecks();
    changeStream_->start();
}

void AppController::stopListeningForChanges() {
    changeStream_.reset();
    auto& center = foundation::NotificationCenter::defaultCenter();
    for (const quint64 id : checkObservers_)
        center.removeObserver(id);
    checkObservers_.clear();
    checkUnderWay_ = false;
    awaitedPushKey_.clear();
    changedDuringCheck_.clear();
    if (checkGiveUp_)
        checkGiveUp_->invalidate();
    checkGiveUp_.reset();
}

// The check timer's action. While the agent listens, it notes that a check is on its way (the
// first one, at login, just before the listening begins).
void AppController::checkTimerFired() {
    if (listensForChanges_) {
        checkUnderWay_ = true;
        awaitedPushKey_.clear();
        if (checkGiveUp_)
            checkGiveUp_->invalidate();
        QPointer<AppController> controller(this);
        checkGiveUp_ = foundation::Timer::create(kLongestCheckSeconds, false, [controller] {
            if (controller)
                controller->checkEnded();
        });
        checkGiveUp_->scheduleInDefaultMode();
    }
    searchForNote();
}

// A check ends when the service has the rewritten download note, or when its search failed or
// found no single note (then nothing was taken from any note). The check cycle itself knows
// nothing of this; its outcomes are heard here from the notification centre, which tells every
// observer of a name whoever posted it.
void AppController::watchChecks() {
    if (!checkObservers_.empty())
        return;
    auto& center = foundation::NotificationCenter::defaultCenter();
    const void* owner = &checkObservers_;
    checkObservers_.push_back(center.addObserver(
        owner, kSearchSucceeded, nullptr, [this](const foundation::Notification& n) {
            const auto search = LWSNObject::fromNotification<LWSimplenoteSearch>(n);
            if (!search || search->query() != searchTerm_)
                return;  // the log note's
            const auto& notes = search->contents();
            if (notes && notes->size() == 1 && !notes->front()->key().isEmpty()) {
                downloadNoteKey_ = notes->front()->key();
                // The check pushes this note back right after this answer.
                if (checkUnderWay_)
                    awaitedPushKey_ = downloadNoteKey_;
            } else if (checkUnderWay_) {
                checkEnded();
            }
        }));
    checkObservers_.push_back(center.addObserver(
        owner, kSearchFailed, nullptr, [this](const foundation::Notification& n) {
            const auto search = LWSNObject::fromNotification<LWSimplenoteSearch>(n);
            if (search && search->query() == searchTerm_ && checkUnderWay_)
                checkEnded();
        }));
    for (const QString& name : {kPushSucceeded, kPushFailed, kPushFailedInTransport}) {
        checkObservers_.push_back(
            center.addObserver(owner, name, nullptr, [this](const foundation::Notification& n) {
                const auto note = LWSNObject::fromNotification<LWSimplenote>(n);
                if (checkUnderWay_ && note && !awaitedPushKey_.isEmpty() &&
                    note->key() == awaitedPushKey_)
                    checkEnded();
            }));
    }
}

void AppController::checkEnded() {
    checkUnderWay_ = false;
    awaitedPushKey_.clear();
    if (checkGiveUp_)
        checkGiveUp_->invalidate();
    checkGiveUp_.reset();
    const QStringList changed = std::exchange(changedDuringCheck_, QStringList());
    for (const QString& key : changed)
        lookForLinksInNote(key);
}

// One check at a time, as the timer has always made them: a change heard while a check is on
// its way starts no second one, which would read the same note before the first has pushed it
// back and fetch its links twice. The note is looked at again once that check is over: by then
// either the check took the new link (and pushed a note without it), or the link came after the
// check's search and is still there, and a check starts for it.
void AppController::noteDidChange(const QString& key) {
    if (!appRunning_ || !changeStream_)
        return;
    if (checkUnderWay_) {
        if (!changedDuringCheck_.contains(key))
            changedDuringCheck_ << key;
        return;
    }
    lookForLinksInNote(key);
}

// The changed note is read (any note of the account may have changed); only the download note
// with a link in it starts a check. A note that cannot be read (deleted meanwhile, a service
// that hiccups) is let be: the timer still checks at its interval.
void AppController::lookForLinksInNote(const QString& key) {
    auto note = LWSNObject::create<LWSimplenote>();
    note->setKey(key);
    note->addObserver(
        this, QStringLiteral("pullFromRemote"),
        [this](const foundation::Notification& n) {
            const auto pulled = LWSNObject::fromNotification<LWSimplenote>(n);
            if (!pulled || !appRunning_ || !changeStream_ || isDeleted(*pulled) ||
                !holdsLinks(pulled->text(), searchTerm_))
                return;
            downloadNoteKey_ = pulled->key();
            if (checkUnderWay_) {
                if (!changedDuringCheck_.contains(pulled->key()))
                    changedDuringCheck_ << pulled->key();
                return;
            }
            if (timer_ && timer_->isValid())
                timer_->fire();
        },
        [](const foundation::Notification&) {});
    note->pullFromRemote();
}
