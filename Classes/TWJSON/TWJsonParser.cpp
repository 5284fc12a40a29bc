#include "Classes/TWJSON/TWJsonParser.h"

#include <cstring>

#include "foundation/Log.h"

namespace {

// The bytes that end a run of ordinary string bytes: NUL, the control bytes, the double quote
// and the backslash.
struct ByteTables {
    bool stop[256] = {};
    bool space[256] = {};
    constexpr ByteTables() {
        for (int b = 0; b < 0x20; ++b)
            stop[b] = true;
        stop[static_cast<unsigned char>('"')] = true;
        stop[static_cast<unsigned char>('\\')] = true;
        for (unsigned char b : {' ', '\t', '\n', '\v', '\f', '\r'})
            space[b] = true;
    }
};
constexpr ByteTables kTables;

inline bool isDigit(char ch) {
    return ch >= '0' && ch <= '9';
}

// Appends a run of valid UTF-8; ASCII runs go in without a temporary string.
void appendUtf8(QString& out, const char* run, qsizetype length) {
    bool ascii = true;
    for (qsizetype i = 0; i < length && ascii; ++i)
        ascii = static_cast<signed char>(run[i]) >= 0;
    if (ascii) {
        out.append(QLatin1String(run, length));
    } else {
        out.append(QString::fromUtf8(run, length));
    }
}

}  // namespace

bool isValidUTF8(const char* bytes, qsizetype length) {
    const auto* p = reinterpret_cast<const unsigned char*>(bytes);
    const unsigned char* end = p + length;
    while (p < end) {
        // ASCII goes eight bytes at a time.
        while (end - p >= 8) {
            quint64 block;
            std::memcpy(&block, p, 8);
            if (block & 0x8080808080808080ULL)
                break;
            p += 8;
        }
        if (p >= end)
            break;
        const unsigned char lead = *p;
        if (lead < 0x80) {
            ++p;
            continue;
        }
        int extra;
        unsigned int min;
        unsigned int cp;
        if ((lead & 0xE0) == 0xC0) {
            extra = 1, min = 0x80, cp = lead & 0x1F;
        } else if ((lead & 0xF0) == 0xE0) {
            extra = 2, min = 0x800, cp = lead & 0x0F;
        } else if ((lead & 0xF8) == 0xF0) {
            extra = 3, min = 0x10000, cp = lead & 0x07;
        } else {
            return false;
        }
        if (end - p <= extra)
            return false;
        for (int i = 1; i <= extra; ++i) {
            if ((p[i] & 0xC0) != 0x80)
                return false;
            cp = (cp << 6) | (p[i] & 0x3F);
        }
        if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        p += extra + 1;
    }
    return true;
}

std::optional<TWJsonValue> TWJsonParser::fragmentWithString(const QString& string) {
    clearErrorTrace();
    if (string.isNull()) {
        addErrorWithCode(TWJsonErrorNilInput, QStringLiteral("Input was 'nil'"));
        return std::nullopt;
    }
    return parse(std::make_shared<const QByteArray>(string.toUtf8()));
}

std::optional<TWJsonValue> TWJsonParser::objectWithString(const QString& string) {
    return onlyContainers(fragmentWithString(string));
}

std::optional<TWJsonValue> TWJsonParser::fragmentWithUTF8(const QByteArray& utf8) {
    clearErrorTrace();
    if (utf8.isNull() || !isValidUTF8(utf8.constData(), utf8.size())) {
        addErrorWithCode(TWJsonErrorNilInput, QStringLiteral("Input was 'nil'"));
        return std::nullopt;
    }
    return parse(std::make_shared<const QByteArray>(utf8));
}

std::optional<TWJsonValue> TWJsonParser::objectWithUTF8(const QByteArray& utf8) {
    return onlyContainers(fragmentWithUTF8(utf8));
}

std::optional<TWJsonValue> TWJsonParser::onlyContainers(std::optional<TWJsonValue> value) {
    if (!value)
        return std::nullopt;
    if (!value->isDictionary() && !value->isArray()) {
        addErrorWithCode(TWJsonErrorFragment, QStringLiteral("Valid fragment, but not JSON"));
        return std::nullopt;
    }
    return value;
}

std::optional<TWJsonValue> TWJsonParser::parse(std::shared_ptr<const QByteArray> source) {
    depth_ = 0;
    source_ = std::move(source);
    c_ = source_->constData();
    end_ = c_ + source_->size();
    for (KeySlot& slot : keyCache_)
        slot = KeySlot();
    TWJsonValue value;
    const bool complete = scanValue(value) && scanIsAtEnd();
    pending_.clear();  // what a failed parse left there
    // Numbers of the result keep the input alive; the parser lets go of it.
    source_.reset();
    if (!complete) {
        if (!errorTrace()) {
            addErrorWithCode(TWJsonErrorTrailingGarbage, QStringLiteral("Garbage after JSON"));
        }
        return std::nullopt;
    }
    return value;
}

