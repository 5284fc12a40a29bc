// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

namespace notes {

class EventStreams;
class HttpServer;
class NotesStore;

// GET /api/events: the signed-in account's change stream (see EventStreams), authorised like
// every other call (auth and email in the query, or the web page's device session). 401
// without a live session, 429 (empty) when the account has all its streams open.
void installEvents(HttpServer& server, NotesStore& store, EventStreams& streams);

}  // namespace notes
