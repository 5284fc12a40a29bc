// SPDX-License-Identifier: GPL-3.0-or-later
#include "Classes/TWJSON/TWJSON.h"

#include "foundation/Log.h"

std::optional<TWJsonValue> TWJSON::objectWithString(const QString& string,
                                                    foundation::Error* error) {
    return objectWithString(string, false, error);
}

std::optional<TWJsonValue> TWJSON::objectWithString(const QString& string, bool allowScalar,
                                                    foundation::Error* error) {
    std::optional<TWJsonValue> value =
        allowScalar ? jsonParser_.fragmentWithString(string) : jsonParser_.objectWithString(string);
    if (!value)
        takeTrace(jsonParser_, error);
    return value;
}

std::optional<TWJsonValue> TWJSON::fragmentWithString(const QString& string,
                                                      foundation::Error* error) {
    return objectWithString(string, true, error);
}

std::optional<TWJsonValue> TWJSON::objectWithUTF8(const QByteArray& utf8, bool allowScalar,
                                                  foundation::Error* error) {
    std::optional<TWJsonValue> value =
        allowScalar ? jsonParser_.fragmentWithUTF8(utf8) : jsonParser_.objectWithUTF8(utf8);
    if (!value)
        takeTrace(jsonParser_, error);
    return value;
}

QString TWJSON::stringWithObject(const TWJsonValue& value, foundation::Error* error) {
    return stringWithObject(value, false, error);
}

QString TWJSON::stringWithObject(const TWJsonValue& value, bool allowScalar,
                                 foundation::Error* error) {
    QString text =
        allowScalar ? jsonWriter_.stringWithFragment(value) : jsonWriter_.stringWithObject(value);
    if (text.isNull())
        takeTrace(jsonWriter_, error);
    return text;
}

QString TWJSON::stringWithFragment(const TWJsonValue& value, foundation::Error* error) {
    return stringWithObject(value, true, error);
}

QByteArray TWJSON::utf8WithObject(const TWJsonValue& value, bool allowScalar,
                                  foundation::Error* error) {
    QByteArray text =
        allowScalar ? jsonWriter_.utf8WithFragment(value) : jsonWriter_.utf8WithObject(value);
    if (text.isNull())
        takeTrace(jsonWriter_, error);
    return text;
}

void TWJSON::setMaxDepth(quint64 maxDepth) {
    TWJsonBase::setMaxDepth(maxDepth);
    jsonParser_.setMaxDepth(maxDepth);
    jsonWriter_.setMaxDepth(maxDepth);
}

void TWJSON::takeTrace(const TWJsonBase& from, foundation::Error* error) {
    auto trace = from.errorTrace();
    setErrorTrace(trace ? std::make_shared<TWJsonErrorTrace>(*trace) : nullptr);
    if (error && trace && !trace->empty())
        *error = trace->back();
}

namespace {

void logFailure(const char* method, const TWJsonBase& codec) {
    foundation::log(QStringLiteral("-%1 failed. Error trace is: %2")
                        .arg(QLatin1String(method), describeErrorTrace(codec.errorTrace().get())));
}

}  // namespace

std::optional<TWJsonValue> JSONValue(const QString& string) {
    TWJsonParser parser;
    auto value = parser.objectWithString(string);
    if (!value)
        logFailure("JSONValue", parser);
    return value;
}

std::optional<TWJsonValue> JSONFragmentValue(const QString& string) {
    TWJsonParser parser;
    auto value = parser.fragmentWithString(string);
    if (!value)
        logFailure("JSONFragmentValue", parser);
    return value;
}

QString JSONRepresentation(const TWJsonValue& value) {
    TWJsonWriter writer;
    QString text = writer.stringWithObject(value);
    if (text.isNull())
        logFailure("JSONRepresentation", writer);
    return text;
}

QString JSONFragment(const TWJsonValue& value) {
    TWJsonWriter writer;
    QString text = writer.stringWithFragment(value);
    if (text.isNull())
        logFailure("JSONFragment", writer);
    return text;
}
