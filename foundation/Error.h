// SPDX-License-Identifier: GPL-3.0-or-later
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
    Error(const Error&) = default;
    Error(Error&&) = default;
    Error& operator=(const Error&) = default;
    Error& operator=(Error&&) = default;
    // Lets go of a long chain of underlying errors (a parser's trace can hold thousands) one
    // link at a time instead of one stack frame per link. Links are unhooked in place, so make
    // them as Error, not as const Error.
    ~Error();

    // "Error Domain=D Code=N "description"", the form log lines print.
    QString description() const;

    friend bool operator==(const Error& a, const Error& b);
};

}  // namespace foundation
