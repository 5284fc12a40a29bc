// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/NotesStore.h"

#include <QDateTime>
#include <chrono>

#include "service/SqliteStore.h"

namespace notes {

bool isDatabaseUrl(const QString& location) {
    return location.startsWith(QLatin1String("postgresql://")) ||
           location.startsWith(QLatin1String("postgres://"));
}

std::unique_ptr<NotesStore> openNotesStore(const QString& location) {
    return std::make_unique<SqliteStore>(location);
}

qint64 nowMicros() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

QString formatMicros(qint64 micros) {
    const QDateTime t = QDateTime::fromMSecsSinceEpoch(micros / 1000, Qt::UTC);
    return t.toString(QStringLiteral("yyyy-MM-dd HH:mm:ss.")) +
           QStringLiteral("%1").arg(micros % 1000000, 6, 10, QLatin1Char('0'));
}

}  // namespace notes
