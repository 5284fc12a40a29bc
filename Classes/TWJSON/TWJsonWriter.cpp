// SPDX-License-Identifier: GPL-3.0-or-later
#include "Classes/TWJSON/TWJsonWriter.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <numeric>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "Classes/TWJSON/TWJsonDocument.h"
#include "Classes/TWJSON/TWJsonText.h"

using twjson::Document;
using twjson::Node;
using twjson::Tag;

namespace {

constexpr char kHex[] = "0123456789abcdef";
// The two-character escapes, by the byte each stands for; other control bytes get "\u00XX".
constexpr std::pair<char, const char*> kShortEscapes[] = {
    {'"', "\\\""}, {'\\', "\\\\"}, {'\t', "\\t"}, {'\n', "\\n"},
    {'\r', "\\r"}, {'\b', "\\b"},  {'\f', "\\f"}};

// A depth this large can only come from the counter wrapping below zero (no limit set, closing
// indent of a human-readable container): there is no sensible indentation for it.
constexpr quint64 kImpossibleDepth = quint64(1) << 32;

constexpr qsizetype kFirstOutputUnits = 256;
// Output that ends with more unused room than this is trimmed before it is handed out.
constexpr qsizetype kTolerableSlack = 4096;

// Output written through a cursor into a buffer that doubles when full. Text is the QString or
// QByteArray handed out; Unit its code unit.
template <typename Text, typename Unit>
class Sink {
public:
    Sink() { grow(kFirstOutputUnits); }

    void put(char ch) {
        if (next_ == end_)
            grow(1);
        *next_++ = static_cast<Unit>(static_cast<unsigned char>(ch));
    }
    void ascii(const char* bytes, std::size_t n) {
        room(n);
        if constexpr (std::is_same_v<Unit, char>) {
            std::memcpy(next_, bytes, n);
        } else {
            for (std::size_t i = 0; i < n; ++i)
                next_[i] = static_cast<Unit>(static_cast<unsigned char>(bytes[i]));
        }
        next_ += n;
    }
    void repeat(char ch, std::size_t n) {
        room(n);
        std::fill(next_, next_ + n, static_cast<Unit>(ch));
        next_ += n;
    }
    // Text of a document, which may hold lone surrogates only where the document says so.
    void text(std::string_view wtf8, bool loneSurrogates);

    void reset() { next_ = begin(); }
    Text take() {
        text_.truncate(next_ - begin());
        if (text_.capacity() - text_.size() > kTolerableSlack)
            text_.squeeze();
        return std::move(text_);
    }

private:
    Unit* begin() { return reinterpret_cast<Unit*>(text_.data()); }
    void room(std::size_t n) {
        if (static_cast<std::size_t>(end_ - next_) < n)
            grow(n);
    }
    void grow(std::size_t n) {
        const qsizetype used = next_ ? next_ - begin() : 0;
        text_.resize(std::max<qsizetype>(used + static_cast<qsizetype>(n), 2 * text_.size()));
        next_ = begin() + used;
        end_ = begin() + text_.size();
    }

    Text text_;
    Unit* next_ = nullptr;
    Unit* end_ = nullptr;
};

using Utf16Sink = Sink<QString, char16_t>;
using Utf8Sink = Sink<QByteArray, char>;

template <>
void Utf16Sink::text(std::string_view wtf8, bool) {
    room(wtf8.size());
    next_ = twjson::decodeWtf8(wtf8.data(), wtf8.size(), next_);
}

template <>
void Utf8Sink::text(std::string_view wtf8, bool loneSurrogates) {
    std::size_t lone;
    while (loneSurrogates && (lone = twjson::findLoneSurrogate(wtf8)) != std::string_view::npos) {
        ascii(wtf8.data(), lone);
        ascii("\xEF\xBF\xBD", 3);
        wtf8.remove_prefix(lone + 3);
    }
    ascii(wtf8.data(), wtf8.size());
}

template <typename SinkType>
void appendString(std::string_view text, bool loneSurrogates, SinkType& out) {
    out.put('"');
    const char* p = text.data();
    const char* end = p + text.size();
    for (;;) {
        // Ordinary stretches go in whole; only the bytes that need it are escaped.
        const char* stop = twjson::endOfPlainRun(p, end);
        out.text(std::string_view(p, static_cast<std::size_t>(stop - p)), loneSurrogates);
        if (stop == end)
            break;
        const auto shortEscape = std::find_if(std::begin(kShortEscapes), std::end(kShortEscapes),
                                              [&](const auto& e) { return e.first == *stop; });
        if (shortEscape != std::end(kShortEscapes)) {
            out.ascii(shortEscape->second, 2);
        } else {
            const char escaped[] = {
                '\\', 'u', '0', '0', kHex[(*stop >> 4) & 0xF], kHex[*stop & 0xF]};
            out.ascii(escaped, 6);
        }
        p = stop + 1;
    }
    out.put('"');
}

// The text a member's key is sorted and reported by; a key that is not a string goes by its
// number text, if it has one.
std::string_view keyText(const Document* doc, const Node& key, std::string& holder) {
    if (key.tag() != Tag::OtherKey)
        return key.text();
    holder.clear();
    twjson::appendWtf8(holder, doc->extras->otherKeys[key.count()].numberText());
    return holder;
}

}  // namespace

QString TWJsonWriter::stringWithFragment(const TWJsonValue& value) {
    Utf16Sink out;
    return writeFragment(value, out) ? out.take() : QString();
}

QString TWJsonWriter::stringWithObject(const TWJsonValue& value) {
    Utf16Sink out;
    return writeObject(value, out) ? out.take() : QString();
}

