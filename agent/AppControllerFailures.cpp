// SPDX-License-Identifier: GPL-3.0-or-later
// The turn-off-after-failure family: every failure of a check or of the log note is reported
// three ways at once (a notification, a fixed line in the preferences window, turning off).
#include <QLabel>

#include "agent/AppController.h"

namespace {
const QString kPullDetail = QStringLiteral("Couldn't retrieve download note");
const QString kPullLabel = QStringLiteral("Error retrieving download note from Simplenote");
}  // namespace

void AppController::turnOffAfterFailure(const QString& detail, const QString& labelText) {
    ++failuresReported_;
    sendGrowlNotification(QStringLiteral("error"), detail);
    showError(labelText);
    turnFerryboxOff(nullptr);
}

void AppController::turnOffAfterPullFailed(const foundation::Notification&) {
    turnOffAfterFailure(kPullDetail, kPullLabel);
}

void AppController::turnFerryboxOffAfterPullFailed(const foundation::Notification&) {
    turnOffAfterFailure(kPullDetail, kPullLabel);
}

// The label names the default search term whatever term is set.
void AppController::turnOffAfterMultipleNotesFound(const foundation::Notification&) {
    turnOffAfterFailure(kPullDetail,
                        QStringLiteral("Multiple notes found containing \"Ferrybox_Downloads\""));
}

void AppController::turnOffAfterLogPullFailed(const foundation::Notification&) {
    turnOffAfterFailure(QStringLiteral("Couldn't retrieve log note"),
                        QStringLiteral("Error retrieving log note from Simplenote"));
}

void AppController::turnOffAfterLogClearFailed(const foundation::Notification&) {
    turnOffAfterFailure(QStringLiteral("Clearing log note failed"),
                        QStringLiteral("Error clearing log note"));
}

void AppController::turnOffAfterLogDeleteFailed(const foundation::Notification&) {
    turnOffAfterFailure(QStringLiteral("Deleting log note failed"),
                        QStringLiteral("Error deleting log note"));
}

void AppController::turnOffAfterLogAppendFailed(const foundation::Notification&) {
    turnOffAfterFailure(QStringLiteral("Adding downloads to log failed"),
                        QStringLiteral("Error adding downloads to log note"));
}
