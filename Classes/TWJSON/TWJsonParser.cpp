// SPDX-License-Identifier: GPL-3.0-or-later
#include "Classes/TWJSON/TWJsonParser.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "Classes/TWJSON/TWJsonDocument.h"
#include "Classes/TWJSON/TWJsonText.h"
#include "foundation/Log.h"

using twjson::Node;
using twjson::Tag;

namespace {

struct SpaceBytes {
    bool space[256] = {};
    constexpr SpaceBytes() {
        for (unsigned char b : {' ', '\t', '\n', '\v', '\f', '\r'})
            space[b] = true;
    }
};
constexpr SpaceBytes kSpaces;

inline bool isDigit(char ch) {
    return ch >= '0' && ch <= '9';
}

constexpr std::size_t kFirstStackNodes = 256;
// A parse that needed more stack than this gives it back when done.
constexpr std::size_t kKeptStackNodes = 64 * 1024;
// A container at least this large, opened near the bottom of the stack, takes over the stack's
// own block instead of being copied out of it: a huge top-level array is never held twice.
constexpr std::size_t kHandOverBytes = 1024 * 1024;

}  // namespace

bool isValidUTF8(const char* bytes, qsizetype length) {
    const auto* p = reinterpret_cast<const unsigned char*>(bytes);
    const unsigned char* end = p + length;
    auto continuation = [](unsigned char b) { return (b & 0xC0) == 0x80; };
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
        } else if (lead < 0xC2) {
            return false;  // a continuation byte, or an overlong two-byte form
        } else if (lead < 0xE0) {
            if (end - p < 2 || !continuation(p[1]))
                return false;
            p += 2;
        } else if (lead < 0xF0) {
            if (end - p < 3 || !continuation(p[1]) || !continuation(p[2]))
                return false;
            if ((lead == 0xE0 && p[1] < 0xA0) || (lead == 0xED && p[1] >= 0xA0))
                return false;  // overlong, or a surrogate
            p += 3;
        } else if (lead < 0xF5) {
            if (end - p < 4 || !continuation(p[1]) || !continuation(p[2]) || !continuation(p[3]))
                return false;
            if ((lead == 0xF0 && p[1] < 0x90) || (lead == 0xF4 && p[1] >= 0x90))
                return false;  // overlong, or past U+10FFFF
            p += 4;
        } else {
            return false;
        }
    }
    return true;
}

TWJsonParser::~TWJsonParser() {
    std::free(stack_);
}

