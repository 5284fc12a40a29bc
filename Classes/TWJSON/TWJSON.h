// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <optional>

#include "Classes/TWJSON/TWJsonParser.h"
#include "Classes/TWJSON/TWJsonWriter.h"

// One object for both directions. After a failure its own trace holds a copy of the failing
// parser's or writer's trace; a later success leaves that copy readable.
class TWJSON : public TWJsonBase {
public:
    TWJSON() = default;

    // A dictionary or array, or nothing. A null string is no input.
    std::optional<TWJsonValue> objectWithString(const QString& string,
                                                foundation::Error* error = nullptr);
    std::optional<TWJsonValue> objectWithString(const QString& string, bool allowScalar,
                                                foundation::Error* error);
    std::optional<TWJsonValue> fragmentWithString(const QString& string,
                                                  foundation::Error* error = nullptr);

    // The same over UTF-8 bytes; bytes that are not UTF-8 are no input.
    std::optional<TWJsonValue> objectWithUTF8(const QByteArray& utf8, bool allowScalar,
                                              foundation::Error* error);

    QString stringWithObject(const TWJsonValue& value, foundation::Error* error = nullptr);
    QString stringWithObject(const TWJsonValue& value, bool allowScalar, foundation::Error* error);
    QString stringWithFragment(const TWJsonValue& value, foundation::Error* error = nullptr);
    // The text as UTF-8 bytes; null on failure.
    QByteArray utf8WithObject(const TWJsonValue& value, bool allowScalar, foundation::Error* error);

    // Sets the limit of the parser and the writer alike.
    void setMaxDepth(quint64 maxDepth) override;
    bool humanReadable() const { return jsonWriter_.humanReadable(); }
    void setHumanReadable(bool on) { jsonWriter_.setHumanReadable(on); }
    bool sortKeys() const { return jsonWriter_.sortKeys(); }
    void setSortKeys(bool on) { jsonWriter_.setSortKeys(on); }

    TWJsonParser& jsonParser() { return jsonParser_; }
    TWJsonWriter& jsonWriter() { return jsonWriter_; }

private:
    void takeTrace(const TWJsonBase& from, foundation::Error* error);

    TWJsonParser jsonParser_;
    TWJsonWriter jsonWriter_;
};

// The string and object conveniences: a fresh parser or writer per call, and a log line with the
// error trace when it fails ("-JSONValue failed. Error trace is: ...").
std::optional<TWJsonValue> JSONValue(const QString& string);
std::optional<TWJsonValue> JSONFragmentValue(const QString& string);
QString JSONRepresentation(const TWJsonValue& value);
QString JSONFragment(const TWJsonValue& value);
