// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

namespace notes {

class HttpServer;

// The notes web page: GET / answers a small page (with its script, style sheet and icons beside
// it) on which a browser or phone signs in (a device session under /web), lists, searches,
// opens, edits, creates and deletes notes through the API under /api, and queues links for
// download. `/?q=TEXT` opens the newest note holding TEXT once signed in. With its manifest and
// service worker the page installs as an app whose share target, GET /share?title=&text=&url=,
// is the same page queuing what was shared: at once when the browser says the share sheet (or
// the page itself) opened it, else only after a tap, since any site can send a browser there.
// The files live in service/web and are compiled into the binary. Every answer forbids inline and
// foreign script, framing, sniffing and referrers.
void installWebPage(HttpServer& server);

}  // namespace notes
