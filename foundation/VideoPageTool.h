// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <QStringList>
#include <optional>

namespace foundation {

// The program that turns a web page with a video into the video (yt-dlp): a transfer whose answer
// is a web page hands itself over to it, while one is set (URLDownload::setVideoPageTool).
struct VideoPageTool {
    // The program's path; a bare name is looked up on PATH.
    QString program = QStringLiteral("yt-dlp");
    // Which of the page's media to fetch, as yt-dlp's format selection.
    enum class Format { BestUpTo1080p, Best, AudioOnly };
    Format format = Format::BestUpTo1080p;

    // yt-dlp's -f value for the format.
    QString formatSelection() const;
};

// The program's version ("2023.03.04"), or nothing when it cannot be run. Runs it, for at most a
// few seconds.
std::optional<QString> videoPageToolVersion(const QString& program);

}  // namespace foundation
