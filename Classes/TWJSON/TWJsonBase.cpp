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
    auto next = errorTrace_ ? std::make_shared<TWJsonErrorTrace>(*errorTrace_)
                            : std::make_shared<TWJsonErrorTrace>();
    std::shared_ptr<const foundation::Error> previous =
        next->empty() ? nullptr : std::make_shared<const foundation::Error>(next->back());
    next->emplace_back(TWJSONErrorDomain, code, description, std::move(previous));
    setErrorTrace(std::move(next));
}

void TWJsonBase::clearErrorTrace() {
    setErrorTrace(nullptr);
}

void TWJsonBase::setErrorTrace(std::shared_ptr<const TWJsonErrorTrace> trace) {
    if (traceObserver_)
        traceObserver_(true);
    errorTrace_ = std::move(trace);
    if (traceObserver_)
        traceObserver_(false);
}