QByteArray TWJsonWriter::utf8WithFragment(const TWJsonValue& value) {
    Utf8Sink out;
    return writeFragment(value, out) ? out.take() : QByteArray();
}

QByteArray TWJsonWriter::utf8WithObject(const TWJsonValue& value) {
    Utf8Sink out;
    return writeObject(value, out) ? out.take() : QByteArray();
}

template <typename SinkType>
bool TWJsonWriter::writeFragment(const TWJsonValue& value, SinkType& out) {
    clearErrorTrace();
    depth_ = 0;
    out.reset();
    return appendValue(twjson::Access::document(value), twjson::Access::node(value), out);
}

template <typename SinkType>
bool TWJsonWriter::writeObject(const TWJsonValue& value, SinkType& out) {
    if (value.isDictionary() || value.isArray())
        return writeFragment(value, out);
    if (value.isCustom()) {
        if (auto proxy = value.customObject()->proxyForJson()) {
            if (writeObject(*proxy, out))
                return true;
        }
    }
    clearErrorTrace();
    addErrorWithCode(TWJsonErrorFragment, QStringLiteral("Not valid type for JSON"));
    return false;
}

template <typename SinkType>
bool TWJsonWriter::appendValue(const Document* doc, const Node& value, SinkType& out) {
    switch (value.tag()) {
        case Tag::Dictionary:
            return appendDictionary(doc, value, out);
        case Tag::Array:
            return appendArray(doc, value, out);
        case Tag::ShortString:
        case Tag::LongString:
            appendString(value.text(), doc->loneSurrogates, out);
            return true;
        case Tag::True:
            out.ascii("true", 4);
            return true;
        case Tag::False:
            out.ascii("false", 5);
            return true;
        case Tag::ShortNumber:
        case Tag::LongNumber:
            out.text(value.text(), doc->loneSurrogates);
            return true;
        case Tag::Null:
        case Tag::OtherKey:
            out.ascii("null", 4);
            return true;
        case Tag::Custom:
            break;
    }
    const auto& object = doc->extras->customs[value.count()];
    if (auto proxy = object->proxyForJson()) {
        // The substitute's own failure stays in the trace, but does not fail this value.
        appendValue(twjson::Access::document(*proxy), twjson::Access::node(*proxy), out);
        return true;
    }
    addErrorWithCode(
        TWJsonErrorUnsupported,
        QStringLiteral("JSON serialisation not supported for %1").arg(object->className()));
    return false;
}

bool TWJsonWriter::enterContainer() {
    if (maxDepth() != 0 && ++depth_ > maxDepth()) {
        addErrorWithCode(TWJsonErrorDepth, QStringLiteral("Nested too deep"));
        return false;
    }
    return true;
}

template <typename SinkType>
void TWJsonWriter::appendIndent(SinkType& out) const {
    if (depth_ >= kImpossibleDepth)
        throw std::length_error("TWJsonWriter: impossible indent");
    out.put('\n');
    out.repeat(' ', static_cast<std::size_t>(2 * depth_));
}

template <typename SinkType>
bool TWJsonWriter::appendArray(const Document* doc, const Node& array, SinkType& out) {
    if (!enterContainer())
        return false;
    out.put('[');
    const Node* elements = array.items();
    const std::uint64_t count = array.count();
    for (std::uint64_t i = 0; i < count; ++i) {
        if (i > 0)
            out.put(',');
        if (humanReadable_)
            appendIndent(out);
        if (!appendValue(doc, elements[i], out))
            return false;
    }
    --depth_;
    if (humanReadable_ && count > 0)
        appendIndent(out);
    out.put(']');
    return true;
}

template <typename SinkType>
bool TWJsonWriter::appendDictionary(const Document* doc, const Node& dictionary, SinkType& out) {
    if (!enterContainer())
        return false;
    out.put('{');
    const std::uint64_t count = dictionary.count();
    // Members in insertion order need no index list; sorted ones are walked through one.
    std::vector<std::uint64_t> order;
    if (sortKeys_) {
        std::vector<std::string> holders(count);
        std::vector<std::string_view> texts(count);
        for (std::uint64_t i = 0; i < count; ++i)
            texts[i] = keyText(doc, twjson::keyAt(dictionary, i), holders[i]);
        order.resize(count);
        std::iota(order.begin(), order.end(), 0);
        std::stable_sort(order.begin(), order.end(), [&](std::uint64_t a, std::uint64_t b) {
            return twjson::compareAsUtf16(texts[a], texts[b]) < 0;
        });
    }
    for (std::uint64_t n = 0; n < count; ++n) {
        const std::uint64_t i = sortKeys_ ? order[n] : n;
        const Node& key = twjson::keyAt(dictionary, i);
        if (n > 0)
            out.put(',');
        if (humanReadable_)
            appendIndent(out);
        if (key.tag() == Tag::OtherKey) {
            addErrorWithCode(TWJsonErrorUnsupported,
                             QStringLiteral("JSON object key must be string"));
            return false;
        }
        appendString(key.text(), doc->loneSurrogates, out);
        if (humanReadable_) {
            out.ascii(" : ", 3);
        } else {
            out.put(':');
        }
        if (!appendValue(doc, twjson::valueAt(dictionary, i), out)) {
            addErrorWithCode(TWJsonErrorUnsupported,
                             QStringLiteral("Unsupported value for key %1 in object")
                                 .arg(twjson::qstringFromWtf8(key.text())));
            return false;
        }
    }
    --depth_;
    if (humanReadable_ && count > 0)
        appendIndent(out);
    out.put('}');
    return true;
}
