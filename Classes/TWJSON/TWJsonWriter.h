#pragma once

#include <QString>

#include "Classes/TWJSON/TWJsonBase.h"
#include "Classes/TWJSON/TWJsonValue.h"

// Writes values as JSON text: compact ({"a":[1,2]}) or, with humanReadable, one element or
// member a line, two spaces a level, " : " between key and value. Numbers are written as the
// text they were made from. A custom object is written through its proxyForJson substitute.
class TWJsonWriter : public TWJsonBase {
public:
    // Text whose top level is a dictionary or an array; null on failure.
    QString stringWithObject(const TWJsonValue& value);
    // Text of any writable value; null on failure.
    QString stringWithFragment(const TWJsonValue& value);

    bool appendValue(const TWJsonValue& value, QString& out);
    bool appendArray(const TWJsonValue& array, QString& out);
    bool appendDictionary(const TWJsonValue& dictionary, QString& out);
    bool appendString(const QString& string, QString& out);
    // A line feed and two spaces per level of the current depth.
    QString indent() const;

    bool humanReadable() const { return humanReadable_; }
    void setHumanReadable(bool on) { humanReadable_ = on; }
    bool sortKeys() const { return sortKeys_; }
    void setSortKeys(bool on) { sortKeys_ = on; }

private:
    bool enterContainer();
    void appendIndent(QString& out) const;

    bool sortKeys_ = false;
    bool humanReadable_ = false;
};
