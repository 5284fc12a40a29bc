// SPDX-License-Identifier: GPL-3.0-or-later
#include "bench/json/Documents.h"

#include <cstdint>
#include <cstdio>

namespace jsonbench {

namespace {

// A small deterministic generator (xorshift), so that every run measures the same bytes.
class Random {
public:
    std::uint32_t next() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 17;
        state_ ^= state_ << 5;
        return state_;
    }
    std::uint32_t below(std::uint32_t n) { return next() % n; }

private:
    std::uint32_t state_ = 2463534242u;
};

const char* const kWords[] = {
    "ferry", "note",   "link",       "download", "the",    "river", "Grüße",           "café",
    "naïve", "☃ snow", "quote\\\"d", "line\\n",  "tab\\t", "a/b",   "\\u00e9t\\u00e9", "über"};

std::string sentence(Random& r, int words) {
    std::string s;
    for (int i = 0; i < words; ++i) {
        if (i)
            s += ' ';
        s += kWords[r.below(sizeof kWords / sizeof *kWords)];
    }
    return s;
}

}  // namespace

std::string feedDocument() {
    Random r;
    std::string out = "{\"statuses\":[";
    for (int i = 0; i < 2600; ++i) {
        if (i)
            out += ',';
        out += "{\"id\":" + std::to_string(100000000 + r.below(900000000)) + ",\"text\":\"" +
               sentence(r, 12 + static_cast<int>(r.below(12))) + "\",\"user\":{\"name\":\"" +
               sentence(r, 2) + "\",\"screen_name\":\"user_" + std::to_string(r.below(5000)) +
               "\",\"description\":\"" + sentence(r, 8) +
               "\",\"verified\":" + (r.below(2) ? "true" : "false") +
               "},\"entities\":{\"urls\":[\"https://example.org/" + std::to_string(r.below(99999)) +
               "\"],\"hashtags\":[]},\"retweeted\":false,\"in_reply_to\":null}";
    }
    return out + "]}";
}

std::string catalogDocument() {
    Random r;
    std::string out = "{\"products\":[";
    for (int i = 0; i < 2200; ++i) {
        if (i)
            out += ',';
        out += "{\"id\":" + std::to_string(i) + ",\"price\":" + std::to_string(r.below(100000)) +
               ",\"stock\":" + std::to_string(r.below(500)) +
               ",\"category\":{\"id\":" + std::to_string(r.below(40)) +
               ",\"parent\":{\"id\":" + std::to_string(r.below(8)) + "}},\"variants\":[";
        const int variants = 2 + static_cast<int>(r.below(4));
        for (int v = 0; v < variants; ++v) {
            if (v)
                out += ',';
            out += "{\"sku\":" + std::to_string(r.next()) +
                   ",\"size\":" + std::to_string(r.below(60)) +
                   ",\"weight\":" + std::to_string(r.below(9000)) + ",\"colour\":\"c" +
                   std::to_string(r.below(20)) + "\"}";
        }
        out += "]}";
    }
    return out + "]}";
}

std::string coordinatesDocument() {
    Random r;
    std::string out = "{\"type\":\"FeatureCollection\",\"features\":[";
    char number[32];
    for (int f = 0; f < 120; ++f) {
        if (f)
            out += ',';
        out += "{\"type\":\"Feature\",\"properties\":{\"name\":\"area " + std::to_string(f) +
               "\"},\"geometry\":{\"type\":\"Polygon\",\"coordinates\":[[";
        for (int p = 0; p < 200; ++p) {
            if (p)
                out += ',';
            std::snprintf(number, sizeof number, "[%.7f,%.7f]", -180.0 + r.below(3600000) / 1e4,
                          -90.0 + r.below(1800000) / 1e4);
            out += number;
        }
        out += "]]}}";
    }
    return out + "]}";
}

}  // namespace jsonbench
