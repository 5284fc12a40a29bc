// SPDX-License-Identifier: GPL-3.0-or-later
#include "Classes/TWJSON/TWJsonText.h"

#include <algorithm>
#include <cstring>

namespace twjson {

namespace {

// Control bytes, the double quote and the backslash.
struct StopBytes {
    bool stop[256] = {};
    constexpr StopBytes() {
        for (int b = 0; b < 0x20; ++b)
            stop[b] = true;
        stop[static_cast<unsigned char>('"')] = true;
        stop[static_cast<unsigned char>('\\')] = true;
    }
};
constexpr StopBytes kStop;

inline bool isHighSurrogate(char32_t u) {
    return u >= 0xD800 && u <= 0xDBFF;
}
inline bool isLowSurrogate(char32_t u) {
    return u >= 0xDC00 && u <= 0xDFFF;
}

void appendCodePoint(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        const char bytes[] = {static_cast<char>(0xC0 | (cp >> 6)),
                              static_cast<char>(0x80 | (cp & 0x3F))};
        out.append(bytes, 2);
    } else if (cp < 0x10000) {
        const char bytes[] = {static_cast<char>(0xE0 | (cp >> 12)),
                              static_cast<char>(0x80 | ((cp >> 6) & 0x3F)),
                              static_cast<char>(0x80 | (cp & 0x3F))};
        out.append(bytes, 3);
    } else {
        const char bytes[] = {
            static_cast<char>(0xF0 | (cp >> 18)), static_cast<char>(0x80 | ((cp >> 12) & 0x3F)),
            static_cast<char>(0x80 | ((cp >> 6) & 0x3F)), static_cast<char>(0x80 | (cp & 0x3F))};
        out.append(bytes, 4);
    }
}

// Reads the code point at p (well-formed WTF-8) and moves p past it.
inline char32_t readCodePoint(const unsigned char*& p) {
    const unsigned char b = *p;
    if (b < 0x80) {
        ++p;
        return b;
    }
    if (b < 0xE0) {
        const char32_t cp = ((b & 0x1Fu) << 6) | (p[1] & 0x3Fu);
        p += 2;
        return cp;
    }
    if (b < 0xF0) {
        const char32_t cp = ((b & 0x0Fu) << 12) | ((p[1] & 0x3Fu) << 6) | (p[2] & 0x3Fu);
        p += 3;
        return cp;
    }
    const char32_t cp =
        ((b & 0x07u) << 18) | ((p[1] & 0x3Fu) << 12) | ((p[2] & 0x3Fu) << 6) | (p[3] & 0x3Fu);
    p += 4;
    return cp;
}

// The UTF-16 units of a WTF-8 text, one at a time.
class UnitReader {
public:
    UnitReader(const char* p, const char* end)
        : p_(reinterpret_cast<const unsigned char*>(p)),
          end_(reinterpret_cast<const unsigned char*>(end)) {}
    // The next unit, or -1 at the end.
    int next() {
        if (pending_) {
            const int unit = pending_;
            pending_ = 0;
            return unit;
        }
        if (p_ >= end_)
            return -1;
        const char32_t cp = readCodePoint(p_);
        if (cp < 0x10000)
            return static_cast<int>(cp);
        pending_ = static_cast<int>(0xDC00 + ((cp - 0x10000) & 0x3FF));
        return static_cast<int>(0xD800 + ((cp - 0x10000) >> 10));
    }

private:
    const unsigned char* p_;
    const unsigned char* end_;
    int pending_ = 0;
};

}  // namespace

void appendWtf8(std::string& out, QStringView text) {
    const char16_t* p = text.utf16();
    const char16_t* end = p + text.size();
    out.reserve(out.size() + static_cast<std::size_t>(text.size()));
    while (p < end) {
        const char16_t unit = *p++;
        if (unit < 0x80) {
            out.push_back(static_cast<char>(unit));
        } else if (isHighSurrogate(unit) && p < end && isLowSurrogate(*p)) {
            appendCodePoint(out, 0x10000 + ((char32_t(unit) - 0xD800) << 10) + (*p++ - 0xDC00));
        } else {
            appendCodePoint(out, unit);
        }
    }
}

void appendUnitWtf8(std::string& out, char16_t unit) {
    const std::size_t n = out.size();
    if (isLowSurrogate(unit) && n >= 3 && static_cast<unsigned char>(out[n - 3]) == 0xED &&
        (static_cast<unsigned char>(out[n - 2]) & 0xF0) == 0xA0) {
        const char32_t high = 0xD000 | ((static_cast<unsigned char>(out[n - 2]) & 0x3Fu) << 6) |
                              (static_cast<unsigned char>(out[n - 1]) & 0x3Fu);
        out.resize(n - 3);
        appendCodePoint(out, 0x10000 + ((high - 0xD800) << 10) + (unit - 0xDC00));
        return;
    }
    appendCodePoint(out, unit);
}

char16_t* decodeWtf8(const char* bytes, std::size_t n, char16_t* out) {
    const auto* p = reinterpret_cast<const unsigned char*>(bytes);
    const unsigned char* end = p + n;
    while (p < end) {
        if (*p < 0x80) {
            *out++ = *p++;
            continue;
        }
        const char32_t cp = readCodePoint(p);
        if (cp < 0x10000) {
            *out++ = static_cast<char16_t>(cp);
        } else {
            *out++ = static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10));
            *out++ = static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
        }
    }
    return out;
}

QString qstringFromWtf8(std::string_view bytes) {
    QString text(static_cast<qsizetype>(bytes.size()), Qt::Uninitialized);
    auto* units = reinterpret_cast<char16_t*>(text.data());
    const char16_t* end = decodeWtf8(bytes.data(), bytes.size(), units);
    text.truncate(end - units);
    return text;
}

std::size_t findLoneSurrogate(std::string_view bytes) {
    std::size_t at = 0;
    while ((at = bytes.find('\xED', at)) != std::string_view::npos) {
        if (at + 1 < bytes.size() && static_cast<unsigned char>(bytes[at + 1]) >= 0xA0)
            return at;
        ++at;
    }
    return std::string_view::npos;
}

int compareAsUtf16(std::string_view a, std::string_view b) {
    const std::size_t n = std::min(a.size(), b.size());
    std::size_t i = 0;
    while (i < n && a[i] == b[i])
        ++i;
    if (i == n)
        return a.size() < b.size() ? -1 : (a.size() > b.size() ? 1 : 0);
    // Both texts agree up to here, so the code point holding the first difference starts at
    // the same place in each.
    while (i > 0 && (static_cast<unsigned char>(a[i]) & 0xC0) == 0x80)
        --i;
    UnitReader ra(a.data() + i, a.data() + a.size());
    UnitReader rb(b.data() + i, b.data() + b.size());
    for (;;) {
        const int ua = ra.next();
        const int ub = rb.next();
        if (ua != ub)
            return ua < ub ? -1 : 1;
        if (ua < 0)
            return 0;
    }
}

const char* endOfPlainRun(const char* p, const char* end) {
    constexpr quint64 ones = 0x0101010101010101ULL;
    constexpr quint64 highs = 0x8080808080808080ULL;
    while (end - p >= 8) {
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
    while (p < end && !kStop.stop[static_cast<unsigned char>(*p)])
        ++p;
    return p;
}

}  // namespace twjson
