// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QtGlobal>

namespace notes {

class HashPool;
class HttpServer;
class LoginLimiter;
class NoteEvents;
class NotesStore;

// The web page's own calls under /web: signing a device in for good (a cookie the page's
// script cannot read, ended on the server by signing out or from the list of devices), and
// queueing a shared or pasted link into the download note. Every call must come from the
// page itself (see fromOwnPage), else 403; bodies are form-encoded, answers JSON. Whatever
// ends sessions is told to events, so that the streams opened with them end too.
//
//   POST /web/sign-in        email, password   -> {"email"} and the cookie; 401, 429, 503
//   GET  /web/me                               -> {"email"}; 401
//   POST /web/sign-out                         -> ends this device, clears the cookie
//   GET  /web/devices                          -> [{"id","name","created","lastSeen","current"}]
//   POST /web/devices/end?id=ID                -> 200; 404
//   POST /web/sign-out-everywhere              -> ends every device and API token of the
//                                                 account, clears the cookie
//   POST /web/append         url, text, title  -> {"queued","link","key","added"}; 422 {"error"};
//                                                 413 {"error"} when the download note would
//                                                 grow past maxNoteBase64Bytes as a note body
void installWebSessions(HttpServer& server, NotesStore& store, LoginLimiter& throttle,
                        HashPool& hashing, NoteEvents& events, qint64 maxNoteBase64Bytes);

}  // namespace notes