std::optional<TWJsonValue> TWJsonParser::fragmentWithString(const QString& string) {
    clearErrorTrace();
    if (string.isNull()) {
        addErrorWithCode(TWJsonErrorNilInput, QStringLiteral("Input was 'nil'"));
        return std::nullopt;
    }
    return parse(string.toUtf8());
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
    return parse(utf8);
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

std::optional<TWJsonValue> TWJsonParser::parse(const QByteArray& utf8) {
    depth_ = 0;
    top_ = 0;
    c_ = utf8.constData();
    end_ = c_ + utf8.size();
    auto doc = std::make_unique<twjson::Document>();
    doc_ = doc.get();
    Node value;
    const bool complete = scanValue(value) && scanIsAtEnd();
    top_ = 0;
    doc_ = nullptr;
    c_ = end_ = nullptr;
    if (capacity_ > kKeptStackNodes) {
        std::free(stack_);
        stack_ = nullptr;
        capacity_ = 0;
    }
    if (!complete) {
        if (!errorTrace()) {
            addErrorWithCode(TWJsonErrorTrailingGarbage, QStringLiteral("Garbage after JSON"));
        }
        return std::nullopt;
    }
    doc->root = value;
    if (value.tag() == Tag::Array || value.tag() == Tag::Dictionary)
        doc->rootCapacity = value.count();
    return twjson::Access::adoptRoot(doc.release());
}

void TWJsonParser::skipWhitespace() {
    while (kSpaces.space[static_cast<unsigned char>(*c_)])
        ++c_;
}

bool TWJsonParser::scanIsAtEnd() {
    skipWhitespace();
    return *c_ == '\0';
}

bool TWJsonParser::scanValue(Node& out) {
    skipWhitespace();
    const char ch = *c_++;
    switch (ch) {
        case '{':
            return scanRestOfDictionary(out);
        case '[':
            return scanRestOfArray(out);
        case '"':
            return scanRestOfString(out);
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

bool TWJsonParser::scanRestOfTrue(Node& out) {
    if (std::strncmp(c_, "rue", 3) == 0) {
        c_ += 3;
        out = twjson::kTrueNode;
        return true;
    }
    addErrorWithCode(TWJsonErrorParse, QStringLiteral("Expected 'true'"));
    return false;
}

bool TWJsonParser::scanRestOfFalse(Node& out) {
    if (std::strncmp(c_, "alse", 4) == 0) {
        c_ += 4;
        out = twjson::kFalseNode;
        return true;
    }
    addErrorWithCode(TWJsonErrorParse, QStringLiteral("Expected 'false'"));
    return false;
}

bool TWJsonParser::scanRestOfNull(Node& out) {
    if (std::strncmp(c_, "ull", 3) == 0) {
        c_ += 3;
        out = twjson::kNullNode;
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

void TWJsonParser::push(const Node& node) {
    if (top_ == capacity_) {
        const std::size_t capacity = std::max(kFirstStackNodes, capacity_ * 2);
        void* grown = std::realloc(stack_, capacity * sizeof(Node));
        if (!grown)
            throw std::bad_alloc();
        stack_ = static_cast<Node*>(grown);
        capacity_ = capacity;
    }
    stack_[top_++] = node;
}

Node* TWJsonParser::takeItems(std::size_t base) {
    const std::size_t n = top_ - base;
    if (n == 0)
        return nullptr;
    if (n * sizeof(Node) >= kHandOverBytes && base * 4 <= n) {
        const std::size_t keep = std::max(kFirstStackNodes, base * 2);
        auto* fresh = static_cast<Node*>(std::malloc(keep * sizeof(Node)));
        if (!fresh)
            throw std::bad_alloc();
        if (base)
            std::memcpy(fresh, stack_, base * sizeof(Node));
        const std::size_t bytes = top_ * sizeof(Node);
        void* block = std::realloc(stack_, bytes);
        if (!block)
            block = stack_;
        stack_ = fresh;
        capacity_ = keep;
        top_ = base;
        doc_->arena.adopt(block, bytes);
        return static_cast<Node*>(block) + base;
    }
    Node* items = doc_->arena.allocateNodes(n);
    std::memcpy(items, stack_ + base, n * sizeof(Node));
    top_ = base;
    return items;
}

bool TWJsonParser::scanRestOfArray(Node& out) {
    if (!enterContainer())
        return false;
    // Elements wait on the parser's stack, so the array is stored once, at its final size.
    const std::size_t base = top_;
    while (*c_ != '\0') {
        skipWhitespace();
        if (*c_ == ']') {
            ++c_;
            --depth_;
            const std::size_t n = top_ - base;
            out = Node::of(Tag::Array, takeItems(base), n);
            return true;
        }
        Node element;
        if (!scanValue(element)) {
            addErrorWithCode(TWJsonErrorParse,
                             QStringLiteral("Expected value while parsing array"));
            return false;
        }
        push(element);
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

void TWJsonParser::addMember(std::size_t base, std::unique_ptr<twjson::KeyIndex>& index,
                             const Node& key, const Node& value) {
    const std::size_t count = (top_ - base) / 2;
    std::uint64_t at = twjson::kNotFound;
    if (index) {
        at = index->find(stack_ + base, key);
    } else {
        for (std::size_t i = 0; i < count; ++i) {
            if (twjson::sameKey(stack_[base + 2 * i], key)) {
                at = i;
                break;
            }
        }
    }
    if (at != twjson::kNotFound) {
        stack_[base + 2 * at + 1] = value;
        return;
    }
    push(key);
    push(value);
    if (index) {
        index->add(stack_ + base, count);
    } else if (count + 1 > twjson::kIndexThreshold) {
        index =
            std::make_unique<twjson::KeyIndex>(twjson::KeyIndex::over(stack_ + base, count + 1));
    }
}

bool TWJsonParser::scanRestOfDictionary(Node& out) {
    if (!enterContainer())
        return false;
    const std::size_t base = top_;
    // Large dictionaries find repeated keys through an index, which the document then keeps.
    std::unique_ptr<twjson::KeyIndex> index;
    while (*c_ != '\0') {
        skipWhitespace();
        if (*c_ == '}') {
            ++c_;
            --depth_;
            const std::size_t n = (top_ - base) / 2;
            Node* members = takeItems(base);
            if (index)
                doc_->ensureExtras().indexes.emplace(members, std::move(*index));
            out = Node::of(Tag::Dictionary, members, n);
            return true;
        }
        Node key;
        if (*c_ != '"' || (++c_, !scanRestOfString(key))) {
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
        Node value;
        if (!scanValue(value)) {
            addErrorWithCode(TWJsonErrorParse, QStringLiteral("Object value expected for key: %1")
                                                   .arg(twjson::qstringFromWtf8(key.text())));
            return false;
        }
        addMember(base, index, key, value);
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

bool TWJsonParser::scanRestOfString(Node& out) {
    // The common string has no escape: one run, then the closing quote.
    const char* start = c_;
    c_ = twjson::endOfPlainRun(c_, end_);
    if (*c_ == '"') {
        out = doc_->text(true, std::string_view(start, static_cast<std::size_t>(c_ - start)));
        ++c_;
        return true;
    }
    return scanEscapedString(start, out);
}

// Input arrives as valid UTF-8 and runs end only at ASCII bytes, so every run is whole text.
bool TWJsonParser::scanEscapedString(const char* start, Node& out) {
    scratch_.assign(start, static_cast<std::size_t>(c_ - start));
    for (;;) {
        const signed char ch = static_cast<signed char>(*c_);
        if (ch == '"') {
            ++c_;
            out = doc_->text(true, scratch_);
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
                    if (unit >= 0xD800 && unit <= 0xDFFF)
                        doc_->loneSurrogates = true;
                    --c_;
                    break;
                default:
                    addErrorWithCode(TWJsonErrorEscape,
                                     QStringLiteral("Illegal escape sequence '0x%1'")
                                         .arg(static_cast<quint16>(unit), 0, 16));
                    return false;
            }
            twjson::appendUnitWtf8(scratch_, unit);
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
        c_ = twjson::endOfPlainRun(c_, end_);
        scratch_.append(start, static_cast<std::size_t>(c_ - start));
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

bool TWJsonParser::scanNumber(Node& out) {
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
    out = doc_->text(false, std::string_view(start, static_cast<std::size_t>(c_ - start)));
    return true;
}
