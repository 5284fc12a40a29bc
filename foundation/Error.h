#pragma once

#include <QString>
#include <memory>

namespace foundation {

// A failure as the rest of the system sees it: a domain, a code within that domain, a readable
// description, and optionally the error that caused it.
struct Error {
    QString domain;
    qint64 code = 0;
    QString localizedDescription;
    std::shared_ptr<const Error> underlyingError;

    Error() = default;
    Error(QString domain, qint64 code, QString description,
          std::shared_ptr<const Error> underlying = nullptr);

    // "Error Domain=D Code=N "description"", the form log lines print.
    QString description() const;

    friend bool operator==(const Error& a, const Error& b);
};

}  // namespace foundation
