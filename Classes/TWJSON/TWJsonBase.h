// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <functional>
#include <memory>
#include <vector>

#include "foundation/Error.h"

extern const QString TWJSONErrorDomain;  // "org.lumenwick.JSON.ErrorDomain"

enum TWJsonErrorCode {
    TWJsonErrorUnsupported = 1,
    TWJsonErrorNumber = 2,
    TWJsonErrorParse = 3,
    TWJsonErrorFragment = 4,
    TWJsonErrorControlChar = 5,
    TWJsonErrorUnicode = 6,
    TWJsonErrorDepth = 7,
    TWJsonErrorEscape = 8,
    TWJsonErrorTrailingComma = 9,
    TWJsonErrorTrailingGarbage = 10,
    TWJsonErrorEndOfInput = 11,
    TWJsonErrorNilInput = 12,
};

// Errors oldest first; each one's underlying error is the one before it.
using TWJsonErrorTrace = std::vector<foundation::Error>;

// "(\n    Error Domain=... Code=3 \"...\",\n    ...\n)": how log lines show a trace.
QString describeErrorTrace(const TWJsonErrorTrace* trace);

// What the parser, the writer and the facade share: the nesting limit and the error trace.
class TWJsonBase {
public:
    static constexpr quint64 kDefaultMaxDepth = 512;

    TWJsonBase() = default;
    virtual ~TWJsonBase() = default;

    // Null while no error was recorded since the last clear. The trace handed out stays as it
    // is whatever this object does next.
    std::shared_ptr<const TWJsonErrorTrace> errorTrace() const { return errorTrace_; }
    // Constant time: the trace is copied only when someone still holds the one handed out.
    void addErrorWithCode(qint64 code, const QString& description);
    void clearErrorTrace();

    quint64 maxDepth() const { return maxDepth_; }
    // 0: no limit.
    virtual void setMaxDepth(quint64 maxDepth) { maxDepth_ = maxDepth; }
    quint64 depth() const { return depth_; }

    // Told before (true) and after (false) every change of the trace.
    void setErrorTraceObserver(std::function<void(bool before)> observer) {
        traceObserver_ = std::move(observer);
    }

protected:
    void setErrorTrace(std::shared_ptr<TWJsonErrorTrace> trace);

    quint64 depth_ = 0;

private:
    std::shared_ptr<TWJsonErrorTrace> errorTrace_;
    quint64 maxDepth_ = kDefaultMaxDepth;
    std::function<void(bool)> traceObserver_;
};
