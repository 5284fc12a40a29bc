// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <memory>

#include "client/LWSimplenote.h"
#include "foundation/NotificationCenter.h"

// Hears the end of one action of a note however it ends: the service's answer (onSuccess), its
// refusal, or a transport failure (onFailure). A note posts its transport failures under a name
// of their own that addObserver() does not register, so a plain observer never hears of them;
// whoever waits for the action to be over must. The observers go with the note.
inline void whenNoteActionEnds(const void* observer, LWSimplenote& note, const QString& selector,
                               const foundation::NotificationCenter::Block& onSuccess,
                               const foundation::NotificationCenter::Block& onFailure) {
    note.addObserver(observer, selector, onSuccess, onFailure);
    foundation::NotificationCenter::defaultCenter().addObserver(
        observer, note.failureNotificationNameForSelector(selector + QLatin1Char(':')), &note,
        onFailure);
}
