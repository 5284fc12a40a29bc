// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Classes/TWJSON/TWJsonNode.h"
#include "Classes/TWJSON/TWJsonValue.h"

// What the parser, the writer and the value type share: where a document's nodes live.
namespace twjson {

// Dictionaries with more members than this get a key index; smaller ones are searched in order.
constexpr std::uint64_t kIndexThreshold = 12;

// Memory handed out in order and given back all at once, when the document goes.
class Arena {
public:
    Arena() = default;
    Arena(const Arena&) = delete;
    Arena& operator=(const Arena&) = delete;
    ~Arena();

    void* allocate(std::size_t bytes, std::size_t align = alignof(Node)) {
        const auto at = (reinterpret_cast<std::uintptr_t>(next_) + align - 1) & ~(align - 1);
        if (next_ && at + bytes <= reinterpret_cast<std::uintptr_t>(end_)) {
            next_ = reinterpret_cast<char*>(at + bytes);
            return reinterpret_cast<void*>(at);
        }
        return allocateInNewBlock(bytes, align);
    }
    Node* allocateNodes(std::uint64_t n) {
        return static_cast<Node*>(allocate(static_cast<std::size_t>(n) * sizeof(Node)));
    }
    // Takes a block of bytes from malloc, freed with the arena.
    void adopt(void* block, std::size_t bytes);
    // Bytes of every block held.
    std::size_t bytesHeld() const { return held_; }

private:
    void* allocateInNewBlock(std::size_t bytes, std::size_t align);

    std::vector<void*> blocks_;
    char* next_ = nullptr;
    char* end_ = nullptr;
    std::size_t blockBytes_ = 256;
    std::size_t held_ = 0;
};

std::uint64_t hashKey(const Node& key);
// Keys that are not strings never match, not even themselves.
inline bool sameKey(const Node& a, const Node& b) {
    if (a.isShortText() || b.isShortText())
        return a == b;
    return a.tag() == Tag::LongString && b.tag() == Tag::LongString && a.count() == b.count() &&
           std::memcmp(a.items(), b.items(), static_cast<std::size_t>(a.count())) == 0;
}

constexpr std::uint64_t kNotFound = ~std::uint64_t(0);

// Finds a member of a large dictionary by its key: an open-addressing table of positions.
class KeyIndex {
public:
    // The members there are; their string keys are all different.
    static KeyIndex over(const Node* members, std::uint64_t count);
    // The position of the member whose key is key, or kNotFound.
    std::uint64_t find(const Node* members, const Node& key) const;
    // Records the member at position, whose key is not in the index yet.
    void add(const Node* members, std::uint64_t position);

private:
    void place(const Node* members, std::uint64_t position);

    std::vector<std::uint64_t> slots_;  // position + 1; 0 is a free slot
    std::uint64_t size_ = 0;
};

// The parts of a document few values need.
struct Extras {
    std::vector<std::shared_ptr<const TWJsonCustom>> customs;
    std::vector<TWJsonValue> otherKeys;
    // Key indexes of the large dictionaries, by the address of their members.
    std::unordered_map<const Node*, KeyIndex> indexes;
};

// A tree of nodes with one root, shared by the values that point into it.
struct Document {
    std::atomic<std::size_t> references{1};
    Node root;
    // Elements or members the root's storage has room for, so that a value that owns its
    // document alone grows it in place.
    std::uint64_t rootCapacity = 0;
    // Arena bytes no node reaches any more.
    std::size_t garbage = 0;
    // Whether some text may hold a lone surrogate, which UTF-8 output has to replace.
    bool loneSurrogates = false;
    Arena arena;
    std::unique_ptr<Extras> extras;

    Extras& ensureExtras();
    const KeyIndex* indexOf(const Node& dictionary) const;
    // A number or string node of this text, short when it fits, else copied into the arena.
    Node text(bool string, std::string_view bytes);
    // The same for text of the caller's, which may hold lone surrogates.
    Node text(bool string, QStringView text);

    static void retain(Document* doc) {
        if (doc)
            doc->references.fetch_add(1, std::memory_order_relaxed);
    }
    static void release(Document* doc) {
        if (doc && doc->references.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete doc;
    }
};

// The node of position i of a dictionary's members.
inline const Node& keyAt(const Node& dictionary, std::uint64_t i) {
    return dictionary.items()[2 * i];
}
inline const Node& valueAt(const Node& dictionary, std::uint64_t i) {
    return dictionary.items()[2 * i + 1];
}

// The position of key in a dictionary of doc, or kNotFound.
std::uint64_t findMember(const Document* doc, const Node& dictionary, const Node& key);

// A deep copy of node (of document from, which may be null for a node of no document) into to.
// A dictionary or array gets room for extra more items.
Node copyInto(Document& to, const Document* from, const Node& node, std::uint64_t extra = 0);

// Bytes of arena a node and what it reaches take.
std::size_t footprint(const Node& node);

// Reaches inside values for the parser and the writer.
struct Access {
    static const Node& node(const TWJsonValue& v) { return *v.node_; }
    static const Document* document(const TWJsonValue& v) { return v.doc_; }
    // A value for the root of a document the caller holds a reference to, which passes to it.
    static TWJsonValue adoptRoot(Document* doc) {
        TWJsonValue v;
        v.doc_ = doc;
        v.node_ = &doc->root;
        return v;
    }
    // A value for a node inside doc.
    static TWJsonValue at(const Document* doc, const Node* node) {
        TWJsonValue v;
        v.doc_ = const_cast<Document*>(doc);
        v.node_ = node;
        Document::retain(v.doc_);
        return v;
    }
};

}  // namespace twjson
