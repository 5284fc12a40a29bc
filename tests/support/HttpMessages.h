// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QString>
#include <optional>
#include <utility>
#include <vector>

namespace testsupport {

// The pieces of HTTP/1.1 that a hand-written test server reads and writes.

// The head of one request: the request line and the header fields, nothing more (the servers
// that use it take no request bodies).
struct HttpRequestHead {
    QByteArray method;
    QByteArray path;  // the target without its query, percent-encoding kept
    QByteArray version;
    std::vector<std::pair<QByteArray, QByteArray>> fields;

    // Everything up to (not including) the blank line; nullopt when the request line is not
    // of the form "METHOD TARGET HTTP/1.x".
    static std::optional<HttpRequestHead> parse(const QByteArray& head);
    // The first field of that name (case-insensitive), trimmed; empty when there is none.
    QByteArray field(const char* name) const;
    // HTTP/1.1 keeps the connection unless the client asks to close it; HTTP/1.0 does not.
    bool keepAlive() const;
};

// One byte range resolved against a representation's length.
struct ByteRange {
    enum Outcome { Whole, Partial, Unsatisfiable };
    Outcome outcome = Whole;
    qint64 first = 0;
    qint64 last = -1;  // inclusive

    // A Range header of a single range "bytes=a-b", "bytes=a-" or "bytes=-n"; anything else
    // (several ranges, other units, nonsense) asks for the whole body, as a server that does not
    // understand it would send.
    static ByteRange resolve(const QByteArray& rangeHeader, qint64 total);
};

// A response's head: the status line, Content-Length, Connection, the given fields, the blank line.
QByteArray responseHead(int status, const QByteArrayList& fields, qint64 contentLength,
                        bool keepAlive);
QByteArray reasonPhrase(int status);
// "Content-Disposition: attachment; filename=...", with the RFC 5987 form too beyond ASCII.
QByteArray dispositionField(const QString& name);
// An IMF-fixdate such as "Sun, 06 Nov 1994 08:49:37 GMT".
QByteArray httpDate(qint64 secsSinceEpoch);

}  // namespace testsupport
