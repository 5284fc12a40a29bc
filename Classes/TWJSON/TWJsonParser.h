// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QString>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Classes/TWJSON/TWJsonBase.h"
#include "Classes/TWJSON/TWJsonValue.h"

namespace twjson {
struct Document;
class KeyIndex;
}  // namespace twjson

// A recursive-descent scanner over the UTF-8 bytes of its input, with one cursor. Stricter than
// the JSON grammar in places (no leading "+" or "0", no trailing comma) and looser in others
// (commas between elements may be left out; vertical tab and form feed are whitespace). Numbers
// keep their exact text; "\uXXXX" surrogate pairs become the single low 16-bit unit of their
// code point. Every failure leaves its reasons in the error trace and returns nothing.
class TWJsonParser : public TWJsonBase {
public:
    // Any JSON value. A null string is no input (code 12).
    std::optional<TWJsonValue> fragmentWithString(const QString& string);
    // A dictionary or an array only.
    std::optional<TWJsonValue> objectWithString(const QString& string);

    // The same over UTF-8 bytes, without a conversion to UTF-16 first. Bytes that are not valid
    // UTF-8 never become text, so they count as no input, as a null QByteArray does.
    std::optional<TWJsonValue> fragmentWithUTF8(const QByteArray& utf8);
    std::optional<TWJsonValue> objectWithUTF8(const QByteArray& utf8);

    TWJsonParser() = default;
    // A copy takes the settings and the trace; its working memory starts empty.
    TWJsonParser(const TWJsonParser& other) : TWJsonBase(other) {}
    TWJsonParser& operator=(const TWJsonParser& other) {
        TWJsonBase::operator=(other);
        return *this;
    }
    ~TWJsonParser() override;

private:
    std::optional<TWJsonValue> parse(const QByteArray& utf8);
    std::optional<TWJsonValue> onlyContainers(std::optional<TWJsonValue> value);

    bool scanValue(twjson::Node& out);
    bool scanRestOfTrue(twjson::Node& out);
    bool scanRestOfFalse(twjson::Node& out);
    bool scanRestOfNull(twjson::Node& out);
    bool scanRestOfArray(twjson::Node& out);
    bool scanRestOfDictionary(twjson::Node& out);
    bool scanRestOfString(twjson::Node& out);
    bool scanEscapedString(const char* start, twjson::Node& out);
    bool scanUnicodeChar(char16_t& out);
    bool scanHexQuad(char16_t& out);
    bool scanNumber(twjson::Node& out);
    bool scanIsAtEnd();
    bool enterContainer();
    void skipWhitespace();

    void push(const twjson::Node& node);
    // The nodes pushed since base, as one run in the document; the stack drops back to base.
    twjson::Node* takeItems(std::size_t base);
    // Adds a member to the dictionary whose members start at base, or replaces the value of an
    // earlier member of the same key.
    void addMember(std::size_t base, std::unique_ptr<twjson::KeyIndex>& index,
                   const twjson::Node& key, const twjson::Node& value);

    const char* c_ = nullptr;
    const char* end_ = nullptr;  // the terminating NUL
    twjson::Document* doc_ = nullptr;
    // Elements and members of the containers still open, innermost last; grown with realloc,
    // which moves large blocks by remapping pages rather than copying them.
    twjson::Node* stack_ = nullptr;
    std::size_t top_ = 0;
    std::size_t capacity_ = 0;
    // Strings with escapes are decoded here.
    std::string scratch_;
};

// Whether bytes are well-formed UTF-8 (no overlong forms, no surrogates, nothing past U+10FFFF).
bool isValidUTF8(const char* bytes, qsizetype length);
