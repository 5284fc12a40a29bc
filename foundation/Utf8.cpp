// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/Utf8.h"

#include <QStringDecoder>

namespace foundation {

QString strictUtf8(const QByteArray& bytes) {
    QStringDecoder decoder(QStringDecoder::Utf8, QStringConverter::Flag::Stateless |
                                                     QStringConverter::Flag::ConvertInitialBom);
    QString text = decoder(bytes);
    if (decoder.hasError())
        return QString();
    return text.isNull() ? QStringLiteral("") : text;
}

QString leadingUtf8Bytes(const QString& text, qsizetype maxBytes) {
    qsizetype bytes = 0;
    for (qsizetype i = 0; i < text.size();) {
        const char16_t unit = text[i].unicode();
        const bool pair =
            QChar::isHighSurrogate(unit) && i + 1 < text.size() && text[i + 1].isLowSurrogate();
        // A lone surrogate, which UTF-8 cannot hold, counts as its three-byte stand-in.
        const qsizetype size = pair ? 4 : unit < 0x80 ? 1 : unit < 0x800 ? 2 : 3;
        if (bytes + size > maxBytes)
            return text.left(i);
        bytes += size;
        i += pair ? 2 : 1;
    }
    return text;
}

}  // namespace foundation
