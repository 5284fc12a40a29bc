// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <optional>

#include "service/HttpServer.h"
#include "service/NotesStore.h"

namespace notes {

// The account a request acts for: the API's auth=TOKEN&email=ADDRESS in the query, or the
// web page's device session. nullopt when neither stands for a live session.
std::optional<qint64> authorisedAccount(const HttpRequest& req, NotesStore& store);

}  // namespace notes
