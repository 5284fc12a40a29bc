// SPDX-License-Identifier: GPL-3.0-or-later
// One check of the download note: find it, start a download for every link line, keep the
// comment lines, and push the note back with only its header and comments.
#include <QCheckBox>
#include <stdexcept>

#include "agent/AppController.h"
#include "client/LWSimplenoteSearch.h"
#include "foundation/AlertPanel.h"
#include "foundation/Log.h"

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
    auto search = LWSimplenoteSearch::createWithQuery(searchTerm_);
    search->addObserver(
        this, QStringLiteral("pullFromRemote"),
        [this](const foundation::Notification& n) { downloadFiles(n); },
        [this](const foundation::Notification& n) { turnFerryboxOffAfterPullFailed(n); });
    sendGrowlNotification(QStringLiteral("checking"), QString());
    search->pullFromRemote();
}

void AppController::downloadFiles(const foundation::Notification& notification) {
    const auto search = LWSNObject::fromNotification<LWSimplenoteSearch>(notification);
    const std::vector<std::shared_ptr<LWSimplenote>> notes =
        search && search->contents() ? *search->contents()
                                     : std::vector<std::shared_ptr<LWSimplenote>>();
    if (notes.size() == 1) {
        downloadFilesFromNote(notes.front());
    } else if (notes.empty()) {
        auto note = LWSNObject::create<LWSimplenote>();
        note->setText(searchTerm_);
        note->pushToRemote();
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
            request.timeoutInterval = 60.0;
            FXDownload::startWithRequest(request, this)->setTitle(QStringLiteral(""));
        } else if (line.startsWith(QLatin1Char('#'))) {
            kept << line;
        }
    }

    if (keepLogButton_->isChecked() && lines.size() > 1)
        updateLogNoteWith(lines);

    QString rewritten = searchTerm_;
    if (!kept.isEmpty())
        rewritten += QLatin1Char('\n');
    for (const QString& line : kept)
        rewritten += QLatin1Char('\n') + line;
    note->setText(rewritten);
    // Not followed: a push that fails leaves the links for the next check to fetch again.
    note->pushToRemote();
    return 0;
}
