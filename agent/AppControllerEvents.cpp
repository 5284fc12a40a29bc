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
#include "agent/NoteOutcome.h"
#include "client/LWSimplenote.h"
#include "client/LWSimplenoteEventStream.h"
#include "foundation/RunLoop.h"
#include "foundation/Timer.h"

namespace {

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
// refused the old session) is asked again. The download note is learnt afresh: this may be
// another account.
void AppController::listenForChanges() {
    if (!listensForChanges_)
        return;
    downloadNoteKey_.clear();
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
    changeStream_->start();
}

void AppController::stopListeningForChanges() {
    changeStream_.reset();
    ++listeningNumber_;
    noteReads_.clear();
    changedDuringCheck_.clear();
    downloadNoteKey_.clear();
}

// A change heard while a check is under way starts nothing beside it: the note is looked at
// once that check is over. By then either the check took the new link (and stored a note
// without it), or the link came after the check's search and is still there, and a check
// starts for it.
void AppController::noteDidChange(const QString& key) {
    if (!appRunning_ || !changeStream_)
        return;
    if (!downloadNoteKey_.isEmpty() && key != downloadNoteKey_)
        return;
    if (checkUnderWay_) {
        changedDuringCheck_.insert(key);
        return;
    }
    lookForLinksInNote(key);
}

// The changed note is read (until the download note is known, any note of the account may be
// it); only the download note with a link in it starts a check. One read of a note at a time:
// changes heard meanwhile make one more read once it is over. A note that cannot be read
// (deleted meanwhile, a service that hiccups) is let be: the timer still checks at its interval.
void AppController::lookForLinksInNote(const QString& key) {
    if (const auto reading = noteReads_.find(key); reading != noteReads_.end()) {
        *reading = true;
        return;
    }
    noteReads_.insert(key, false);
    // The read is over: a change heard meanwhile is looked at. Nothing of a read from before the
    // agent last stopped listening is followed.
    const auto over = [this, key, listening = listeningNumber_] {
        if (listening != listeningNumber_)
            return false;
        if (noteReads_.take(key))
            foundation::RunLoop::main().performInDefaultMode([this, key] { noteDidChange(key); },
                                                             this);
        return true;
    };
    auto note = LWSNObject::create<LWSimplenote>();
    note->setKey(key);
    whenNoteActionEnds(
        this, *note, QStringLiteral("pullFromRemote"),
        [this, over](const foundation::Notification& n) {
            if (!over())
                return;
            const auto pulled = LWSNObject::fromNotification<LWSimplenote>(n);
            if (!pulled || isDeleted(*pulled) || !holdsLinks(pulled->text(), searchTerm_))
                return;
            downloadNoteKey_ = pulled->key();
            if (appRunning_ && timer_ && timer_->isValid())
                timer_->fire();
        },
        [over](const foundation::Notification&) { over(); });
    note->pullFromRemote();
}
