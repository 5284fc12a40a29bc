// SPDX-License-Identifier: GPL-3.0-or-later
// The log note: a second note, "Ferrybox_Download_Log", to which every link taken from the
// download note is appended. Nothing of it is kept between operations: each one searches for it
// afresh, and every write to it goes unwatched.
#include <QCheckBox>
#include <QPushButton>

#include "agent/AppController.h"
#include "client/LWSimplenoteSearch.h"
#include "foundation/AlertPanel.h"
#include "foundation/Log.h"
#include "foundation/UserDefaults.h"

namespace {

const QString kLogTitle = QStringLiteral("Ferrybox_Download_Log");

void store(const QString& value, const QString& key) {
    auto& defaults = foundation::UserDefaults::standardUserDefaults();
    defaults.setObject(value, key);
    defaults.synchronize();
}

void tell(const QString& title, const QString& message) {
    foundation::AlertPanel::runModal({title, message, QStringLiteral("OK"), QString(), QString()});
}

std::vector<std::shared_ptr<LWSimplenote>> notesFound(const foundation::Notification& n) {
    const auto search = LWSNObject::fromNotification<LWSimplenoteSearch>(n);
    return search && search->contents() ? *search->contents()
                                        : std::vector<std::shared_ptr<LWSimplenote>>();
}

}  // namespace

void AppController::searchForLogNote(foundation::NotificationCenter::Block onSuccess,
                                     foundation::NotificationCenter::Block onFailure) {
    auto search = LWSimplenoteSearch::createWithQuery(kLogTitle);
    search->addObserver(this, QStringLiteral("pullFromRemote"), std::move(onSuccess),
                        std::move(onFailure));
    search->pullFromRemote();
}

// Switching on always makes a new note, even when one exists; the alert does not wait for the
// service. While the agent is off the checkbox changes and nothing else does.
void AppController::toggleLogNote(QObject*) {
    if (!appRunning_)
        return;
    switch (keepLogButton_->checkState()) {
        case Qt::Checked: {
            store(QStringLiteral("yes"), QStringLiteral("keepLog"));
            auto note = LWSNObject::create<LWSimplenote>();
            note->setText(kLogTitle);
            note->pushToRemote();
            tell(QStringLiteral("Log Note Created"),
                 QStringLiteral("I've just created a new note called \"Ferrybox_Download_Log\" "
                                "using your Simplenote account. The URL of anything you "
                                "download will be saved to the log note."));
            clearLogButton_->setEnabled(true);
            break;
        }
        case Qt::Unchecked:
            store(QStringLiteral("no"), QStringLiteral("keepLog"));
            searchForLogNote([this](const foundation::Notification& n) { deleteLogNote(n); },
                             [this](const foundation::Notification&) { turnFerryboxOff(nullptr); });
            clearLogButton_->setEnabled(false);
            break;
        default:
            foundation::log(QStringLiteral("Error toggling log note"));
            break;
    }
}

void AppController::clearLogNote(QObject*) {
    if (!keepLogButton_->isChecked() || !appRunning_)
        return;
    searchForLogNote([this](const foundation::Notification& n) { wipeLogNote(n); },
                     [this](const foundation::Notification& n) { turnOffAfterLogPullFailed(n); });
}

void AppController::wipeLogNote(const foundation::Notification& notification) {
    const auto notes = notesFound(notification);
    if (notes.size() == 1) {
        notes.front()->setText(kLogTitle);
        notes.front()->pushToRemote();
        tell(QStringLiteral("Log Note Cleared"), QStringLiteral("Log note cleared."));
        return;
    }
    foundation::log(notes.empty() ? QStringLiteral("no log note found")
                                  : QStringLiteral("> 1 log note found"));
    turnOffAfterLogClearFailed(foundation::Notification{});
}

// The delete and then, at once, a push of the same note, both unwatched.
void AppController::deleteLogNote(const foundation::Notification& notification) {
    const auto notes = notesFound(notification);
    if (notes.size() == 1) {
        notes.front()->deleteNote();
        notes.front()->pushToRemote();
        tell(QStringLiteral("Log Note Deleted"), QStringLiteral("Log note deleted."));
        return;
    }
    foundation::log(notes.empty() ? QStringLiteral("no log note found")
                                  : QStringLiteral("> 1 log note found"));
    turnOffAfterLogDeleteFailed(foundation::Notification{});
}

// A second request before the first search answers replaces the lines: only the newest are
// appended.
void AppController::updateLogNoteWith(const QStringList& lines) {
    URLLines_ = lines;
    searchForLogNote([this](const foundation::Notification& n) { appendToLogNoteAndSync(n); },
                     [this](const foundation::Notification& n) { turnOffAfterLogPullFailed(n); });
}

// Lines go in as they stand: no trimming, no test that they are links, no removal of lines the
// log holds already. The note is pushed even when nothing was appended.
void AppController::appendToLogNoteAndSync(const foundation::Notification& notification) {
    const auto notes = notesFound(notification);
    std::shared_ptr<LWSimplenote> log;
    if (notes.size() == 1) {
        log = notes.front();
    } else if (notes.empty()) {
        log = LWSNObject::create<LWSimplenote>();  // the push creates it
        log->setText(kLogTitle);
    } else {
        foundation::log(QStringLiteral("error appending to log note"));
        turnOffAfterLogAppendFailed(foundation::Notification{});
        return;
    }
    for (const QString& line : URLLines_) {
        if (line == searchTerm_ || line.isEmpty() || line.startsWith(QLatin1Char('#')))
            continue;
        log->setText(log->text() + QLatin1Char('\n') + line);
    }
    log->pushToRemote();
}
