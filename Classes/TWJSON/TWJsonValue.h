// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <QStringList>
#include <cstddef>
#include <iterator>
#include <memory>
#include <optional>
#include <type_traits>
#include <vector>

#include "Classes/TWJSON/TWJsonNode.h"

class TWJsonValue;
struct TWJsonMember;

namespace twjson {
struct Document;
struct Access;
}  // namespace twjson

// An object the writer cannot write directly. It may offer a writable substitute.
class TWJsonCustom {
public:
    virtual ~TWJsonCustom() = default;
    // The class name error messages show.
    virtual QString className() const = 0;
    // The substitute to write instead, or nothing when the object offers none.
    virtual std::optional<TWJsonValue> proxyForJson() const;
};

template <typename Item>
class TWJsonRange;
using TWJsonElements = TWJsonRange<TWJsonValue>;
using TWJsonMembers = TWJsonRange<TWJsonMember>;

// A decoded JSON value: null, boolean, number (kept as the exact decimal text it was made from),
// string, array, or dictionary (members in insertion order, a repeated key replacing the earlier
// value, keeping its place).
//
// Representation. A value is a handle: a reference-counted document and one node in it. A
// document holds a tree of 16-byte nodes in an arena that it frees all at once. Text (strings,
// numbers, keys) is kept as UTF-8 (WTF-8, so a lone surrogate survives); text of up to 14 bytes
// sits in the node itself, longer text is copied into the arena. Arrays and dictionaries are
// arena runs of nodes, made once at their final size. A parsed document therefore costs 16
// bytes a value (32 a member) plus its long text, and needs no input once made.
//
// Trade-offs. Reading a child (at, valueForKey, elements, members) gives a new handle that
// shares the document, so any child keeps the whole document alive, as a slice would. Strings
// become QString only when asked for (stringValue, member keys), each time anew. Writing (append,
// insert, reserve) happens in place only on a handle that holds the root of a document nobody
// else holds; otherwise the handle first copies its value into a document of its own (copy on
// the first write). A value added to a container is copied into the container's document.
// Arena space that replaced members or a grown root leave behind is reclaimed by copying the
// document once it is more than half waste.
class TWJsonValue {
public:
    enum class Type { Null, Boolean, Number, String, Array, Dictionary, Custom };

    TWJsonValue() noexcept = default;
    TWJsonValue(const TWJsonValue& other) noexcept;
    TWJsonValue(TWJsonValue&& other) noexcept;
    TWJsonValue& operator=(const TWJsonValue& other) noexcept;
    TWJsonValue& operator=(TWJsonValue&& other) noexcept;
    ~TWJsonValue();

    static TWJsonValue null() { return TWJsonValue(); }
    static TWJsonValue boolean(bool b);
    static TWJsonValue number(const QString& decimalText);
    static TWJsonValue number(qint64 n);
    static TWJsonValue number(double d);
    // A null QString gives a string value whose stringValue() is null again; it equals "" and is
    // written as "".
    static TWJsonValue string(const QString& s);
    static TWJsonValue array();
    static TWJsonValue array(const std::vector<TWJsonValue>& elements);
    static TWJsonValue dictionary();
    static TWJsonValue custom(std::shared_ptr<const TWJsonCustom> object);

    void append(const TWJsonValue& value);
    void insert(const QString& key, const TWJsonValue& value);
    // A member whose key is not a string (only the writer's error path needs one).
    void insertWithNonStringKey(const TWJsonValue& key, const TWJsonValue& value);
    void reserve(qsizetype n);

    Type type() const;
    bool isNull() const { return type() == Type::Null; }
    bool isBoolean() const { return type() == Type::Boolean; }
    bool isNumber() const { return type() == Type::Number; }
    bool isString() const { return type() == Type::String; }
    bool isArray() const { return type() == Type::Array; }
    bool isDictionary() const { return type() == Type::Dictionary; }
    bool isCustom() const { return type() == Type::Custom; }

    bool boolValue() const { return node_->tag() == twjson::Tag::True; }
    QString numberText() const;
    // The text of a string; a null string for any other value.
    QString stringValue() const;
    const std::shared_ptr<const TWJsonCustom>& customObject() const;

    // Elements of an array, members of a dictionary, else 0.
    qsizetype count() const;
    // Asking a value of the wrong kind raises, as the platform's collections do: an element of
    // anything but an array, or a member of anything but a dictionary, throws
    // std::invalid_argument. An index outside 0 .. count() - 1 throws std::out_of_range; a key
    // that is not there gives nothing.
    TWJsonValue at(qsizetype index) const;
    std::optional<TWJsonValue> valueForKey(const QString& key) const;
    QStringList keys() const;

    // The members of a dictionary in insertion order; the elements of an array. Empty for any
    // other value.
    TWJsonMembers members() const;
    TWJsonElements elements() const;

    // Deep equality (numbers by their text).
    friend bool operator==(const TWJsonValue& a, const TWJsonValue& b);

private:
    friend struct twjson::Access;

    static TWJsonValue text(bool string, const QString& s);
    twjson::Document* writableDocument(std::uint64_t extra);
    static void resizeRoot(twjson::Document& doc, std::uint64_t capacity);
    static void growRoot(twjson::Document& doc);
    void compactIfWasteful();

    twjson::Document* doc_ = nullptr;  // null for a null or boolean made on its own
    const twjson::Node* node_ = &twjson::kNullNode;
};

struct TWJsonMember {
    QString key;
    TWJsonValue value;
    std::shared_ptr<const TWJsonValue> nonStringKey;  // set only for a key that is not a string
};

// The elements of an array (Item TWJsonValue) or the members of a dictionary (Item
// TWJsonMember), read in order. The range keeps the document alive while it is walked.
template <typename Item>
class TWJsonRange {
    static constexpr std::ptrdiff_t kStep = std::is_same_v<Item, TWJsonMember> ? 2 : 1;

public:
    class iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = Item;
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = Item;

        iterator() = default;
        iterator(const twjson::Document* doc, const twjson::Node* at) : doc_(doc), at_(at) {}
        Item operator*() const;
        iterator& operator++() {
            at_ += kStep;
            return *this;
        }
        iterator operator++(int) {
            iterator before = *this;
            at_ += kStep;
            return before;
        }
        friend bool operator==(const iterator& a, const iterator& b) { return a.at_ == b.at_; }

    private:
        const twjson::Document* doc_ = nullptr;
        const twjson::Node* at_ = nullptr;
    };

    explicit TWJsonRange(const TWJsonValue& owner) : owner_(owner) {}
    iterator begin() const { return at(0); }
    iterator end() const { return at(owner_.count()); }
    qsizetype size() const { return owner_.count(); }
    bool empty() const { return size() == 0; }

private:
    iterator at(qsizetype index) const;

    TWJsonValue owner_;
};
