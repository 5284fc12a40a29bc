// SPDX-License-Identifier: GPL-3.0-or-later
#include "Classes/TWJSON/TWJsonValue.h"

#include <QLocale>
#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>

#include "Classes/TWJSON/TWJsonDocument.h"
#include "Classes/TWJSON/TWJsonText.h"

using twjson::Document;
using twjson::Node;
using twjson::Tag;

namespace {

std::string kindName(TWJsonValue::Type type) {
    switch (type) {
        case TWJsonValue::Type::Null:
            return "a null";
        case TWJsonValue::Type::Boolean:
            return "a boolean";
        case TWJsonValue::Type::Number:
            return "a number";
        case TWJsonValue::Type::String:
            return "a string";
        case TWJsonValue::Type::Array:
            return "an array";
        case TWJsonValue::Type::Dictionary:
            return "a dictionary";
        case TWJsonValue::Type::Custom:
            return "a custom object";
    }
    return "a value";
}

const std::shared_ptr<const TWJsonCustom> kNoCustom;

// Compaction waits until the waste is worth a copy.
constexpr std::size_t kWasteWorthCompacting = 64 * 1024;

// A key to look for: short keys live in the node, longer ones point into bytes.
Node probeKey(const QString& key, std::string& bytes) {
    twjson::appendWtf8(bytes, key);
    if (bytes.size() <= twjson::kShortTextBytes)
        return Node::shortText(Tag::ShortString, bytes.data(), bytes.size());
    return Node::of(Tag::LongString, bytes.data(), bytes.size());
}

TWJsonValue newDocument(const Node& root) {
    auto* doc = new Document;
    doc->root = root;
    return twjson::Access::adoptRoot(doc);
}

}  // namespace

template <>
TWJsonValue TWJsonElements::iterator::operator*() const {
    return twjson::Access::at(doc_, at_);
}

template <>
TWJsonMember TWJsonMembers::iterator::operator*() const {
    TWJsonMember member;
    if (at_->tag() == Tag::OtherKey) {
        const TWJsonValue& key = doc_->extras->otherKeys[at_->count()];
        member.key = key.numberText();
        member.nonStringKey = std::make_shared<const TWJsonValue>(key);
    } else {
        member.key = twjson::qstringFromWtf8(at_->text());
    }
    member.value = twjson::Access::at(doc_, at_ + 1);
    return member;
}

template <typename Item>
typename TWJsonRange<Item>::iterator TWJsonRange<Item>::at(qsizetype index) const {
    const Node& node = twjson::Access::node(owner_);
    const Tag kind = kStep == 2 ? Tag::Dictionary : Tag::Array;
    return node.tag() == kind
               ? iterator(twjson::Access::document(owner_), node.items() + kStep * index)
               : iterator();
}

template class TWJsonRange<TWJsonValue>;
template class TWJsonRange<TWJsonMember>;

std::optional<TWJsonValue> TWJsonCustom::proxyForJson() const {
    return std::nullopt;
}

TWJsonValue::TWJsonValue(const TWJsonValue& other) noexcept : doc_(other.doc_), node_(other.node_) {
    Document::retain(doc_);
}

TWJsonValue::TWJsonValue(TWJsonValue&& other) noexcept : doc_(other.doc_), node_(other.node_) {
    other.doc_ = nullptr;
    other.node_ = &twjson::kNullNode;
}

TWJsonValue& TWJsonValue::operator=(const TWJsonValue& other) noexcept {
    Document::retain(other.doc_);
    Document::release(doc_);
    doc_ = other.doc_;
    node_ = other.node_;
    return *this;
}

TWJsonValue& TWJsonValue::operator=(TWJsonValue&& other) noexcept {
    if (this != &other) {
        Document::release(doc_);
        doc_ = other.doc_;
        node_ = other.node_;
        other.doc_ = nullptr;
        other.node_ = &twjson::kNullNode;
    }
    return *this;
}

TWJsonValue::~TWJsonValue() {
    Document::release(doc_);
}

