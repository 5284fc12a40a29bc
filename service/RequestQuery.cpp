// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/RequestQuery.h"

#include <QByteArray>
#include <QList>
#include <algorithm>
#include <string_view>

namespace notes {

namespace {

// Every request that needs a session reads its query string, so the common case (nothing
// escaped) is taken straight from the text.
QString decoded(std::string_view part) {
    if (part.find('%') == std::string_view::npos)
        return QString::fromUtf8(part.data(), static_cast<qsizetype>(part.size()));
    return QString::fromUtf8(QByteArray::fromPercentEncoding(
        QByteArray(part.data(), static_cast<qsizetype>(part.size()))));
}

}  // namespace

Query rawQuery(const HttpRequest& req) {
    Query query;
    const auto question = req.target.find('?');
    if (question == std::string::npos)
        return query;
    std::string_view rest = std::string_view(req.target).substr(question + 1);
    while (!rest.empty()) {
        const auto amp = rest.find('&');
        const std::string_view pair = rest.substr(0, amp);
        rest = amp == std::string_view::npos ? std::string_view() : rest.substr(amp + 1);
        if (pair.empty())
            continue;
        const auto eq = pair.find('=');
        QString name = decoded(pair.substr(0, eq));
        if (std::any_of(query.begin(), query.end(), [&](const auto& p) { return p.first == name; }))
            continue;
        QString value = eq == std::string_view::npos ? QString() : decoded(pair.substr(eq + 1));
        if (value.isNull())
            value = QLatin1String("");
        query.emplace_back(std::move(name), std::move(value));
    }
    return query;
}

QString queryValue(const Query& query, const char* name) {
    const QLatin1String wanted(name);
    for (const auto& [n, value] : query) {
        if (n == wanted)
            return value;
    }
    return QString();
}

QString formValue(const std::string& form, const char* name) {
    const QByteArray wanted = QByteArray(name) + '=';
    for (QByteArray pair : QByteArray::fromStdString(form).split('&')) {
        if (!pair.startsWith(wanted))
            continue;
        pair.replace('+', ' ');
        return QString::fromUtf8(QByteArray::fromPercentEncoding(pair.mid(wanted.size())));
    }
    return QString();
}

std::optional<qint64> parseVersion(const QString& text) {
    const QString digits = text.trimmed();
    bool ok = false;
    const qint64 version = digits.toLongLong(&ok);
    if (!ok || version < 1 || !digits.front().isDigit())
        return std::nullopt;
    return version;
}

}  // namespace notes
