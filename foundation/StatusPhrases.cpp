// SPDX-License-Identifier: GPL-3.0-or-later
#include <map>

#include "foundation/URLConnection.h"

namespace foundation {

QString HTTPURLResponse::localizedStringForStatusCode(int statusCode) {
    static const std::map<int, const char*> phrases = {
        {100, "continue"},
        {101, "switching protocols"},
        {200, "no error"},
        {201, "created"},
        {202, "accepted"},
        {203, "non-authoritative information"},
        {204, "no content"},
        {205, "reset content"},
        {206, "partial content"},
        {300, "multiple choices"},
        {301, "moved permanently"},
        {302, "found"},
        {303, "see other"},
        {304, "not modified"},
        {305, "needs proxy"},
        {307, "temporarily redirected"},
        {308, "permanently redirected"},
        {400, "bad request"},
        {401, "unauthorized"},
        {402, "payment required"},
        {403, "forbidden"},
        {404, "not found"},
        {405, "method not allowed"},
        {406, "unacceptable"},
        {407, "proxy authentication required"},
        {408, "request timed out"},
        {409, "conflict"},
        {410, "no longer exists"},
        {411, "length required"},
        {412, "precondition failed"},
        {413, "request too large"},
        {414, "requested URL too long"},
        {415, "unsupported media type"},
        {416, "requested range not satisfiable"},
        {417, "expectation failed"},
        {429, "too many requests"},
        {500, "internal server error"},
        {501, "unimplemented"},
        {502, "bad gateway"},
        {503, "service unavailable"},
        {504, "gateway timed out"},
        {505, "unsupported version"},
    };
    if (auto it = phrases.find(statusCode); it != phrases.end()) {
        return QString::fromLatin1(it->second);
    }
    switch (statusCode / 100) {
        case 1:
            return QStringLiteral("informational");
        case 2:
            return QStringLiteral("success");
        case 3:
            return QStringLiteral("redirected");
        case 4:
            return QStringLiteral("client error");
        case 5:
            return QStringLiteral("server error");
        default:
            return QStringLiteral("server error");
    }
}

}  // namespace foundation
