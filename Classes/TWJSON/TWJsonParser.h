#pragma once

#include <QByteArray>
#include <QString>
#include <optional>

#include "Classes/TWJSON/TWJsonBase.h"
#include "Classes/TWJSON/TWJsonValue.h"

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

private:
    std::optional<TWJsonValue> parse(const char* bytes);
    std::optional<TWJsonValue> onlyContainers(std::optional<TWJsonValue> value);

    bool scanValue(TWJsonValue& out);
    bool scanRestOfTrue(TWJsonValue& out);
    bool scanRestOfFalse(TWJsonValue& out);
    bool scanRestOfNull(TWJsonValue& out);
    bool scanRestOfArray(TWJsonValue& out);
    bool scanRestOfDictionary(TWJsonValue& out);
    bool scanRestOfString(QString& out);
    bool scanUnicodeChar(char16_t& out);
    bool scanHexQuad(char16_t& out);
    bool scanNumber(TWJsonValue& out);
    bool scanIsAtEnd();
    bool enterContainer();
    void skipWhitespace();

    const char* c_ = nullptr;
};

// Whether bytes are well-formed UTF-8 (no overlong forms, no surrogates, nothing past U+10FFFF).
bool isValidUTF8(const char* bytes, qsizetype length);