TWJsonValue TWJsonValue::boolean(bool b) {
    TWJsonValue v;
    v.node_ = b ? &twjson::kTrueNode : &twjson::kFalseNode;
    return v;
}

TWJsonValue TWJsonValue::text(bool string, const QString& s) {
    TWJsonValue v = newDocument(twjson::kNullNode);
    v.doc_->root = v.doc_->text(string, QStringView(s));
    return v;
}

TWJsonValue TWJsonValue::number(const QString& decimalText) {
    return text(false, decimalText);
}

TWJsonValue TWJsonValue::number(qint64 n) {
    return number(QString::number(n));
}

TWJsonValue TWJsonValue::number(double d) {
    return number(QString::number(d, 'g', QLocale::FloatingPointShortest));
}

TWJsonValue TWJsonValue::string(const QString& s) {
    return s.isNull() ? newDocument(Node::nullString()) : text(true, s);
}

TWJsonValue TWJsonValue::array() {
    return newDocument(Node::of(Tag::Array));
}

TWJsonValue TWJsonValue::array(const std::vector<TWJsonValue>& elements) {
    TWJsonValue v = array();
    v.reserve(static_cast<qsizetype>(elements.size()));
    for (const TWJsonValue& element : elements)
        v.append(element);
    return v;
}

TWJsonValue TWJsonValue::dictionary() {
    return newDocument(Node::of(Tag::Dictionary));
}

TWJsonValue TWJsonValue::custom(std::shared_ptr<const TWJsonCustom> object) {
    TWJsonValue v = newDocument(Node::of(Tag::Custom));
    v.doc_->ensureExtras().customs.push_back(std::move(object));
    return v;
}

TWJsonValue::Type TWJsonValue::type() const {
    switch (node_->tag()) {
        case Tag::Null:
        case Tag::OtherKey:
            return Type::Null;
        case Tag::False:
        case Tag::True:
            return Type::Boolean;
        case Tag::ShortNumber:
        case Tag::LongNumber:
            return Type::Number;
        case Tag::ShortString:
        case Tag::LongString:
            return Type::String;
        case Tag::Array:
            return Type::Array;
        case Tag::Dictionary:
            return Type::Dictionary;
        case Tag::Custom:
            return Type::Custom;
    }
    return Type::Null;
}

QString TWJsonValue::numberText() const {
    return node_->isNumber() ? twjson::qstringFromWtf8(node_->text()) : QString();
}

QString TWJsonValue::stringValue() const {
    if (!node_->isString() || node_->isNullString())
        return QString();
    return twjson::qstringFromWtf8(node_->text());
}

const std::shared_ptr<const TWJsonCustom>& TWJsonValue::customObject() const {
    return node_->tag() == Tag::Custom ? doc_->extras->customs[node_->count()] : kNoCustom;
}

qsizetype TWJsonValue::count() const {
    const Tag tag = node_->tag();
    return tag == Tag::Array || tag == Tag::Dictionary ? static_cast<qsizetype>(node_->count()) : 0;
}

TWJsonValue TWJsonValue::at(qsizetype index) const {
    if (node_->tag() != Tag::Array)
        throw std::invalid_argument("TWJsonValue::at: " + kindName(type()) + " has no elements");
    if (index < 0 || static_cast<std::uint64_t>(index) >= node_->count()) {
        throw std::out_of_range("TWJsonValue::at: index " + std::to_string(index) +
                                " beyond bounds of " + std::to_string(count()) + " elements");
    }
    return twjson::Access::at(doc_, node_->items() + index);
}

std::optional<TWJsonValue> TWJsonValue::valueForKey(const QString& key) const {
    if (node_->tag() != Tag::Dictionary) {
        throw std::invalid_argument("TWJsonValue::valueForKey: " + kindName(type()) +
                                    " has no members");
    }
    std::string bytes;
    const std::uint64_t at = twjson::findMember(doc_, *node_, probeKey(key, bytes));
    if (at == twjson::kNotFound)
        return std::nullopt;
    return twjson::Access::at(doc_, &twjson::valueAt(*node_, at));
}