void TWJsonParser::skipWhitespace() {
    while (kTables.space[static_cast<unsigned char>(*c_)])
        ++c_;
}

bool TWJsonParser::scanIsAtEnd() {
    skipWhitespace();
    return *c_ == '\0';
}

bool TWJsonParser::scanValue(TWJsonValue& out) {
    skipWhitespace();
    const char ch = *c_++;
    switch (ch) {
        case '{':
            return scanRestOfDictionary(out);
        case '[':
            return scanRestOfArray(out);
        case '"': {
            QString text;
            if (!scanRestOfString(text))
                return false;
            out = TWJsonValue::string(std::move(text));
            return true;
        }
        case 't':
            return scanRestOfTrue(out);
        case 'f':
            return scanRestOfFalse(out);
        case 'n':
            return scanRestOfNull(out);
        case '-':
        case '0':
        case '1':
        case '2':
        case '3':
        case '4':
        case '5':
        case '6':
        case '7':
        case '8':
        case '9':
            --c_;
            return scanNumber(out);
        case '+':
            addErrorWithCode(TWJsonErrorNumber, QStringLiteral("Leading + disallowed in number"));
            return false;
        case '\0':
            addErrorWithCode(TWJsonErrorEndOfInput, QStringLiteral("Unexpected end of string"));
            return false;
        default:
            addErrorWithCode(TWJsonErrorParse, QStringLiteral("Unrecognised leading character"));
            return false;
    }
}

bool TWJsonParser::scanRestOfTrue(TWJsonValue& out) {
    if (std::strncmp(c_, "rue", 3) == 0) {
        c_ += 3;
        out = TWJsonValue::boolean(true);
        return true;
    }
    addErrorWithCode(TWJsonErrorParse, QStringLiteral("Expected 'true'"));
    return false;
}

bool TWJsonParser::scanRestOfFalse(TWJsonValue& out) {
    if (std::strncmp(c_, "alse", 4) == 0) {
        c_ += 4;
        out = TWJsonValue::boolean(false);
        return true;
    }
    addErrorWithCode(TWJsonErrorParse, QStringLiteral("Expected 'false'"));
    return false;
}

bool TWJsonParser::scanRestOfNull(TWJsonValue& out) {
    if (std::strncmp(c_, "ull", 3) == 0) {
        c_ += 3;
        out = TWJsonValue::null();
        return true;
    }
    addErrorWithCode(TWJsonErrorParse, QStringLiteral("Expected 'null'"));
    return false;
}

// The depth counter rises only while a limit is set, but every close lowers it.
bool TWJsonParser::enterContainer() {
    if (maxDepth() != 0 && ++depth_ > maxDepth()) {
        addErrorWithCode(TWJsonErrorDepth, QStringLiteral("Nested too deep"));
        return false;
    }
    return true;
}

bool TWJsonParser::scanRestOfArray(TWJsonValue& out) {
    if (!enterContainer())
        return false;
    // Elements wait on the parser's shared stack, so the array is allocated once, at its final
    // size, instead of growing element by element.
    const std::size_t base = pending_.size();
    while (*c_ != '\0') {
        skipWhitespace();
        if (*c_ == ']') {
            ++c_;
            --depth_;
            const auto first = pending_.begin() + static_cast<std::ptrdiff_t>(base);
            out = TWJsonValue::array(std::vector<TWJsonValue>(
                std::make_move_iterator(first), std::make_move_iterator(pending_.end())));
            pending_.erase(first, pending_.end());
            return true;
        }
        TWJsonValue element;
        if (!scanValue(element)) {
            addErrorWithCode(TWJsonErrorParse,
                             QStringLiteral("Expected value while parsing array"));
            return false;
        }
        pending_.push_back(std::move(element));
        skipWhitespace();
        // A missing comma is not an error: "[1 2]" has two elements.
        if (*c_ == ',') {
            ++c_;
            skipWhitespace();
            if (*c_ == ']') {
                addErrorWithCode(TWJsonErrorTrailingComma,
                                 QStringLiteral("Trailing comma disallowed in array"));
                return false;
            }
        }
    }
    addErrorWithCode(TWJsonErrorEndOfInput, QStringLiteral("End of input while parsing array"));
    return false;
}

