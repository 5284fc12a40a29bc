#include "client/JsonBody.h"

#include <QStringDecoder>

#include "Classes/TWJSON/TWJSON.h"

QString strictUtf8(const QByteArray& body) {
    QStringDecoder decoder(QStringDecoder::Utf8, QStringConverter::Flag::Stateless);
    QString text = decoder(body);
    if (decoder.hasError())
        return QString();
    return text.isNull() ? QStringLiteral("") : text;
}

std::optional<TWJsonValue> jsonFromBody(const QByteArray& body) {
    TWJSON json;
    return json.objectWithString(strictUtf8(body));
}
