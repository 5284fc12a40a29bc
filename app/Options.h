// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <QStringList>
#include <optional>

// What the command line asks for.
struct Options {
    bool headless = false;
    bool once = false;
    bool help = false;
    bool version = false;
    QString email;         // null when not given
    QString passwordFile;  // null when not given; FERRYBOX_PASSWORD_FILE fills it too
    QString resolveVideo;  // a watch-page link to resolve instead of running; null when not given
    bool hd = false;
};

// Parses arguments (without the program name). On a mistake, error explains it.
std::optional<Options> parseOptions(const QStringList& arguments, const QString& passwordFileEnv,
                                    QString* error);

QString usageText();