bool TWJsonParser::scanRestOfDictionary(TWJsonValue& out) {
    if (!enterContainer())
        return false;
    TWJsonValue dictionary = TWJsonValue::dictionary();
    while (*c_ != '\0') {
        skipWhitespace();
        if (*c_ == '}') {
            ++c_;
            --depth_;
            out = std::move(dictionary);
            return true;
        }
        QString key;
        const char* keyStart = c_ + 1;
        const char* keyEnd = *c_ == '"' ? endOfRun(keyStart) : nullptr;
        if (keyEnd && *keyEnd == '"') {
            key = keyFromRun(keyStart, keyEnd - keyStart);
            c_ = keyEnd + 1;
        } else if (*c_ != '"' || (++c_, !scanRestOfString(key))) {
            addErrorWithCode(TWJsonErrorParse, QStringLiteral("Object key string expected"));
            return false;
        }
        skipWhitespace();
        if (*c_ != ':') {
            addErrorWithCode(TWJsonErrorParse,
                             QStringLiteral("Expected ':' separating key and value"));
            return false;
        }
        ++c_;
        TWJsonValue value;
        if (!scanValue(value)) {
            addErrorWithCode(TWJsonErrorParse,
                             QStringLiteral("Object value expected for key: %1").arg(key));
            return false;
        }
        dictionary.insert(std::move(key), std::move(value));
        skipWhitespace();
        if (*c_ == ',') {
            ++c_;
            skipWhitespace();
            if (*c_ == '}') {
                addErrorWithCode(TWJsonErrorTrailingComma,
                                 QStringLiteral("Trailing comma disallowed in object"));
                return false;
            }
        }
    }
    addErrorWithCode(TWJsonErrorEndOfInput, QStringLiteral("End of input while parsing object"));
    return false;
}

// The first byte at or after p that ends a run of ordinary string bytes. Eight bytes are tested
// at once while they lie before the end of the input.
const char* TWJsonParser::endOfRun(const char* p) const {
    constexpr quint64 ones = 0x0101010101010101ULL;
    constexpr quint64 highs = 0x8080808080808080ULL;
    while (end_ - p >= 8) {
        quint64 v;
        std::memcpy(&v, p, 8);
        const quint64 quote = v ^ (ones * '"');
        const quint64 backslash = v ^ (ones * '\\');
        const quint64 control = (v - ones * 0x20) & ~v;
        const quint64 stops =
            (((quote - ones) & ~quote) | ((backslash - ones) & ~backslash) | control) & highs;
        if (stops)
            break;
        p += 8;
    }
    while (!kTables.stop[static_cast<unsigned char>(*p)])
        ++p;
    return p;
}

QString TWJsonParser::keyFromRun(const char* start, qsizetype length) {
    if (length > 48)
        return QString::fromUtf8(start, length);
    std::size_t hash = 14695981039346656037ULL;
    for (qsizetype i = 0; i < length; ++i) {
        hash = (hash ^ static_cast<unsigned char>(start[i])) * 1099511628211ULL;
    }
    KeySlot& slot = keyCache_[hash % kKeySlots];
    if (slot.bytes && slot.length == length && std::memcmp(slot.bytes, start, length) == 0) {
        return slot.key;
    }
    slot.bytes = start;
    slot.length = length;
    slot.key = QString::fromUtf8(start, length);
    return slot.key;
}

bool TWJsonParser::scanRestOfString(QString& out) {
    // The common string has no escape: one run, then the closing quote.
    const char* start = c_;
    while (!kTables.stop[static_cast<unsigned char>(*c_)])
        ++c_;
    if (*c_ == '"') {
        out = QString::fromUtf8(start, c_ - start);
        ++c_;
        return true;
    }
    QString result;
    result.reserve(std::max<qsizetype>(16, (c_ - start) + 16));
    // Input arrives as valid UTF-8 and runs end only at ASCII bytes, so every run decodes.
    if (c_ != start)
        appendUtf8(result, start, c_ - start);
    for (;;) {
        const signed char ch = static_cast<signed char>(*c_);
        if (ch == '"') {
            ++c_;
            out = std::move(result);
            return true;
        }
        if (ch == '\\') {
            ++c_;
            char16_t unit =
                static_cast<char16_t>(static_cast<qint16>(static_cast<signed char>(*c_)));
            switch (*c_) {
                case '"':
                case '/':
                case '\\':
                    break;
                case 'b':
                    unit = 0x08;
                    break;
                case 'f':
                    unit = 0x0C;
                    break;
                case 'n':
                    unit = 0x0A;
                    break;
                case 'r':
                    unit = 0x0D;
                    break;
                case 't':
                    unit = 0x09;
                    break;
                case 'u':
                    ++c_;
                    if (!scanUnicodeChar(unit)) {
                        addErrorWithCode(TWJsonErrorUnicode,
                                         QStringLiteral("Broken unicode character"));
                        return false;
                    }
                    --c_;
                    break;
                default:
                    addErrorWithCode(TWJsonErrorEscape,
                                     QStringLiteral("Illegal escape sequence '0x%1'")
                                         .arg(static_cast<quint16>(unit), 0, 16));
                    return false;
            }
            result.append(QChar(unit));
            ++c_;
        } else if (ch < 0x20) {
            addErrorWithCode(TWJsonErrorControlChar,
                             QStringLiteral("Unescaped control character '0x%1'")
                                 .arg(static_cast<quint32>(static_cast<qint32>(ch)), 0, 16));
            return false;
        } else {
            foundation::log(QStringLiteral("should not be able to get here"));
        }
        if (*c_ == '\0') {
            addErrorWithCode(TWJsonErrorEndOfInput,
                             QStringLiteral("Unexpected EOF while parsing string"));
            return false;
        }
        start = c_;
        while (!kTables.stop[static_cast<unsigned char>(*c_)])
            ++c_;
        if (c_ != start)
            appendUtf8(result, start, c_ - start);
    }
}

