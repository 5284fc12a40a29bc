// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/support/HttpMessages.h"

#include <QDateTime>
#include <QLocale>
#include <algorithm>
#include <map>

namespace testsupport {

namespace {

// A run of decimal digits that fits a qint64; nullopt for anything else, signs included.
std::optional<qint64> digits(const QByteArray& text) {
    if (text.isEmpty() || text.size() > 18 ||
        !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return std::nullopt;
    }
    return text.toLongLong();
}

}  // namespace

std::optional<HttpRequestHead> HttpRequestHead::parse(const QByteArray& head) {
    const QList<QByteArray> lines = head.split('\n');
    const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
    if (requestLine.size() != 3 || !requestLine[2].startsWith("HTTP/1."))
        return std::nullopt;
    HttpRequestHead parsed;
    parsed.method = requestLine[0];
    const QByteArray& target = requestLine[1];
    const qsizetype query = target.indexOf('?');
    parsed.path = query < 0 ? target : target.left(query);
    parsed.version = requestLine[2];
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const qsizetype colon = lines[i].indexOf(':');
        if (colon > 0)
            parsed.fields.emplace_back(lines[i].left(colon).trimmed(),
                                       lines[i].mid(colon + 1).trimmed());
    }
    return parsed;
}

QByteArray HttpRequestHead::field(const char* name) const {
    for (const auto& [fieldName, value] : fields) {
        if (fieldName.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    }
    return {};
}

bool HttpRequestHead::keepAlive() const {
    const QByteArray connection = field("Connection").toLower();
    if (version == "HTTP/1.0")
        return connection == "keep-alive";
    return connection != "close";
}

ByteRange ByteRange::resolve(const QByteArray& rangeHeader, qint64 total) {
    const QByteArray asked = rangeHeader.trimmed();
    if (!asked.startsWith("bytes=") || asked.contains(','))
        return {};
    const QByteArray set = asked.mid(6).trimmed();
    const qsizetype dash = set.indexOf('-');
    if (dash < 0)
        return {};
    const QByteArray firstText = set.left(dash).trimmed();
    const QByteArray lastText = set.mid(dash + 1).trimmed();
    if (firstText.isEmpty()) {
        // The last n bytes: all of them when n exceeds the length, none at all is unsatisfiable.
        const auto suffix = digits(lastText);
        if (!suffix)
            return {};
        if (*suffix == 0 || total == 0)
            return {Unsatisfiable};
        return {Partial, std::max<qint64>(0, total - *suffix), total - 1};
    }
    const auto first = digits(firstText);
    const auto last = lastText.isEmpty() ? std::optional<qint64>(total - 1) : digits(lastText);
    if (!first || !last || (!lastText.isEmpty() && *last < *first))
        return {};
    if (*first >= total)
        return {Unsatisfiable};
    return {Partial, *first, std::min(*last, total - 1)};
}

QByteArray reasonPhrase(int status) {
    static const std::map<int, QByteArray> phrases{{200, "OK"},
                                                   {206, "Partial Content"},
                                                   {400, "Bad Request"},
                                                   {404, "Not Found"},
                                                   {405, "Method Not Allowed"},
                                                   {416, "Range Not Satisfiable"},
                                                   {429, "Too Many Requests"},
                                                   {500, "Internal Server Error"},
                                                   {502, "Bad Gateway"},
                                                   {503, "Service Unavailable"},
                                                   {504, "Gateway Timeout"}};
    const auto it = phrases.find(status);
    return it == phrases.end() ? QByteArray("Status") : it->second;
}

QByteArray responseHead(int status, const QByteArrayList& fields, qint64 contentLength,
                        bool keepAlive) {
    QByteArray head = "HTTP/1.1 " + QByteArray::number(status) + ' ' + reasonPhrase(status) +
                      "\r\nContent-Length: " + QByteArray::number(contentLength) +
                      "\r\nConnection: " + (keepAlive ? "keep-alive" : "close") + "\r\n";
    for (const QByteArray& field : fields)
        head += field + "\r\n";
    return head + "\r\n";
}

QByteArray dispositionField(const QString& name) {
    QByteArray quoted = name.toUtf8();
    quoted.replace('\\', "\\\\").replace('"', "\\\"");
    QByteArray field = "Content-Disposition: attachment; filename=\"" + quoted + '"';
    if (name.toUtf8() != name.toLatin1())  // beyond ASCII: the encoded form as well
        field += "; filename*=UTF-8''" + name.toUtf8().toPercentEncoding();
    return field;
}

QByteArray httpDate(qint64 secsSinceEpoch) {
    return QLocale::c()
        .toString(QDateTime::fromSecsSinceEpoch(secsSinceEpoch, Qt::UTC),
                  QStringLiteral("ddd, dd MMM yyyy hh:mm:ss 'GMT'"))
        .toLatin1();
}

}  // namespace testsupport
