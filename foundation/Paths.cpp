// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/Paths.h"

#include <QDir>

namespace foundation {

QString expandingTildeInPath(const QString& path) {
    if (path == QLatin1String("~"))
        return QDir::homePath();
    if (path.startsWith(QLatin1String("~/")))
        return QDir::homePath() + path.mid(1);
    return path;
}

}  // namespace foundation
