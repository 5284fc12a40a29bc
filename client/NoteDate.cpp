// SPDX-License-Identifier: GPL-3.0-or-later
#include "client/NoteDate.h"

#include <QRegularExpression>

std::optional<QDateTime> noteDateFromString(const QString& text) {
    static const QRegularExpression pattern(
        QStringLiteral(R"(^(\d{1,9})-(\d{2})-(\d{2}) (\d{2}):(\d{2}):(\d{2})\.(\d{6})$)"));
    const QRegularExpressionMatch m = pattern.match(text);
    if (!m.hasMatch())
        return std::nullopt;
    const QDate date(m.captured(1).toInt(), m.captured(2).toInt(), m.captured(3).toInt());
    const QTime time(m.captured(4).toInt(), m.captured(5).toInt(), m.captured(6).toInt(),
                     m.captured(7).left(3).toInt());
    if (!date.isValid() || !time.isValid())
        return std::nullopt;
    const QDateTime moment(date, time, Qt::LocalTime);
    if (!moment.isValid())
        return std::nullopt;  // a local time skipped by a clock change
    return moment;
}
