// SPDX-License-Identifier: GPL-3.0-or-later
// One check of the download note: find it, start a download for every link line, keep the
// comment lines, and push the note back with only its header and comments.
//
// Checks run one at a time, from the search until the service has the note back: a second
// check reading the note before the first has stored it would start the same links again.
// The push names the version the search read, so a link saved meanwhile is merged in by the
// service rather than overwritten, and the next check takes it.
#include <QCheckBox>
#include <QPointer>
#include <QScopeGuard>
#include <stdexcept>

#include "agent/AppController.h"
#include "agent/NoteOutcome.h"
#include "client/LWSimplenoteSearch.h"
#include "foundation/AlertPanel.h"
#include "foundation/Log.h"
#include "foundation/RunLoop.h"

namespace {

// The lines past this length must begin with the search term. It is one less than the length
// of the default term, whatever term is set, so a short note escapes the test.
constexpr qsizetype kCheckedTextLength = 17;

// The first n units of text; asking for more than there are raises, as the platform's strings
// do. Nothing stays nothing.
QString substringToIndex(const QString& text, qsizetype n) {
    if (text.isNull())
        return QString();
    if (n > text.size())
        throw std::out_of_range("substringToIndex: index " + std::to_string(n) +
                                " beyond the end of a text of " + std::to_string(text.size()));
    return text.left(n);
}

}  // namespace

void AppController::searchForNote() {
    if (checkUnderWay_) {
        checkAskedAgain_ = true;
        return;
    }
    checkUnderWay_ = true;
    checkStoring_ = false;
    const quint64 check = ++checkNumber_;
    // The answers of a check that was stopped (the agent turned off meanwhile) go no further.
    const auto current = [this, check] { return checkUnderWay_ && check == checkNumber_; };
    auto search = LWSimplenoteSearch::createWithQuery(searchTerm_);
    search->addObserver(
        this, QStringLiteral("pullFromRemote"),
        [this, check, current](const foundation::Notification& n) {
            if (!current())
                return;
            // Over here unless its note is being stored, whatever happened on the way (an
            // alert, turning off, an exception).
            const auto over = qScopeGuard([this, check] {
                if (!checkStoring_)
                    endCheck(check);
            });
            downloadFiles(n);
        },
        [this, check, current](const foundation::Notification& n) {
            if (!current())
                return;
            endCheck(check);
            turnFerryboxOffAfterPullFailed(n);
        });
    sendGrowlNotification(QStringLiteral("checking"), QString());
    search->pullFromRemote();
}

// The check's note goes back to the service; the check is over when the service has answered,
// however it answered.
void AppController::storeCheckedNote(const std::shared_ptr<LWSimplenote>& note) {
    if (checkUnderWay_ && !checkStoring_) {
        checkStoring_ = true;
        const auto ended = [this, check = checkNumber_](const foundation::Notification&) {
            endCheck(check);
        };
        whenNoteActionEnds(this, *note, QStringLiteral("pushToRemote"), ended, ended);
    }
    note->pushToRemote();
}

void AppController::endCheck(quint64 check) {
    if (!checkUnderWay_ || check != checkNumber_)
        return;
    checkUnderWay_ = false;
    checkStoring_ = false;
    // After the answer that ended it has been dealt with, and never inside an exception's way
    // out: a check asked for meanwhile, else a look at the notes that changed meanwhile.
    foundation::RunLoop::main().performInDefaultMode(
        [controller = QPointer<AppController>(this)] {
            if (controller)
                controller->lookAgainAfterCheck();
        },
        this);
}

void AppController::lookAgainAfterCheck() {
    if (checkUnderWay_ || !appRunning_)
        return;
    if (std::exchange(checkAskedAgain_, false)) {
        // That check reads the download note afresh: what changed meanwhile needs no look.
        changedDuringCheck_.clear();
        searchForNote();
        return;
    }
    const QSet<QString> changed = std::exchange(changedDuringCheck_, QSet<QString>());
    for (const QString& key : changed)
        noteDidChange(key);
    sendPutBacks();
}

