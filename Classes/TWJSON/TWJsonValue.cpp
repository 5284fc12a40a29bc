#include "Classes/TWJSON/TWJsonValue.h"

#include <QHash>
#include <QLocale>
#include <stdexcept>

namespace {

// Small dictionaries are searched linearly; past this size a hash index takes over.
constexpr std::size_t kIndexThreshold = 12;
// Fresh containers start small: most objects and arrays of real documents are.
constexpr std::size_t kDictionaryCapacity = 7;

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

const std::vector<TWJsonValue> kNoElements;
const std::vector<TWJsonMember> kNoMembers;
const std::shared_ptr<const TWJsonCustom> kNoCustom;
const QString kNoText;

}  // namespace

std::optional<TWJsonValue> TWJsonCustom::proxyForJson() const {
    return std::nullopt;
}

struct TWJsonValue::Container {
    std::vector<TWJsonValue> elements;
    std::vector<TWJsonMember> members;
    std::unique_ptr<QHash<QString, std::size_t>> index;
    std::shared_ptr<const TWJsonCustom> custom;

    Container() = default;
    Container(const Container& other)
        : elements(other.elements), members(other.members), custom(other.custom) {
        if (other.index)
            index = std::make_unique<QHash<QString, std::size_t>>(*other.index);
    }

    std::ptrdiff_t find(const QString& key) const {
        if (index) {
            auto it = index->constFind(key);
            return it == index->constEnd() ? -1 : static_cast<std::ptrdiff_t>(*it);
        }
        for (std::size_t i = 0; i < members.size(); ++i) {
            if (!members[i].nonStringKey && members[i].key == key) {
                return static_cast<std::ptrdiff_t>(i);
            }
        }
        return -1;
    }

    void add(TWJsonMember&& member) {
        members.push_back(std::move(member));
        if (index) {
            index->insert(members.back().key, members.size() - 1);
        } else if (members.size() > kIndexThreshold) {
            index = std::make_unique<QHash<QString, std::size_t>>();
            index->reserve(static_cast<qsizetype>(members.size() * 2));
            for (std::size_t i = 0; i < members.size(); ++i) {
                if (!members[i].nonStringKey)
                    index->insert(members[i].key, i);
            }
        }
    }
};

TWJsonValue TWJsonValue::boolean(bool b) {
    TWJsonValue v;
    v.type_ = Type::Boolean;
    v.bool_ = b;
    return v;
}

TWJsonValue TWJsonValue::number(const QString& decimalText) {
    TWJsonValue v;
    v.type_ = Type::Number;
    v.text_ = decimalText.isNull() ? QStringLiteral("") : decimalText;
    return v;
}

TWJsonValue TWJsonValue::number(std::shared_ptr<const QByteArray> source, quint32 offset,
                                quint32 length) {
    TWJsonValue v;
    v.type_ = Type::Number;
    v.sliceOffset_ = offset;
    v.sliceLength_ = length;
    v.shared_ = std::move(source);
    return v;
}

TWJsonValue TWJsonValue::number(qint64 n) {
    return number(QString::number(n));
}

TWJsonValue TWJsonValue::number(double d) {
    return number(QString::number(d, 'g', QLocale::FloatingPointShortest));
}

TWJsonValue TWJsonValue::string(const QString& s) {
    TWJsonValue v;
    v.type_ = Type::String;
    v.text_ = s;
    return v;
}

TWJsonValue TWJsonValue::string(QString&& s) {
    TWJsonValue v;
    v.type_ = Type::String;
    v.text_ = std::move(s);
    return v;
}

TWJsonValue TWJsonValue::array() {
    TWJsonValue v;
    v.type_ = Type::Array;
    v.shared_ = std::make_shared<Container>();
    return v;
}

TWJsonValue TWJsonValue::array(std::vector<TWJsonValue>&& elements) {
    TWJsonValue v;
    v.type_ = Type::Array;
    auto c = std::make_shared<Container>();
    c->elements = std::move(elements);
    v.shared_ = std::move(c);
    return v;
}

TWJsonValue TWJsonValue::dictionary() {
    TWJsonValue v;
    v.type_ = Type::Dictionary;
    auto c = std::make_shared<Container>();
    c->members.reserve(kDictionaryCapacity);
    v.shared_ = std::move(c);
    return v;
}

TWJsonValue TWJsonValue::custom(std::shared_ptr<const TWJsonCustom> object) {
    TWJsonValue v;
    v.type_ = Type::Custom;
    auto c = std::make_shared<Container>();
    c->custom = std::move(object);
    v.shared_ = std::move(c);
    return v;
}

namespace {

QLatin1String slice(const std::shared_ptr<const void>& shared, quint32 offset, quint32 length) {
    const auto* source = static_cast<const QByteArray*>(shared.get());
    return QLatin1String(source->constData() + offset, length);
}

}  // namespace

QString TWJsonValue::numberText() const {
    if (type_ != Type::Number)
        return QString();
    return shared_ ? QString(slice(shared_, sliceOffset_, sliceLength_)) : text_;
}