QStringList TWJsonValue::keys() const {
    QStringList list;
    for (const TWJsonMember& m : members())
        list << m.key;
    return list;
}

TWJsonMembers TWJsonValue::members() const {
    return TWJsonMembers(*this);
}

TWJsonElements TWJsonValue::elements() const {
    return TWJsonElements(*this);
}

// Writes go to a document this handle holds alone, at its root; anything else is copied first.
Document* TWJsonValue::writableDocument(std::uint64_t extra) {
    if (doc_ && node_ == &doc_->root && doc_->references.load(std::memory_order_acquire) == 1)
        return doc_;
    auto* fresh = new Document;
    fresh->root = twjson::copyInto(*fresh, doc_, *node_, extra);
    fresh->rootCapacity = fresh->root.count() + extra;
    Document::release(doc_);
    doc_ = fresh;
    node_ = &fresh->root;
    return fresh;
}

// Moves the root's elements or members to storage with room for capacity of them.
void TWJsonValue::resizeRoot(Document& doc, std::uint64_t capacity) {
    Node& root = doc.root;
    const std::uint64_t count = root.count();
    const std::uint64_t width = root.tag() == Tag::Array ? 1 : 2;
    Node* items = doc.arena.allocateNodes(capacity * width);
    if (count)
        std::memcpy(items, root.items(), count * width * sizeof(Node));
    doc.garbage += doc.rootCapacity * width * sizeof(Node);
    if (doc.extras) {
        auto& indexes = doc.extras->indexes;
        if (auto it = indexes.find(root.items()); it != indexes.end()) {
            twjson::KeyIndex index = std::move(it->second);
            indexes.erase(it);
            indexes.emplace(items, std::move(index));
        }
    }
    root = Node::of(root.tag(), items, count);
    doc.rootCapacity = capacity;
}

// Makes room for one more element or member at the root, doubling its storage when full.
void TWJsonValue::growRoot(Document& doc) {
    if (doc.root.count() == doc.rootCapacity)
        resizeRoot(doc, std::max<std::uint64_t>(4, doc.rootCapacity * 2));
}

void TWJsonValue::compactIfWasteful() {
    if (doc_->garbage < kWasteWorthCompacting || doc_->garbage * 2 < doc_->arena.bytesHeld())
        return;
    auto* fresh = new Document;
    fresh->root = twjson::copyInto(*fresh, doc_, doc_->root);
    fresh->rootCapacity = fresh->root.count();
    Document::release(doc_);
    doc_ = fresh;
    node_ = &fresh->root;
}

void TWJsonValue::append(const TWJsonValue& value) {
    if (node_->tag() != Tag::Array)
        return;
    Document& doc = *writableDocument(1);
    // The copy comes first: value may be this very array.
    const Node element = twjson::copyInto(doc, value.doc_, *value.node_);
    growRoot(doc);
    const std::uint64_t count = doc.root.count();
    doc.root.mutableItems()[count] = element;
    doc.root = Node::of(Tag::Array, doc.root.items(), count + 1);
}

void TWJsonValue::insert(const QString& key, const TWJsonValue& value) {
    if (node_->tag() != Tag::Dictionary)
        return;
    Document& doc = *writableDocument(1);
    const Node member = twjson::copyInto(doc, value.doc_, *value.node_);
    const Node name = doc.text(true, QStringView(key));
    const std::uint64_t at = twjson::findMember(&doc, doc.root, name);
    if (at != twjson::kNotFound) {
        Node& old = doc.root.mutableItems()[2 * at + 1];
        doc.garbage += twjson::footprint(old) + twjson::footprint(name);
        old = member;
        compactIfWasteful();
        return;
    }
    growRoot(doc);
    const std::uint64_t count = doc.root.count();
    Node* items = doc.root.mutableItems();
    items[2 * count] = name;
    items[2 * count + 1] = member;
    doc.root = Node::of(Tag::Dictionary, items, count + 1);
    if (count + 1 > twjson::kIndexThreshold) {
        auto& indexes = doc.ensureExtras().indexes;
        if (auto it = indexes.find(items); it != indexes.end()) {
            it->second.add(items, count);
        } else {
            indexes.emplace(items, twjson::KeyIndex::over(items, count + 1));
        }
    }
}

