// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/RequestQuery.h"

#include <QByteArray>
#include <QList>

namespace notes {

Query rawQuery(const HttpRequest& req) {
    Query query;
    const auto question = req.target.find('?');
    if (question == std::string::npos)
        return query;
    const QByteArray text = QByteArray::fromStdString(req.target.substr(question + 1));
    for (const QByteArray& pair : text.split('&')) {
        if (pair.isEmpty())
            continue;
        const qsizetype eq = pair.indexOf('=');
        const QByteArray name = eq < 0 ? pair : pair.left(eq);
        const QByteArray value = eq < 0 ? QByteArray() : pair.mid(eq + 1);
        QString decoded = QString::fromUtf8(QByteArray::fromPercentEncoding(value));
        if (decoded.isNull())
            decoded = QLatin1String("");
        query.emplace(QString::fromUtf8(QByteArray::fromPercentEncoding(name)), decoded);
    }
    return query;
}

QString queryValue(const Query& query, const char* name) {
    auto it = query.find(QLatin1String(name));
    return it == query.end() ? QString() : it->second;
}

}  // namespace notes
