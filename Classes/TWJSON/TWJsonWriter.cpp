#include "Classes/TWJSON/TWJsonWriter.h"

#include <algorithm>
#include <numeric>
#include <stdexcept>

namespace {

inline bool needsEscape(char16_t unit) {
    return unit < 0x20 || unit == '"' || unit == '\\';
}

constexpr char kHex[] = "0123456789abcdef";

// A depth this large can only come from the counter wrapping below zero (no limit set, closing
// indent of a human-readable container): there is no sensible indentation for it.
constexpr quint64 kImpossibleDepth = quint64(1) << 32;

}  // namespace

QString TWJsonWriter::stringWithFragment(const TWJsonValue& value) {
    clearErrorTrace();
    depth_ = 0;
    QString out;
    out.reserve(128);
    if (!appendValue(value, out))
        return QString();
    return out;
}

QString TWJsonWriter::stringWithObject(const TWJsonValue& value) {
    if (value.isDictionary() || value.isArray())
        return stringWithFragment(value);
    if (value.isCustom()) {
        if (auto proxy = value.customObject()->proxyForJson()) {
            QString text = stringWithObject(*proxy);
            if (!text.isNull())
                return text;
        }
    }
    clearErrorTrace();
    addErrorWithCode(TWJsonErrorFragment, QStringLiteral("Not valid type for JSON"));
    return QString();
}

bool TWJsonWriter::appendValue(const TWJsonValue& value, QString& out) {
    switch (value.type()) {
        case TWJsonValue::Type::Dictionary:
            return appendDictionary(value, out);
        case TWJsonValue::Type::Array:
            return appendArray(value, out);
        case TWJsonValue::Type::String:
            return appendString(value.stringValue(), out);
        case TWJsonValue::Type::Boolean:
            out.append(value.boolValue() ? QLatin1String("true") : QLatin1String("false"));
            return true;
        case TWJsonValue::Type::Number:
            value.appendNumberText(out);
            return true;
        case TWJsonValue::Type::Null:
            out.append(QLatin1String("null"));
            return true;
        case TWJsonValue::Type::Custom:
            break;
    }
    const auto& object = value.customObject();
    if (auto proxy = object->proxyForJson()) {
        // The substitute's own failure stays in the trace, but does not fail this value.
        appendValue(*proxy, out);
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

QString TWJsonWriter::indent() const {
    QString text;
    appendIndent(text);
    return text;
}

void TWJsonWriter::appendIndent(QString& out) const {
    if (depth_ >= kImpossibleDepth)
        throw std::length_error("TWJsonWriter: impossible indent");
    out.append(QLatin1Char('\n'));
    out.append(QString(static_cast<qsizetype>(2 * depth_), QLatin1Char(' ')));
}

bool TWJsonWriter::appendArray(const TWJsonValue& array, QString& out) {
    if (!enterContainer())
        return false;
    out.append(QLatin1Char('['));
    bool first = true;
    for (const TWJsonValue& element : array.elements()) {
        if (!first)
            out.append(QLatin1Char(','));
        first = false;
        if (humanReadable_)
            appendIndent(out);
        if (!appendValue(element, out))
            return false;
    }
    --depth_;
    if (humanReadable_ && array.count() > 0)
        appendIndent(out);
    out.append(QLatin1Char(']'));
    return true;
}

bool TWJsonWriter::appendDictionary(const TWJsonValue& dictionary, QString& out) {
    if (!enterContainer())
        return false;
    out.append(QLatin1Char('{'));
    const QLatin1String separator = humanReadable_ ? QLatin1String(" : ") : QLatin1String(":");
    const auto& members = dictionary.members();
    // Members in insertion order need no index list; sorted ones are walked through one.
    std::vector<std::size_t> order;
    if (sortKeys_) {
        order.resize(members.size());
        std::iota(order.begin(), order.end(), 0);
        std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
            return members[a].key < members[b].key;
        });
    }
    for (std::size_t n = 0; n < members.size(); ++n) {
        const TWJsonMember& member = members[sortKeys_ ? order[n] : n];
        if (n > 0)
            out.append(QLatin1Char(','));
        if (humanReadable_)
            appendIndent(out);
        if (member.nonStringKey) {
            addErrorWithCode(TWJsonErrorUnsupported,
                             QStringLiteral("JSON object key must be string"));
            return false;
        }
        appendString(member.key, out);
        out.append(separator);
        if (!appendValue(member.value, out)) {
            addErrorWithCode(
                TWJsonErrorUnsupported,
                QStringLiteral("Unsupported value for key %1 in object").arg(member.key));
            return false;
        }
    }
    --depth_;
    if (humanReadable_ && !members.empty())
        appendIndent(out);
    out.append(QLatin1Char('}'));
    return true;
}

bool TWJsonWriter::appendString(const QString& string, QString& out) {
    out.append(QLatin1Char('"'));
    const char16_t* units = reinterpret_cast<const char16_t*>(string.utf16());
    const qsizetype length = string.size();
    const char16_t* end = units + length;
    const char16_t* first = std::find_if(units, end, needsEscape);
    if (first == end) {
        out.append(string);
    } else {
        // Ordinary stretches go in whole; only the units that need it are escaped.
        const char16_t* run = units;
        for (const char16_t* p = first; p != end; ++p) {
            if (!needsEscape(*p))
                continue;
            out.append(QStringView(run, p - run));
            run = p + 1;
            switch (*p) {
                case '"':
                    out.append(QLatin1String("\\\""));
                    break;
                case '\\':
                    out.append(QLatin1String("\\\\"));
                    break;
                case '\t':
                    out.append(QLatin1String("\\t"));
                    break;
                case '\n':
                    out.append(QLatin1String("\\n"));
                    break;
                case '\r':
                    out.append(QLatin1String("\\r"));
                    break;
                case '\b':
                    out.append(QLatin1String("\\b"));
                    break;
                case '\f':
                    out.append(QLatin1String("\\f"));
                    break;
                default: {
                    const char escaped[] = {'\\',          'u', '0', '0', kHex[(*p >> 4) & 0xF],
                                            kHex[*p & 0xF]};
                    out.append(QLatin1String(escaped, 6));
                }
            }
        }
        out.append(QStringView(run, end - run));
    }
    out.append(QLatin1Char('"'));
    return true;
}
