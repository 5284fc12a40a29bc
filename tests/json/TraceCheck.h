// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <gtest/gtest.h>

#include <QStringList>

#include "Classes/TWJSON/TWJsonBase.h"
#include "tests/support/QtPrinters.h"

namespace jsontest {

// The trace as "CODE MESSAGE" lines, oldest first, after checking that every error is of the
// codec's domain and points to the one recorded before it.
inline QStringList traceLines(const TWJsonBase& codec) {
    QStringList lines;
    const auto trace = codec.errorTrace();
    if (!trace)
        return lines;
    for (std::size_t i = 0; i < trace->size(); ++i) {
        const foundation::Error& e = (*trace)[i];
        EXPECT_EQ(e.domain, TWJSONErrorDomain);
        if (i == 0) {
            EXPECT_EQ(e.underlyingError, nullptr);
        } else {
            EXPECT_NE(e.underlyingError, nullptr);
            if (e.underlyingError) {
                EXPECT_EQ(*e.underlyingError, (*trace)[i - 1]);
            }
        }
        lines << QStringLiteral("%1 %2").arg(e.code).arg(e.localizedDescription);
    }
    return lines;
}

}  // namespace jsontest
