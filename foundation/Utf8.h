// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QString>

namespace foundation {

// Bytes as text, every byte kept: a leading byte-order mark stays in the text as U+FEFF. Null
// when the bytes are not valid UTF-8; empty, not null, when there are none.
QString strictUtf8(const QByteArray& bytes);

// The longest start of the text whose UTF-8 form takes at most maxBytes, cut between characters:
// file systems count a name's length in bytes.
QString leadingUtf8Bytes(const QString& text, qsizetype maxBytes);

}  // namespace foundation
