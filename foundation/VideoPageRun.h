// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>
#include <QProcess>
#include <QStringList>
#include <QTimer>
#include <functional>

#include "foundation/VideoPageTool.h"

namespace foundation {

// One run of the video page tool for one link: either a look at the page (what the video would
// be called and how large it is) or the download of the video into a file. The link always comes
// last, after "--", so that nothing in it is ever taken for an option; the user's configuration
// files are ignored, so that none can add one; no shell is involved.
class VideoPageRun : public QObject {
public:
    struct Look {
        QString fileName;  // as the tool would name it, no folder
        qint64 size = -1;  // -1 when the page does not say
    };
    struct Outcome {
        bool ok = false;
        QString output;       // what the tool printed on standard output, trimmed
        QString errorTail;    // the last lines of its standard error, for a failure's reason
        bool silent = false;  // stopped after saying nothing for too long
    };

    // Progress of a download: bytes so far of every stream the video is made of, and the total
    // when known (-1 when not).
    using Progress = std::function<void(qint64 done, qint64 total)>;
    using Done = std::function<void(const Outcome&)>;

    VideoPageRun(const VideoPageTool& tool, int silenceMs);
    ~VideoPageRun() override;

    // What the page's video would be called and its size.
    void look(const QString& link, Done done);
    // The video into exactly this file (yt-dlp's own ".part" beside it until it is whole).
    void download(const QString& link, const QString& file, Progress progress, Done done);
    // Stops the tool; nothing more is reported.
    void stop();

    static Look lookFrom(const Outcome& outcome);
    // The files the tool writes beside `file` while it works, for removing a transfer that was
    // cancelled.
    static QStringList workFiles(const QString& file);

private:
    void run(const QStringList& arguments, Done done);
    void readOutput();
    void finished();

    VideoPageTool tool_;
    QProcess process_;
    QTimer silence_;
    Progress progress_;
    Done done_;
    QByteArray output_;
    QByteArray errors_;
    qint64 finishedStreams_ = 0;  // bytes of the streams already complete
    qint64 lastDone_ = 0;
    bool silent_ = false;
};

}  // namespace foundation
