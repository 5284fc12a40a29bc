// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/NotesStore.h"

#include <openssl/rand.h>

#include <QDateTime>
#include <algorithm>
#include <chrono>
#include <cstdio>

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

qint64 base64Length(const QString& text) {
    const qint64 bytes = text.toUtf8().size();
    return (bytes + 2) / 3 * 4;
}

qint64 nowMicros() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

QString formatMicros(qint64 micros) {
    using namespace std::chrono;
    constexpr qint64 kYear10000 = 253402300800LL * 1000000;
    if (micros < 0 || micros >= kYear10000) {
        const QDateTime t = QDateTime::fromMSecsSinceEpoch(micros / 1000, Qt::UTC);
        return t.toString(QStringLiteral("yyyy-MM-dd HH:mm:ss.")) +
               QStringLiteral("%1").arg(micros % 1000000, 6, 10, QLatin1Char('0'));
    }
    // Written directly: every note GET and index entry has two dates, and QDateTime's
    // formatting took a tenth of a note GET's time.
    const sys_days day = floor<days>(sys_time<microseconds>(microseconds(micros)));
    const year_month_day date(day);
    const qint64 inDay = micros - duration_cast<microseconds>(day.time_since_epoch()).count();
    const qint64 seconds = inDay / 1000000;
    char text[32];
    const int n = std::snprintf(text, sizeof text, "%04d-%02u-%02u %02lld:%02lld:%02lld.%06lld",
                                int(date.year()), unsigned(date.month()), unsigned(date.day()),
                                seconds / 3600, seconds / 60 % 60, seconds % 60, inDay % 1000000);
    return QString::fromLatin1(text, std::clamp(n, 0, int(sizeof text) - 1));
}

}  // namespace notes
