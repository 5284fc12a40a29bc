// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

namespace notes {

// Where the service announces that a note of an account changed (written, created, deleted
// or purged), so that the account's live event streams can tell their clients at once.
class NoteEvents {
public:
    virtual ~NoteEvents() = default;
    virtual void noteChanged(qint64 userId, const QString& key) = 0;
    // Tokens or device sessions of the account ended (signed out, ended from the list of
    // devices, a new password, the account removed): its streams opened with one of them end.
    virtual void accessEnded(qint64 userId) = 0;
};

}  // namespace notes
