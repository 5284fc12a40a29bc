// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <QStringView>
#include <cstddef>
#include <string>
#include <string_view>

// Text inside a document is kept as WTF-8: UTF-8 that may also hold a lone UTF-16 surrogate
// unit as its three-byte form. A "\uXXXX" escape can produce such a unit, and a QString can hold
// one; WTF-8 keeps every QString exactly and each text has one encoding, so equal strings have
// equal bytes.
namespace twjson {

// Appends the UTF-16 text; a surrogate pair becomes one four-byte sequence.
void appendWtf8(std::string& out, QStringView text);
// Appends one UTF-16 unit. A low surrogate right after a lone high one joins it into the
// four-byte form of their pair, as the two units read together in UTF-16.
void appendUnitWtf8(std::string& out, char16_t unit);

// Decodes n bytes of WTF-8 into UTF-16 units at out, which has room for n units; returns the
// end of what it wrote.
char16_t* decodeWtf8(const char* bytes, std::size_t n, char16_t* out);
QString qstringFromWtf8(std::string_view bytes);

// Where a lone surrogate is encoded (the bytes ED A0..BF), or npos.
std::size_t findLoneSurrogate(std::string_view bytes);

// Orders two texts as their UTF-16 forms compare unit by unit (as QString's < does): negative,
// zero or positive.
int compareAsUtf16(std::string_view a, std::string_view b);

// The first byte at or after p, before end, that ends a run of ordinary string bytes: a control
// byte, the double quote or the backslash; end when there is none.
const char* endOfPlainRun(const char* p, const char* end);

}  // namespace twjson
