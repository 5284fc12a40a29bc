// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>

// The sixteen bytes one JSON value takes inside a document.
namespace twjson {

static_assert(std::endian::native == std::endian::little, "nodes pack their tag in byte 15");
static_assert(sizeof(void*) == 8, "nodes hold a full address in their first word");

enum class Tag : std::uint8_t {
    Null,
    False,
    True,
    ShortNumber,  // text of up to 14 bytes in the node itself
    LongNumber,   // text in the document's arena
    ShortString,
    LongString,
    Array,       // elements in the arena
    Dictionary,  // members in the arena, each a key node then a value node
    Custom,      // an object of the caller's, by its number in the document
    OtherKey,    // a member key that is not a string, by its number in the document
};

constexpr std::size_t kShortTextBytes = 14;
constexpr std::uint64_t kCountMask = (std::uint64_t(1) << 56) - 1;

// Either text of up to 14 bytes, its length in byte 14, or an address in w0 with a 56-bit
// length or count; the tag is always byte 15. Short text is zero-padded, so two short texts are
// equal exactly when their nodes are.
struct Node {
    std::uint64_t w0 = 0;
    std::uint64_t w1 = 0;

    Tag tag() const { return static_cast<Tag>(w1 >> 56); }

    static Node of(Tag tag, const void* payload = nullptr, std::uint64_t count = 0) {
        return Node{reinterpret_cast<std::uintptr_t>(payload),
                    (count & kCountMask) | (std::uint64_t(tag) << 56)};
    }
    static Node shortText(Tag tag, const char* bytes, std::size_t n) {
        unsigned char raw[16] = {};
        std::memcpy(raw, bytes, n);
        raw[14] = static_cast<unsigned char>(n);
        raw[15] = static_cast<unsigned char>(tag);
        Node node;
        std::memcpy(&node, raw, sizeof node);
        return node;
    }

    // A string made from a null QString: empty, but told apart from "" where it is read back
    // as a QString. It is marked in byte 13, which an empty short text leaves zero.
    static Node nullString() {
        Node node = shortText(Tag::ShortString, "", 0);
        node.w1 |= std::uint64_t(1) << 40;
        return node;
    }
    bool isNullString() const { return *this == nullString(); }

    bool isShortText() const { return tag() == Tag::ShortNumber || tag() == Tag::ShortString; }
    bool isString() const { return tag() == Tag::ShortString || tag() == Tag::LongString; }
    bool isNumber() const { return tag() == Tag::ShortNumber || tag() == Tag::LongNumber; }

    // The text of a number or a string.
    std::string_view text() const {
        if (isShortText())
            return {reinterpret_cast<const char*>(this), static_cast<std::size_t>(w1 >> 48 & 0xFF)};
        return {reinterpret_cast<const char*>(w0), static_cast<std::size_t>(w1 & kCountMask)};
    }
    // Elements of an array; members of a dictionary, two nodes each.
    const Node* items() const { return reinterpret_cast<const Node*>(w0); }
    Node* mutableItems() const { return reinterpret_cast<Node*>(w0); }
    // Elements, members, or the number of a custom object or key.
    std::uint64_t count() const { return w1 & kCountMask; }

    friend bool operator==(const Node& a, const Node& b) { return a.w0 == b.w0 && a.w1 == b.w1; }
};
static_assert(sizeof(Node) == 16);

inline constexpr Node kNullNode{0, std::uint64_t(Tag::Null) << 56};
inline constexpr Node kFalseNode{0, std::uint64_t(Tag::False) << 56};
inline constexpr Node kTrueNode{0, std::uint64_t(Tag::True) << 56};

}  // namespace twjson
