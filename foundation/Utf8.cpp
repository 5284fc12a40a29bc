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

}  // namespace foundation