void TWJsonValue::appendNumberText(QString& out) const {
    if (type_ != Type::Number)
        return;
    if (shared_) {
        out.append(slice(shared_, sliceOffset_, sliceLength_));
    } else {
        out.append(text_);
    }
}

// Containers are shared between copies; the first write to a shared one copies it.
TWJsonValue::Container& TWJsonValue::mutableContainer() {
    if (!shared_) {
        shared_ = std::make_shared<Container>();
    } else if (shared_.use_count() > 1) {
        shared_ = std::make_shared<Container>(*container());
    }
    return *const_cast<Container*>(container());
}

void TWJsonValue::append(const TWJsonValue& value) {
    if (type_ == Type::Array)
        mutableContainer().elements.push_back(value);
}

void TWJsonValue::append(TWJsonValue&& value) {
    if (type_ == Type::Array)
        mutableContainer().elements.push_back(std::move(value));
}

void TWJsonValue::insert(const QString& key, const TWJsonValue& value) {
    insert(QString(key), TWJsonValue(value));
}

void TWJsonValue::insert(QString&& key, TWJsonValue&& value) {
    if (type_ != Type::Dictionary)
        return;
    Container& c = mutableContainer();
    if (const std::ptrdiff_t at = c.find(key); at >= 0) {
        c.members[static_cast<std::size_t>(at)].value = std::move(value);
        return;
    }
    c.add(TWJsonMember{std::move(key), std::move(value), nullptr});
}

void TWJsonValue::insertWithNonStringKey(const TWJsonValue& key, const TWJsonValue& value) {
    if (key.isString()) {
        insert(key.stringValue(), value);
        return;
    }
    if (type_ != Type::Dictionary)
        return;
    Container& c = mutableContainer();
    c.members.push_back(
        TWJsonMember{key.numberText(), value, std::make_shared<const TWJsonValue>(key)});
    c.index.reset();  // positions changed meaning; linear search serves until the next rebuild
}

void TWJsonValue::reserve(qsizetype n) {
    if (type_ == Type::Array)
        mutableContainer().elements.reserve(static_cast<std::size_t>(n));
    if (type_ == Type::Dictionary)
        mutableContainer().members.reserve(static_cast<std::size_t>(n));
}

const QString& TWJsonValue::stringValue() const {
    return type_ == Type::String ? text_ : kNoText;
}

const std::shared_ptr<const TWJsonCustom>& TWJsonValue::customObject() const {
    return type_ == Type::Custom ? container()->custom : kNoCustom;
}

qsizetype TWJsonValue::count() const {
    if (type_ == Type::Array)
        return static_cast<qsizetype>(container()->elements.size());
    if (type_ == Type::Dictionary)
        return static_cast<qsizetype>(container()->members.size());
    return 0;
}

const TWJsonValue& TWJsonValue::at(qsizetype index) const {
    if (type_ != Type::Array)
        throw std::invalid_argument("TWJsonValue::at: " + kindName(type_) + " has no elements");
    if (index < 0 || static_cast<std::size_t>(index) >= container()->elements.size()) {
        throw std::out_of_range("TWJsonValue::at: index " + std::to_string(index) +
                                " beyond bounds of " + std::to_string(count()) + " elements");
    }
    return container()->elements[static_cast<std::size_t>(index)];
}

const TWJsonValue* TWJsonValue::valueForKey(const QString& key) const {
    if (type_ != Type::Dictionary) {
        throw std::invalid_argument("TWJsonValue::valueForKey: " + kindName(type_) +
                                    " has no members");
    }
    const std::ptrdiff_t at = container()->find(key);
    return at < 0 ? nullptr : &container()->members[static_cast<std::size_t>(at)].value;
}

QStringList TWJsonValue::keys() const {
    QStringList list;
    for (const auto& m : members())
        list << m.key;
    return list;
}

const std::vector<TWJsonMember>& TWJsonValue::members() const {
    return type_ == Type::Dictionary ? container()->members : kNoMembers;
}

const std::vector<TWJsonValue>& TWJsonValue::elements() const {
    return type_ == Type::Array ? container()->elements : kNoElements;
}

bool operator==(const TWJsonValue& a, const TWJsonValue& b) {
    if (a.type_ != b.type_)
        return false;
    switch (a.type_) {
        case TWJsonValue::Type::Null:
            return true;
        case TWJsonValue::Type::Boolean:
            return a.bool_ == b.bool_;
        case TWJsonValue::Type::Number:
            return a.numberText() == b.numberText();
        case TWJsonValue::Type::String:
            return a.text_ == b.text_;
        case TWJsonValue::Type::Array:
            return a.elements() == b.elements();
        case TWJsonValue::Type::Dictionary: {
            const auto& am = a.members();
            const auto& bm = b.members();
            if (am.size() != bm.size())
                return false;
            for (std::size_t i = 0; i < am.size(); ++i) {
                if (am[i].key != bm[i].key || !(am[i].value == bm[i].value))
                    return false;
            }
            return true;
        }
        case TWJsonValue::Type::Custom:
            return a.customObject() == b.customObject();
    }
    return false;
}
