// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/PasswordFile.h"

#include <sys/stat.h>
#include <QFile>

PasswordFileResult readPasswordFile(const QString& path) {
    struct stat info {};
    if (::stat(QFile::encodeName(path).constData(), &info) != 0) {
        return {QString(), QStringLiteral("cannot read password file %1").arg(path)};
    }
    if (info.st_mode & (S_IRGRP | S_IROTH)) {
        return {QString(),
                QStringLiteral("password file %1 can be read by other users; make it private "
                               "with: chmod 600 %1")
                    .arg(path)};
    }
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return {QString(), QStringLiteral("cannot read password file %1").arg(path)};
    }
    QByteArray line = file.readLine();
    if (line.endsWith('\n'))
        line.chop(1);
    if (line.endsWith('\r'))
        line.chop(1);
    QString password = QString::fromUtf8(line);
    if (password.isNull())
        password = QLatin1String("");  // an empty file gives an empty password
    return {password, QString()};
}
