// SPDX-License-Identifier: GPL-3.0-or-later
// Any bytes: parsed as a string (bytes that are not UTF-8 are no input) and as UTF-8 bytes;
// whatever parses is written back, compact and indented, and must parse again to the same value.
// The UTF-8 writer must give what Qt's encoder makes of the UTF-16 writer's text.
#include <QByteArray>
#include <QStringEncoder>
#include <cstdint>
#include <cstdlib>

#include "Classes/TWJSON/TWJSON.h"
#include "foundation/Utf8.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    const QString text = foundation::strictUtf8(bytes);

    TWJsonParser parser;
    const auto fromText = parser.fragmentWithString(text);
    const auto fromBytes = parser.fragmentWithUTF8(bytes);
    if (fromText.has_value() != fromBytes.has_value() && !bytes.contains('\0'))
        std::abort();
    if (!fromText)
        return 0;

    for (bool readable : {false, true}) {
        TWJsonWriter writer;
        writer.setHumanReadable(readable);
        const QString written = writer.stringWithFragment(*fromText);
        if (written.isNull())
            std::abort();
        QStringEncoder encoder(QStringEncoder::Utf8);
        if (writer.utf8WithFragment(*fromText) != QByteArray(encoder(written)))
            std::abort();
        // A surrogate pair escape keeps only the low 16 bits of its code point, which can be a
        // lone surrogate unit; text holding one has no UTF-8 form and cannot come back unchanged.
        if (QString::fromUtf8(written.toUtf8()) != written)
            continue;
        const auto again = parser.fragmentWithString(written);
        if (!again || !(*again == *fromText))
            std::abort();
    }
    return 0;
}
