// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/VideoPageTool.h"

#include <QProcess>

namespace foundation {

QString VideoPageTool::formatSelection() const {
    switch (format) {
        case Format::Best:
            return QStringLiteral("bv*+ba/b");
        case Format::AudioOnly:
            return QStringLiteral("ba/b");
        case Format::BestUpTo1080p:
            break;
    }
    return QStringLiteral("bv*[height<=1080]+ba/b[height<=1080]/b");
}

std::optional<QString> videoPageToolVersion(const QString& program) {
    QProcess process;
    process.setProgram(program);
    process.setArguments({QStringLiteral("--ignore-config"), QStringLiteral("--version")});
    process.start();
    if (!process.waitForFinished(5000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0) {
        process.kill();
        process.waitForFinished(1000);
        return std::nullopt;
    }
    const QString version = QString::fromUtf8(process.readAllStandardOutput()).trimmed();
    if (version.isEmpty())
        return std::nullopt;
    return version.section(QLatin1Char('\n'), 0, 0);
}

}  // namespace foundation