bool TWJsonParser::scanUnicodeChar(char16_t& out) {
    char16_t hi;
    if (!scanHexQuad(hi)) {
        addErrorWithCode(TWJsonErrorUnicode, QStringLiteral("Missing hex quad"));
        return false;
    }
    if (hi <= 0xD7FF || hi >= 0xE000) {
        out = hi;
        return true;
    }
    if (hi >= 0xDC00) {
        addErrorWithCode(TWJsonErrorUnicode,
                         QStringLiteral("Invalid high character in surrogate pair"));
        return false;
    }
    char16_t lo;
    const bool backslash = *c_ == '\\' && (++c_, true);
    const bool u = backslash && *c_ == 'u' && (++c_, true);
    if (!u || !scanHexQuad(lo)) {
        addErrorWithCode(TWJsonErrorUnicode,
                         QStringLiteral("Missing low character in surrogate pair"));
        return false;
    }
    // 0xDFFF is refused on purpose.
    if (lo < 0xDC00 || lo > 0xDFFE) {
        addErrorWithCode(TWJsonErrorUnicode, QStringLiteral("Invalid low surrogate char"));
        return false;
    }
    // The low 16 bits of the supplementary code point; no surrogate pair is ever produced.
    out = static_cast<char16_t>(((static_cast<quint32>(hi) << 10) + lo + 0x2400) & 0xFFFF);
    return true;
}

bool TWJsonParser::scanHexQuad(char16_t& out) {
    out = 0;
    for (int i = 0; i < 4; ++i) {
        const char ch = *c_++;
        int digit;
        if (ch >= '0' && ch <= '9') {
            digit = ch - '0';
        } else if (ch >= 'a' && ch <= 'f') {
            digit = ch - 'a' + 10;
        } else if (ch >= 'A' && ch <= 'F') {
            digit = ch - 'A' + 10;
        } else {
            addErrorWithCode(TWJsonErrorUnicode, QStringLiteral("Missing hex digit in quad"));
            return false;
        }
        out = static_cast<char16_t>(out * 16 + digit);
    }
    return true;
}

bool TWJsonParser::scanNumber(TWJsonValue& out) {
    const char* start = c_;
    if (*c_ == '-')
        ++c_;
    if (*c_ == '0') {
        ++c_;
        if (isDigit(*c_)) {
            addErrorWithCode(TWJsonErrorNumber, QStringLiteral("Leading 0 disallowed in number"));
            return false;
        }
    } else {
        if (!isDigit(*c_) && c_ != start) {
            addErrorWithCode(TWJsonErrorNumber, QStringLiteral("No digits after initial minus"));
            return false;
        }
        while (isDigit(*c_))
            ++c_;
    }
    if (*c_ == '.') {
        ++c_;
        if (!isDigit(*c_)) {
            addErrorWithCode(TWJsonErrorNumber, QStringLiteral("No digits after decimal point"));
            return false;
        }
        while (isDigit(*c_))
            ++c_;
    }
    if (*c_ == 'e' || *c_ == 'E') {
        ++c_;
        if (*c_ == '-' || *c_ == '+')
            ++c_;
        if (!isDigit(*c_)) {
            addErrorWithCode(TWJsonErrorNumber, QStringLiteral("No digits after exponent"));
            return false;
        }
        while (isDigit(*c_))
            ++c_;
    }
    // The decimal keeps the literal's exact text, so it never fails to be made.
    out = TWJsonValue::number(source_, static_cast<quint32>(start - source_->constData()),
                              static_cast<quint32>(c_ - start));
    return true;
}
