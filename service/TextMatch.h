// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QString>
#include <array>
#include <string_view>

namespace notes {

// text with each character case-folded on its own, as QString::contains with
// Qt::CaseInsensitive compares characters: text contains needle without regard to case exactly
// when foldForSearch(text) contains foldForSearch(needle) as it is. What the search indexes
// hold, so that an exact substring lookup there gives the same answer.
QString foldForSearch(const QString& text);

// Case-insensitive "contains" over UTF-8 note text, as QString::contains(Qt::CaseInsensitive)
// decides it, without turning every note into UTF-16 first: an ASCII needle is looked for in
// the bytes directly, and only text with non-ASCII bytes that did not match that way (where a
// character like the Kelvin sign may fold to an ASCII letter) takes the exact, slower path.
class TextMatch {
public:
    explicit TextMatch(const QString& needle);
    bool matches(std::string_view utf8) const;

private:
    bool containsAscii(std::string_view text) const;

    QString needle_;
    QByteArray lowerAscii_;  // empty unless the needle is ASCII
    bool ascii_ = false;
    std::array<std::size_t, 256> shift_{};
};

}  // namespace notes