void AppController::stopChecks() {
    checkUnderWay_ = false;
    checkStoring_ = false;
    checkAskedAgain_ = false;
}

void AppController::downloadFiles(const foundation::Notification& notification) {
    const auto search = LWSNObject::fromNotification<LWSimplenoteSearch>(notification);
    const std::vector<std::shared_ptr<LWSimplenote>> notes =
        search && search->contents() ? *search->contents()
                                     : std::vector<std::shared_ptr<LWSimplenote>>();
    if (notes.size() == 1) {
        downloadNoteKey_ = notes.front()->key();
        downloadFilesFromNote(notes.front());
    } else if (notes.empty()) {
        auto note = LWSNObject::create<LWSimplenote>();
        note->setText(searchTerm_);
        // The next check must find this note rather than make a second one.
        storeCheckedNote(note);
        // The message names the default folder whatever folder is set.
        foundation::AlertPanel::runModal(
            {QStringLiteral("Note Created"),
             QStringLiteral("I've just created a new note called \"%1\" using your Simplenote "
                            "account.\n\nUse Simplenote for your iPhone, iPod Touch, iPad, or "
                            "Simplenote's webapp to add URLs to the note and they'll be "
                            "downloaded to this computer (at ~/Downloads/Ferrybox/).")
                 .arg(searchTerm_),
             QStringLiteral("OK"), QString(), QString()});
    } else {
        turnOffAfterMultipleNotesFound(notification);
        // The first note that begins with the term is still processed. A note shorter than the
        // term ends the walk there.
        for (const auto& note : notes) {
            if (substringToIndex(note->text(), searchTerm_.size()) == searchTerm_) {
                downloadFilesFromNote(note);
                break;
            }
        }
    }
}

bool AppController::isLinkLine(const QString& line, const QString& searchTerm) {
    return !line.isEmpty() && line != searchTerm && !line.startsWith(QLatin1Char('#'));
}

int AppController::downloadFilesFromNote(const std::shared_ptr<LWSimplenote>& note) {
    const QString text = note->text();
    // Only a line feed ends a line: a carriage return stays part of its line.
    const QStringList lines = text.isNull() ? QStringList() : text.split(QLatin1Char('\n'));

    if (text.size() > kCheckedTextLength &&
        substringToIndex(text, searchTerm_.size()) != searchTerm_) {
        foundation::log(QStringLiteral("Note doesn't start with \"%1\" -- aborting note check")
                            .arg(searchTerm_));
        turnFerryboxOffAfterPullFailed(foundation::Notification{});
        return 0;
    }

    QStringList kept;
    for (const QString& line : lines) {
        if (line.isEmpty())
            continue;
        if (isLinkLine(line, searchTerm_)) {
            // The line as it stands is the link; one that is no URL fails as a download.
            foundation::URLRequest request;
            request.url = QUrl(line, QUrl::StrictMode);
            if (resumedLinks_.remove(request.url.toString(QUrl::FullyEncoded)))
                continue;
            request.timeoutInterval = 60.0;
            const auto download = FXDownload::startWithRequest(request, this);
            download->setTitle(QStringLiteral(""));
            download->setNoteLine(line);
        } else if (line.startsWith(QLatin1Char('#'))) {
            kept << line;
        }
    }

    if (keepLogButton_->isChecked() && lines.size() > 1)
        updateLogNoteWith(lines);

    // Only the first check after a start can meet the links of the transfers it went on with.
    resumedLinks_.clear();
    QString rewritten = searchTerm_;
    if (!kept.isEmpty())
        rewritten += QLatin1Char('\n');
    for (const QString& line : kept)
        rewritten += QLatin1Char('\n') + line;
    note->setText(rewritten);
    // Its outcome ends the check and is not reported: a push that fails leaves the links for the
    // next check to fetch again.
    storeCheckedNote(note);
    return 0;
}
