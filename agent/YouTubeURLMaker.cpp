// SPDX-License-Identifier: GPL-3.0-or-later
#include "agent/YouTubeURLMaker.h"

#include <QUrl>
#include <cstdint>
#include <stdexcept>

#include "foundation/URLContents.h"
#include "foundation/Utf8.h"

namespace {

const QString kHdFlag = QStringLiteral("'IS_HD_AVAILABLE': true");
const QString kTitleMarker = QStringLiteral("<meta name=\"title\" content=\"");  // 28 units
constexpr int kCutLength = 500;

// A found position, or -1, plus an offset, as a signed 32-bit sum that wraps.
std::int32_t offsetFrom(qsizetype position, std::int32_t offset) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(position) +
                                     static_cast<std::uint32_t>(offset));
}

std::string describe(qsizetype start, qsizetype length, qsizetype size) {
    return "a cut of " + std::to_string(length) + " units at " + std::to_string(start) +
           " passes the end of the page (" + std::to_string(size) + " units)";
}

QString cut(const QString& page, std::int32_t start, qsizetype length) {
    if (start < 0 || start + length > page.size())
        throw std::out_of_range(describe(start, length, page.size()));
    return page.mid(start, length);
}

// The text at marker + offset up to the first `end` within the next 500 units.
QString pick(const QString& page, const QString& marker, std::int32_t offset, const QString& end) {
    const QString window = cut(page, offsetFrom(page.indexOf(marker), offset), kCutLength);
    const qsizetype stop = window.indexOf(end);
    if (stop < 0) {
        throw std::out_of_range("no \"" + end.toStdString() + "\" within the " +
                                std::to_string(kCutLength) + " units after \"" +
                                marker.toStdString() + "\"");
    }
    return window.left(stop);
}

}  // namespace

QStringList YouTubeURLMaker::getYouTubeDownloadLink(const QString& link, bool hd) {
    const QString address = hd ? link : link + QStringLiteral("0.000000mt=18");
    const auto bytes = foundation::contentsOfURL(QUrl(address));
    const QString page = bytes ? foundation::strictUtf8(*bytes) : QString();
    if (page.isNull()) {
        // Every search in an absent page "finds" at 0 and every cut of it is absent, so the
        // result would be built around an absent media address, which no list takes.
        throw std::invalid_argument("no media address: the page at " + address.toStdString() +
                                    " could not be read as UTF-8 text");
    }
    const QString format =
        hd && page.contains(kHdFlag) ? QStringLiteral("22") : QStringLiteral("18");
    QString media = pick(page, format + QLatin1Char('|'), 3, QStringLiteral(","));
    media.replace(QStringLiteral("\\/"), QStringLiteral("/"));
    QString title = pick(page, kTitleMarker, 28, QStringLiteral("\">"));
    title.replace(QStringLiteral("&quot;"), QStringLiteral("\""))
        .replace(QStringLiteral("&amp;"), QStringLiteral("&"))
        .replace(QStringLiteral("&#39;"), QStringLiteral("'"));
    return {media, title, format};
}
