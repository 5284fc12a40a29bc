// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <QStringList>
#include <ostream>

// Readable GoogleTest messages for Qt strings.
inline void PrintTo(const QString& text, std::ostream* os) {
    *os << '"' << text.toStdString() << '"';
}

inline void PrintTo(const QStringList& list, std::ostream* os) {
    *os << '{';
    for (qsizetype i = 0; i < list.size(); ++i) {
        if (i)
            *os << ", ";
        PrintTo(list[i], os);
    }
    *os << '}';
}
