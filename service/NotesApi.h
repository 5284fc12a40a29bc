#pragma once

#include <chrono>

#include "service/Credentials.h"
#include "service/NotesStore.h"

namespace httplib {
class Server;
}

namespace notes {

struct ApiSettings {
    std::chrono::seconds tokenLifetime{24 * 60 * 60};
    qsizetype maxBodyBytes = 1024 * 1024;
};

// The notes web API (v1) under /api: login, index, note (get and post), delete and search.
// Every call but login needs auth=TOKEN&email=ADDRESS in its query string; query values are
// read as sent, so "+" stays "+" (only %XX escapes are decoded). Error answers have empty
// bodies. Each request is logged as method, path without query, status and time taken; nothing
// else about it (no address, token, password or note text) ever reaches the log.
void installApi(httplib::Server& server, NotesStore& store, LoginThrottle& throttle,
                const ApiSettings& settings);

}  // namespace notes
