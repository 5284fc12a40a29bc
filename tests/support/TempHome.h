// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "tests/support/QtPrinters.h"

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>
#include <map>
#include <optional>

namespace testsupport {

// A fresh home folder for one test: HOME and the XDG folders point into it, and the standard
// user defaults are re-read from it. The environment is restored on destruction.
class TempHome {
public:
    TempHome();
    ~TempHome();
    TempHome(const TempHome&) = delete;
    TempHome& operator=(const TempHome&) = delete;

    QString path() const { return dir_.path(); }
    QString configFile() const;

private:
    void setVariable(const char* name, const QString& value);

    QTemporaryDir dir_;
    std::map<QByteArray, std::optional<QByteArray>> saved_;
};

}  // namespace testsupport
