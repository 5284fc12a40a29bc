// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/Error.h"

namespace foundation {

Error::Error(QString domain, qint64 code, QString description,
             std::shared_ptr<const Error> underlying)
    : domain(std::move(domain)),
      code(code),
      localizedDescription(std::move(description)),
      underlyingError(std::move(underlying)) {}

Error::~Error() {
    std::shared_ptr<const Error> next = std::move(underlyingError);
    while (next && next.use_count() == 1) {
        // Nobody else holds the next link: detach what follows it before it goes.
        std::shared_ptr<const Error> after = std::move(const_cast<Error&>(*next).underlyingError);
        next = std::move(after);
    }
}

QString Error::description() const {
    return QStringLiteral("Error Domain=%1 Code=%2 \"%3\"")
        .arg(domain)
        .arg(code)
        .arg(localizedDescription);
}

bool operator==(const Error& a, const Error& b) {
    // Walked as a loop, not by recursion: chains can be long.
    const Error* x = &a;
    const Error* y = &b;
    for (;;) {
        if (x->domain != y->domain || x->code != y->code ||
            x->localizedDescription != y->localizedDescription) {
            return false;
        }
        if (!x->underlyingError || !y->underlyingError)
            return !x->underlyingError && !y->underlyingError;
        if (x->underlyingError == y->underlyingError)
            return true;
        x = x->underlyingError.get();
        y = y->underlyingError.get();
    }
}

}  // namespace foundation
