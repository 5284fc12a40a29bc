// SPDX-License-Identifier: GPL-3.0-or-later
#include "Classes/TWJSON/TWJsonBase.h"

#include <QStringList>

const QString TWJSONErrorDomain = QStringLiteral("org.lumenwick.JSON.ErrorDomain");

QString describeErrorTrace(const TWJsonErrorTrace* trace) {
    if (!trace)
        return QStringLiteral("(null)");
    QStringList lines;
    for (const auto& error : *trace)
        lines << QStringLiteral("    ") + error.description();
    return QStringLiteral("(\n") + lines.join(QStringLiteral(",\n")) + QStringLiteral("\n)");
}

void TWJsonBase::addErrorWithCode(qint64 code, const QString& description) {
    if (traceObserver_)
        traceObserver_(true);
    if (!errorTrace_) {
        errorTrace_ = std::make_shared<TWJsonErrorTrace>();
    } else if (errorTrace_.use_count() > 1) {
        errorTrace_ = std::make_shared<TWJsonErrorTrace>(*errorTrace_);
    }
    std::shared_ptr<const foundation::Error> previous =
        errorTrace_->empty() ? nullptr : std::make_shared<foundation::Error>(errorTrace_->back());
    errorTrace_->emplace_back(TWJSONErrorDomain, code, description, std::move(previous));
    if (traceObserver_)
        traceObserver_(false);
}

void TWJsonBase::clearErrorTrace() {
    setErrorTrace(nullptr);
}

void TWJsonBase::setErrorTrace(std::shared_ptr<TWJsonErrorTrace> trace) {
    if (traceObserver_)
        traceObserver_(true);
    errorTrace_ = std::move(trace);
    if (traceObserver_)
        traceObserver_(false);
}