void TWJsonValue::insertWithNonStringKey(const TWJsonValue& key, const TWJsonValue& value) {
    if (key.isString()) {
        insert(key.stringValue(), value);
        return;
    }
    if (node_->tag() != Tag::Dictionary)
        return;
    Document& doc = *writableDocument(1);
    const Node member = twjson::copyInto(doc, value.doc_, *value.node_);
    auto& otherKeys = doc.ensureExtras().otherKeys;
    otherKeys.push_back(key);
    growRoot(doc);
    const std::uint64_t count = doc.root.count();
    Node* items = doc.root.mutableItems();
    items[2 * count] = Node::of(Tag::OtherKey, nullptr, otherKeys.size() - 1);
    items[2 * count + 1] = member;
    doc.root = Node::of(Tag::Dictionary, items, count + 1);
}

void TWJsonValue::reserve(qsizetype n) {
    const Tag tag = node_->tag();
    if ((tag != Tag::Array && tag != Tag::Dictionary) || n <= count())
        return;
    const auto wanted = static_cast<std::uint64_t>(n);
    Document& doc = *writableDocument(wanted - node_->count());
    if (doc.rootCapacity < wanted)
        resizeRoot(doc, wanted);
}

namespace {

bool sameNodes(const Document* da, const Node& a, const Document* db, const Node& b);

QString otherKeyText(const Document* doc, const Node& key) {
    return doc->extras->otherKeys[key.count()].numberText();
}

bool sameMemberKeys(const Document* da, const Node& a, const Document* db, const Node& b) {
    if (a.tag() == Tag::OtherKey || b.tag() == Tag::OtherKey) {
        const QString ta =
            a.tag() == Tag::OtherKey ? otherKeyText(da, a) : twjson::qstringFromWtf8(a.text());
        const QString tb =
            b.tag() == Tag::OtherKey ? otherKeyText(db, b) : twjson::qstringFromWtf8(b.text());
        return ta == tb;
    }
    return a.text() == b.text();
}

bool sameNodes(const Document* da, const Node& a, const Document* db, const Node& b) {
    switch (a.tag()) {
        case Tag::Null:
        case Tag::False:
        case Tag::True:
            return a.tag() == b.tag();
        case Tag::ShortNumber:
        case Tag::LongNumber:
            return b.isNumber() && a.text() == b.text();
        case Tag::ShortString:
        case Tag::LongString:
            return b.isString() && a.text() == b.text();
        case Tag::Custom:
            return b.tag() == Tag::Custom &&
                   da->extras->customs[a.count()] == db->extras->customs[b.count()];
        case Tag::OtherKey:
            return false;
        case Tag::Array:
            if (b.tag() != Tag::Array || a.count() != b.count())
                return false;
            for (std::uint64_t i = 0; i < a.count(); ++i) {
                if (!sameNodes(da, a.items()[i], db, b.items()[i]))
                    return false;
            }
            return true;
        case Tag::Dictionary:
            if (b.tag() != Tag::Dictionary || a.count() != b.count())
                return false;
            for (std::uint64_t i = 0; i < a.count(); ++i) {
                if (!sameMemberKeys(da, twjson::keyAt(a, i), db, twjson::keyAt(b, i)) ||
                    !sameNodes(da, twjson::valueAt(a, i), db, twjson::valueAt(b, i)))
                    return false;
            }
            return true;
    }
    return false;
}

}  // namespace

bool operator==(const TWJsonValue& a, const TWJsonValue& b) {
    return sameNodes(a.doc_, *a.node_, b.doc_, *b.node_);
}
