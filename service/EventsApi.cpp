// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/EventsApi.h"

#include "service/Authorisation.h"
#include "service/EventStreams.h"
#include "service/HttpServer.h"

namespace notes {

void installEvents(HttpServer& server, NotesStore& store, EventStreams& streams) {
    server.addRoute({"GET",
                     "/api/events",
                     0,
                     {},
                     [&store, &streams](const HttpRequest& req, HttpResponse& res) {
                         // The stream lasts as long as what it was opened with.
                         const auto access = authorisedAccess(req, store);
                         if (!access) {
                             res.status = 401;
                             return;
                         }
                         if (!streams.open(*access, res)) {
                             res.status = 429;
                             return;
                         }
                         res.status = 200;
                         res.contentType = "text/event-stream";
                         // Nothing on the way may keep an event back: not a cache, not a
                         // buffering proxy (nginx reads the second header).
                         res.headers = {{"Cache-Control", "no-cache"}, {"X-Accel-Buffering", "no"}};
                     }});
}

}  // namespace notes
