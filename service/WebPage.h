// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

namespace notes {

class HttpServer;

// The notes web page: GET / answers a small page (with its script, style sheet and icon beside
// it) on which a browser or phone signs in, lists, searches, opens, edits, creates and deletes
// notes through the public API under /api, nothing else. `/?q=TEXT` opens the newest note
// holding TEXT once signed in. The files live in service/web and are compiled into the binary.
// Every answer forbids inline and foreign script, sniffing and referrers.
void installWebPage(HttpServer& server);

}  // namespace notes
