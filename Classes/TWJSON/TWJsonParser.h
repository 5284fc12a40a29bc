#pragma once

#include <QByteArray>
#include <QString>
#include <memory>
#include <optional>
#include <vector>

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
    std::optional<TWJsonValue> parse(std::shared_ptr<const QByteArray> source);
    QString keyFromRun(const char* start, qsizetype length);
    const char* endOfRun(const char* p) const;
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
    const char* end_ = nullptr;  // the terminating NUL
    // The input, shared by every number of the result (numbers wrap its bytes).
    std::shared_ptr<const QByteArray> source_;
    // Elements of the arrays still open, innermost last.
    std::vector<TWJsonValue> pending_;

    // Recently seen object keys: documents repeat their keys, and a key met again is shared
    // instead of decoded and allocated anew. Emptied for every input.
    struct KeySlot {
        const char* bytes = nullptr;
        qsizetype length = 0;
        QString key;
    };
    static constexpr std::size_t kKeySlots = 256;
    std::vector<KeySlot> keyCache_ = std::vector<KeySlot>(kKeySlots);
};

// Whether bytes are well-formed UTF-8 (no overlong forms, no surrogates, nothing past U+10FFFF).
bool isValidUTF8(const char* bytes, qsizetype length);
