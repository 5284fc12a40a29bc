// SPDX-License-Identifier: GPL-3.0-or-later
// A link that could not be fetched goes back into the download note as a comment line, so that
// whoever queued it sees why, wherever they read the note; deleting "# failed: REASON: " queues
// it again. The line is added by the service at the note's end, so that nothing written into the
// note meanwhile is lost, however long the note is.
#include <QCheckBox>

#include "agent/AppController.h"
#include "agent/FailureReason.h"
#include "client/LWSimplenoteAppend.h"
#include "foundation/Log.h"
#include "foundation/UserDefaults.h"

namespace {

const QString kPutBackKey = QStringLiteral("putFailedLinksBack");

foundation::UserDefaults& defaults() {
    return foundation::UserDefaults::standardUserDefaults();
}

}  // namespace

// On unless the person turned it off.
void AppController::readFailedLinksSetting() {
    const QString stored = defaults().stringForKey(kPutBackKey);
    if (stored.isNull()) {
        defaults().setObject(QStringLiteral("yes"), kPutBackKey);
        defaults().synchronize();
    }
    putFailedLinksBackButton_->setChecked(stored != QLatin1String("no"));
}

void AppController::togglePutFailedLinksBack(QObject*) {
    defaults().setObject(
        putFailedLinksBackButton_->isChecked() ? QStringLiteral("yes") : QStringLiteral("no"),
        kPutBackKey);
    defaults().synchronize();
}

void AppController::putFailedLinkBack(const FXDownload& download, const foundation::Error& error) {
    if (!putFailedLinksBackButton_->isChecked())
        return;
    const QString link = download.link().simplified();
    if (link.isEmpty())
        return;
    putBacksPending_ << QStringLiteral("# failed: %1: %2").arg(failureReason(error), link);
    sendPutBacks();
}

// One line at a time, in the order the transfers failed; a line the service did not take stays
// for the next try, after the next check.
void AppController::sendPutBacks() {
    if (putBacksSending_ || putBacksPending_.isEmpty())
        return;
    putBacksSending_ = true;
    auto append = LWSNObject::create<LWSimplenoteAppend>();
    append->setHeader(searchTerm_);
    append->setLine(putBacksPending_.first());
    append->addObserver(
        this, QStringLiteral("appendToRemote"),
        [this](const foundation::Notification&) {
            putBacksSending_ = false;
            if (!putBacksPending_.isEmpty())
                putBacksPending_.removeFirst();
            sendPutBacks();
        },
        [this](const foundation::Notification& n) {
            putBacksSending_ = false;
            const auto* error = n.value<foundation::Error>(QStringLiteral("error"));
            foundation::log(QStringLiteral("Couldn't put a failed link back in the note: %1")
                                .arg(error ? error->localizedDescription : QString()));
        });
    append->appendToRemote();
}
