// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

#include "foundation/Error.h"

// Why a transfer failed, in a few plain words for the line that puts its link back into the note
// ("404 not found", "no answer for 60 s", "host not found"): one line, and never ": ", which
// ends the reason in "# failed: REASON: LINK".
QString failureReason(const foundation::Error& error);
