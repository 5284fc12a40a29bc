// SPDX-License-Identifier: GPL-3.0-or-later
#include "Classes/TWJSON/TWJsonDocument.h"

#include <cstdlib>
#include <new>

#include "Classes/TWJSON/TWJsonText.h"

namespace twjson {

namespace {

// Blocks double from small (most documents the program builds are a handful of values) up to a
// size malloc still serves from its heap, so a parse that follows a parse reuses warm memory.
constexpr std::size_t kLargestBlock = 64 * 1024;

inline std::uint64_t mix(std::uint64_t h) {
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdULL;
    h ^= h >> 33;
    return h;
}

}  // namespace

Arena::~Arena() {
    for (void* block : blocks_)
        std::free(block);
}

void Arena::adopt(void* block, std::size_t bytes) {
    blocks_.push_back(block);
    held_ += bytes;
}

void* Arena::allocateInNewBlock(std::size_t bytes, std::size_t align) {
    const std::size_t needed = bytes + align;
    // Something large gets a block of its own, and the current block stays in use.
    const bool ownBlock = needed > blockBytes_ / 2 && next_;
    const std::size_t size = ownBlock ? needed : std::max(blockBytes_, needed);
    void* block = std::malloc(size);
    if (!block)
        throw std::bad_alloc();
    blocks_.push_back(block);
    held_ += size;
    const auto at = (reinterpret_cast<std::uintptr_t>(block) + align - 1) & ~(align - 1);
    if (!ownBlock) {
        next_ = reinterpret_cast<char*>(at + bytes);
        end_ = static_cast<char*>(block) + size;
        blockBytes_ = std::min(blockBytes_ * 2, kLargestBlock);
    }
    return reinterpret_cast<void*>(at);
}

std::uint64_t hashKey(const Node& key) {
    if (key.isShortText())
        return mix(key.w0 * 0x9E3779B97F4A7C15ULL ^ key.w1);
    const std::string_view bytes = key.text();
    std::uint64_t h = bytes.size() * 0x9E3779B97F4A7C15ULL;
    std::size_t i = 0;
    for (; i + 8 <= bytes.size(); i += 8) {
        std::uint64_t word;
        std::memcpy(&word, bytes.data() + i, 8);
        h = mix(h ^ word) * 0x9E3779B97F4A7C15ULL;
    }
    std::uint64_t tail = 0;
    std::memcpy(&tail, bytes.data() + i, bytes.size() - i);
    return mix(h ^ tail);
}

KeyIndex KeyIndex::over(const Node* members, std::uint64_t count) {
    KeyIndex index;
    std::size_t slots = 16;
    while (slots < count * 2)
        slots *= 2;
    index.slots_.assign(slots, 0);
    for (std::uint64_t i = 0; i < count; ++i) {
        if (members[2 * i].tag() != Tag::OtherKey)
            index.place(members, i);
    }
    return index;
}

std::uint64_t KeyIndex::find(const Node* members, const Node& key) const {
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t s = hashKey(key) & mask;; s = (s + 1) & mask) {
        const std::uint64_t slot = slots_[s];
        if (slot == 0)
            return kNotFound;
        if (sameKey(members[2 * (slot - 1)], key))
            return slot - 1;
    }
}

void KeyIndex::add(const Node* members, std::uint64_t position) {
    if ((size_ + 1) * 2 > slots_.size()) {
        std::vector<std::uint64_t> old;
        old.swap(slots_);
        slots_.assign(old.size() * 2, 0);
        size_ = 0;
        for (std::uint64_t slot : old) {
            if (slot)
                place(members, slot - 1);
        }
    }
    place(members, position);
}

void KeyIndex::place(const Node* members, std::uint64_t position) {
    const std::size_t mask = slots_.size() - 1;
    std::size_t s = hashKey(members[2 * position]) & mask;
    while (slots_[s] != 0)
        s = (s + 1) & mask;
    slots_[s] = position + 1;
    ++size_;
}

Extras& Document::ensureExtras() {
    if (!extras)
        extras = std::make_unique<Extras>();
    return *extras;
}

const KeyIndex* Document::indexOf(const Node& dictionary) const {
    if (!extras)
        return nullptr;
    const auto it = extras->indexes.find(dictionary.items());
    return it == extras->indexes.end() ? nullptr : &it->second;
}

Node Document::text(bool string, std::string_view bytes) {
    if (bytes.size() <= kShortTextBytes)
        return Node::shortText(string ? Tag::ShortString : Tag::ShortNumber, bytes.data(),
                               bytes.size());
    void* copy = arena.allocate(bytes.size(), 1);
    std::memcpy(copy, bytes.data(), bytes.size());
    return Node::of(string ? Tag::LongString : Tag::LongNumber, copy, bytes.size());
}

Node Document::text(bool string, QStringView text) {
    std::string bytes;
    appendWtf8(bytes, text);
    if (findLoneSurrogate(bytes) != std::string_view::npos)
        loneSurrogates = true;
    return this->text(string, bytes);
}

std::uint64_t findMember(const Document* doc, const Node& dictionary, const Node& key) {
    const std::uint64_t count = dictionary.count();
    if (count > kIndexThreshold && doc) {
        if (const KeyIndex* index = doc->indexOf(dictionary))
            return index->find(dictionary.items(), key);
    }
    for (std::uint64_t i = 0; i < count; ++i) {
        if (sameKey(keyAt(dictionary, i), key))
            return i;
    }
    return kNotFound;
}

Node copyInto(Document& to, const Document* from, const Node& node, std::uint64_t extra) {
    if (from && from->loneSurrogates)
        to.loneSurrogates = true;
    switch (node.tag()) {
        case Tag::Null:
        case Tag::False:
        case Tag::True:
        case Tag::ShortNumber:
        case Tag::ShortString:
            return node;
        case Tag::LongNumber:
        case Tag::LongString:
            return to.text(node.isString(), node.text());
        case Tag::Custom: {
            Extras& extras = to.ensureExtras();
            extras.customs.push_back(from->extras->customs[node.count()]);
            return Node::of(Tag::Custom, nullptr, extras.customs.size() - 1);
        }
        case Tag::OtherKey: {
            Extras& extras = to.ensureExtras();
            extras.otherKeys.push_back(from->extras->otherKeys[node.count()]);
            return Node::of(Tag::OtherKey, nullptr, extras.otherKeys.size() - 1);
        }
        case Tag::Array:
        case Tag::Dictionary:
            break;
    }
    const std::uint64_t count = node.count();
    const std::uint64_t width = node.tag() == Tag::Array ? 1 : 2;
    if (count + extra == 0)
        return Node::of(node.tag());
    Node* items = to.arena.allocateNodes((count + extra) * width);
    for (std::uint64_t i = 0; i < count * width; ++i)
        items[i] = copyInto(to, from, node.items()[i]);
    if (node.tag() == Tag::Dictionary && count > kIndexThreshold)
        to.ensureExtras().indexes.emplace(items, KeyIndex::over(items, count));
    return Node::of(node.tag(), items, count);
}

std::size_t footprint(const Node& node) {
    switch (node.tag()) {
        case Tag::LongNumber:
        case Tag::LongString:
            return static_cast<std::size_t>(node.count());
        case Tag::Array:
        case Tag::Dictionary: {
            const std::uint64_t n = node.count() * (node.tag() == Tag::Array ? 1 : 2);
            std::size_t bytes = static_cast<std::size_t>(n) * sizeof(Node);
            for (std::uint64_t i = 0; i < n; ++i)
                bytes += footprint(node.items()[i]);
            return bytes;
        }
        default:
            return 0;
    }
}

}  // namespace twjson
