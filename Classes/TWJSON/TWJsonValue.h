#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <memory>
#include <optional>
#include <vector>

class TWJsonValue;
struct TWJsonMember;

// An object the writer cannot write directly. It may offer a writable substitute.
class TWJsonCustom {
public:
    virtual ~TWJsonCustom() = default;
    // The class name error messages show.
    virtual QString className() const = 0;
    // The substitute to write instead, or nothing when the object offers none.
    virtual std::optional<TWJsonValue> proxyForJson() const;
};

// A decoded JSON value: null, boolean, number (kept as the exact decimal text it was made from),
// string (UTF-16), array, or dictionary (members in insertion order, a repeated key replacing the
// earlier value). Copies are cheap: containers are shared and copied on the first write.
class TWJsonValue {
public:
    enum class Type { Null, Boolean, Number, String, Array, Dictionary, Custom };

    TWJsonValue() = default;
    static TWJsonValue null() { return TWJsonValue(); }
    static TWJsonValue boolean(bool b);
    static TWJsonValue number(const QString& decimalText);
    static TWJsonValue number(qint64 n);
    static TWJsonValue number(double d);
    // A number whose text is bytes [offset, offset + length) of source, which is shared, not
    // copied: the parser wraps every number of a document this way.
    static TWJsonValue number(std::shared_ptr<const QByteArray> source, quint32 offset,
                              quint32 length);
    static TWJsonValue string(const QString& s);
    static TWJsonValue string(QString&& s);
    static TWJsonValue array();
    static TWJsonValue array(std::vector<TWJsonValue>&& elements);
    static TWJsonValue dictionary();
    static TWJsonValue custom(std::shared_ptr<const TWJsonCustom> object);

    void append(const TWJsonValue& value);
    void append(TWJsonValue&& value);
    void insert(const QString& key, const TWJsonValue& value);
    void insert(QString&& key, TWJsonValue&& value);
    // A member whose key is not a string (only the writer's error path needs one).
    void insertWithNonStringKey(const TWJsonValue& key, const TWJsonValue& value);
    void reserve(qsizetype n);

    Type type() const { return type_; }
    bool isNull() const { return type_ == Type::Null; }
    bool isBoolean() const { return type_ == Type::Boolean; }
    bool isNumber() const { return type_ == Type::Number; }
    bool isString() const { return type_ == Type::String; }
    bool isArray() const { return type_ == Type::Array; }
    bool isDictionary() const { return type_ == Type::Dictionary; }
    bool isCustom() const { return type_ == Type::Custom; }

    bool boolValue() const { return type_ == Type::Boolean && bool_; }
    QString numberText() const;
    // Appends the number's text, without a temporary string for a wrapped one.
    void appendNumberText(QString& out) const;
    // The text of a string; a null string for any other value.
    const QString& stringValue() const;
    const std::shared_ptr<const TWJsonCustom>& customObject() const;

    // Elements of an array, members of a dictionary, else 0.
    qsizetype count() const;
    // Asking a value of the wrong kind raises, as the platform's collections do: an element of
    // anything but an array, or a member of anything but a dictionary, throws
    // std::invalid_argument. An index outside 0 .. count() - 1 throws std::out_of_range; a key
    // that is not there gives nullptr.
    const TWJsonValue& at(qsizetype index) const;
    const TWJsonValue* valueForKey(const QString& key) const;
    QStringList keys() const;

    // The members of a dictionary in insertion order; the elements of an array.
    const std::vector<TWJsonMember>& members() const;
    const std::vector<TWJsonValue>& elements() const;

    // Deep equality (numbers by their text).
    friend bool operator==(const TWJsonValue& a, const TWJsonValue& b);

private:
    struct Container;
    Container& mutableContainer();

    const Container* container() const { return static_cast<const Container*>(shared_.get()); }

    Type type_ = Type::Null;
    bool bool_ = false;
    quint32 sliceOffset_ = 0;
    quint32 sliceLength_ = 0;
    QString text_;
    // The container of an array, dictionary or custom value; the source of a wrapped number.
    std::shared_ptr<const void> shared_;
};

struct TWJsonMember {
    QString key;
    TWJsonValue value;
    std::shared_ptr<const TWJsonValue> nonStringKey;  // set only for a key that is not a string
};
