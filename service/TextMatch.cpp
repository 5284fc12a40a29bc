// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/TextMatch.h"

#include <QList>
#include <algorithm>
#include <array>

namespace notes {

namespace {

// ASCII letters folded to lower case, every other byte as it is.
struct FoldTable {
    unsigned char fold[256];
    constexpr FoldTable() : fold() {
        for (int c = 0; c < 256; ++c)
            fold[c] = static_cast<unsigned char>(c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c);
    }
};
constexpr FoldTable kFold;

unsigned char lower(char c) {
    return kFold.fold[static_cast<unsigned char>(c)];
}

}  // namespace

QString foldForSearch(const QString& text) {
    QList<uint> codePoints = text.toUcs4();
    for (uint& c : codePoints)
        c = QChar::toCaseFolded(c);
    return QString::fromUcs4(reinterpret_cast<const char32_t*>(codePoints.constData()),
                             codePoints.size());
}

TextMatch::TextMatch(const QString& needle) : needle_(needle) {
    ascii_ = std::all_of(needle.begin(), needle.end(), [](QChar c) { return c.unicode() < 0x80; });
    if (!ascii_ || needle.isEmpty())
        return;
    lowerAscii_ = needle.toLatin1().toLower();
    // Horspool's shifts: how far the window may move when its last byte is b.
    const auto m = static_cast<std::size_t>(lowerAscii_.size());
    std::array<std::size_t, 256> folded;
    folded.fill(m);
    for (std::size_t i = 0; i + 1 < m; ++i)
        folded[static_cast<unsigned char>(lowerAscii_[qsizetype(i)])] = m - 1 - i;
    for (int b = 0; b < 256; ++b)
        shift_[std::size_t(b)] = folded[lower(char(b))];
}

bool TextMatch::containsAscii(std::string_view text) const {
    const auto m = static_cast<std::size_t>(lowerAscii_.size());
    const auto* needle = reinterpret_cast<const unsigned char*>(lowerAscii_.constData());
    for (std::size_t i = 0; i + m <= text.size();) {
        const char last = text[i + m - 1];
        if (lower(last) == needle[m - 1]) {
            std::size_t j = 0;
            while (j + 1 < m && lower(text[i + j]) == needle[j])
                ++j;
            if (j + 1 >= m)
                return true;
        }
        i += shift_[static_cast<unsigned char>(last)];
    }
    return false;
}

bool TextMatch::matches(std::string_view utf8) const {
    if (needle_.isEmpty())
        return true;
    if (ascii_) {
        if (containsAscii(utf8))
            return true;
        const bool onlyAscii = std::all_of(
            utf8.begin(), utf8.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
        if (onlyAscii)
            return false;
    }
    return QString::fromUtf8(utf8.data(), static_cast<qsizetype>(utf8.size()))
        .contains(needle_, Qt::CaseInsensitive);
}

}  // namespace notes
