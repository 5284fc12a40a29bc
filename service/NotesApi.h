// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <chrono>

#include "service/Credentials.h"
#include "service/HashPool.h"
#include "service/NotesStore.h"

namespace notes {

class HttpServer;
class NoteEvents;

struct ApiSettings {
    std::chrono::seconds tokenLifetime{24 * 60 * 60};
    qsizetype maxBodyBytes = 1024 * 1024;
};

// The notes web API (v1) under /api: login, index, note (get and post), append, delete and
// search. Every call but login needs auth=TOKEN&email=ADDRESS in its query string; query
// values are read as sent, so "+" stays "+" (only %XX escapes are decoded). Bodies are base64
// of UTF-8 text; anything else is 400. Login bodies are capped at 4 KiB and addresses at 254
// bytes; a note body is read only for a valid token. Error answers have empty bodies. Every
// change to a note is told to events.
//
// Every note carries a version, which grows by one with each write: a note GET answers it in
// the header Note-Version, search results and index entries as "version". A POST of a note may
// name the version its text was based on (header Note-Base-Version); when the note has moved
// on since, the service merges the two rather than overwriting what others wrote meanwhile,
// and answers the stored version in Note-Version. The web page's own calls under /web
// (WebSessions.h) come with it, and a request from the page may stand for its account by the page's
// device session instead of auth and email.
//
// POST /api/append?header=HEADER adds the line in its body (base64 of UTF-8, one line, not
// empty) at the end of the newest note not deleted whose text begins with HEADER, or makes a
// note of HEADER and the line, in one write that keeps whatever others wrote at the same
// moment; a line the note holds already is not added again. It answers the note's key and
// Note-Version; 400 for a header or line that is empty or not one line, 413 when the note
// would grow past the body limit.
//
// Passwords are checked on hashing, for the API and the page alike. Its jobs refer to what this
// installs: it must stop (be destroyed) before the server is.
void installApi(HttpServer& server, NotesStore& store, LoginLimiter& throttle, HashPool& hashing,
                NoteEvents& events, const ApiSettings& settings);

}  // namespace notes
