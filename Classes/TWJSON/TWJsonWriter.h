// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QString>

#include "Classes/TWJSON/TWJsonBase.h"
#include "Classes/TWJSON/TWJsonValue.h"

namespace twjson {
struct Document;
}  // namespace twjson

// Writes values as JSON text: compact ({"a":[1,2]}) or, with humanReadable, one element or
// member a line, two spaces a level, " : " between key and value. Numbers are written as the
// text they were made from. A custom object is written through its proxyForJson substitute.
class TWJsonWriter : public TWJsonBase {
public:
    // Text whose top level is a dictionary or an array; null on failure.
    QString stringWithObject(const TWJsonValue& value);
    // Text of any writable value; null on failure.
    QString stringWithFragment(const TWJsonValue& value);
    // The same texts as UTF-8 bytes, where a lone surrogate, which has no UTF-8 form, becomes
    // U+FFFD; null on failure.
    QByteArray utf8WithObject(const TWJsonValue& value);
    QByteArray utf8WithFragment(const TWJsonValue& value);

    bool humanReadable() const { return humanReadable_; }
    void setHumanReadable(bool on) { humanReadable_ = on; }
    bool sortKeys() const { return sortKeys_; }
    void setSortKeys(bool on) { sortKeys_ = on; }

private:
    template <typename Sink>
    bool writeObject(const TWJsonValue& value, Sink& out);
    template <typename Sink>
    bool writeFragment(const TWJsonValue& value, Sink& out);
    template <typename Sink>
    bool appendValue(const twjson::Document* doc, const twjson::Node& value, Sink& out);
    template <typename Sink>
    bool appendArray(const twjson::Document* doc, const twjson::Node& array, Sink& out);
    template <typename Sink>
    bool appendDictionary(const twjson::Document* doc, const twjson::Node& dictionary, Sink& out);
    template <typename Sink>
    void appendIndent(Sink& out) const;
    bool enterContainer();

    bool sortKeys_ = false;
    bool humanReadable_ = false;
};
