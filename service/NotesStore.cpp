// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/NotesStore.h"

#include <openssl/rand.h>

#include <QDateTime>
#include <chrono>

#include "service/PostgresStore.h"
#include "service/SqliteStore.h"

namespace notes {

bool isDatabaseUrl(const QString& location) {
    return location.startsWith(QLatin1String("postgresql://")) ||
           location.startsWith(QLatin1String("postgres://"));
}

std::unique_ptr<NotesStore> openNotesStore(const QString& location) {
    if (isDatabaseUrl(location))
        return std::make_unique<PostgresStore>(location);
    return std::make_unique<SqliteStore>(location);
}

QString newNoteKey() {
    unsigned char bytes[16];
    if (RAND_bytes(bytes, sizeof bytes) != 1)
        throw StoreError("no random bytes");
    return QString::fromLatin1(
        QByteArray(reinterpret_cast<const char*>(bytes), sizeof bytes).toHex());
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
