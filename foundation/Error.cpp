#include "foundation/Error.h"

namespace foundation {

Error::Error(QString domain, qint64 code, QString description,
             std::shared_ptr<const Error> underlying)
    : domain(std::move(domain)),
      code(code),
      localizedDescription(std::move(description)),
      underlyingError(std::move(underlying)) {}

QString Error::description() const {
    return QStringLiteral("Error Domain=%1 Code=%2 \"%3\"")
        .arg(domain)
        .arg(code)
        .arg(localizedDescription);
}

bool operator==(const Error& a, const Error& b) {
    if (a.domain != b.domain || a.code != b.code ||
        a.localizedDescription != b.localizedDescription) {
        return false;
    }
    if (!a.underlyingError || !b.underlyingError) {
        return !a.underlyingError && !b.underlyingError;
    }
    return *a.underlyingError == *b.underlyingError;
}

}  // namespace foundation
