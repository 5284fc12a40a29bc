// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/VideoPageRun.h"

#include <QDir>
#include <QFileInfo>

namespace foundation {

namespace {

// How the tool names a file when it is left to choose: the title, cut to a length any file
// system takes, and the video's id, which tells apart two videos of one title.
const QString kNameTemplate = QStringLiteral("%(title).150B [%(id)s].%(ext)s");
// One progress line for each step of a download: "FBX DONE TOTAL ESTIMATE" (NA when unknown).
const QString kProgressTemplate = QStringLiteral(
    "download:FBX %(progress.downloaded_bytes)s %(progress.total_bytes)s "
    "%(progress.total_bytes_estimate)s");
constexpr int kErrorLinesKept = 3;

QStringList commonArguments() {
    return {QStringLiteral("--ignore-config"), QStringLiteral("--no-playlist"),
            QStringLiteral("--no-exec"), QStringLiteral("--no-batch-file")};
}

// yt-dlp reads "%" in an output name as the start of a field.
QString literalTemplate(const QString& path) {
    return QString(path).replace(QLatin1Char('%'), QStringLiteral("%%"));
}

qint64 number(const QByteArray& text) {
    bool ok = false;
    const qint64 value = text.toLongLong(&ok);
    if (ok)
        return value;
    const double real = text.toDouble(&ok);
    return ok ? static_cast<qint64>(real) : -1;
}

}  // namespace

VideoPageRun::VideoPageRun(const VideoPageTool& tool, int silenceMs) : tool_(tool) {
    silence_.setSingleShot(true);
    silence_.setInterval(silenceMs);
    connect(&silence_, &QTimer::timeout, this, [this] {
        silent_ = true;
        process_.kill();
    });
    connect(&process_, &QProcess::readyReadStandardOutput, this, [this] { readOutput(); });
    connect(&process_, &QProcess::readyReadStandardError, this, [this] {
        errors_ += process_.readAllStandardError();
        errors_ = errors_.right(16 * 1024);
        silence_.start();
    });
    connect(&process_, &QProcess::finished, this, [this] { finished(); });
    connect(&process_, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            finished();
    });
}

VideoPageRun::~VideoPageRun() {
    stop();
}

void VideoPageRun::look(const QString& link, Done done) {
    QStringList arguments = commonArguments();
    arguments << QStringLiteral("--simulate") << QStringLiteral("-f") << tool_.formatSelection()
              << QStringLiteral("-o") << kNameTemplate << QStringLiteral("--print")
              << QStringLiteral("filename") << QStringLiteral("--print")
              << QStringLiteral("%(filesize,filesize_approx)s") << QStringLiteral("--") << link;
    run(arguments, std::move(done));
}

void VideoPageRun::download(const QString& link, const QString& file, Progress progress,
                            Done done) {
    progress_ = std::move(progress);
    QStringList arguments = commonArguments();
    arguments << QStringLiteral("--newline") << QStringLiteral("--progress")
              << QStringLiteral("--progress-template") << kProgressTemplate
              << QStringLiteral("--continue") << QStringLiteral("-f") << tool_.formatSelection()
              << QStringLiteral("-o") << literalTemplate(file) << QStringLiteral("--print")
              << QStringLiteral("after_move:filepath") << QStringLiteral("--") << link;
    run(arguments, std::move(done));
}

void VideoPageRun::run(const QStringList& arguments, Done done) {
    done_ = std::move(done);
    process_.setProgram(tool_.program);
    process_.setArguments(arguments);
    process_.start();
    silence_.start();
}

void VideoPageRun::stop() {
    done_ = nullptr;
    progress_ = nullptr;
    silence_.stop();
    if (process_.state() != QProcess::NotRunning) {
        process_.kill();
        process_.waitForFinished(2000);
    }
}

void VideoPageRun::readOutput() {
    silence_.start();
    output_ += process_.readAllStandardOutput();
    // Progress lines are taken as they come; the rest is kept for the end.
    qsizetype start = 0;
    QByteArray kept;
    while (true) {
        const qsizetype end = output_.indexOf('\n', start);
        if (end < 0)
            break;
        const QByteArray line = output_.mid(start, end - start).trimmed();
        start = end + 1;
        if (!line.startsWith("FBX ")) {
            kept += line + '\n';
            continue;
        }
        const QList<QByteArray> fields = line.split(' ');
        const qint64 done = number(fields.value(1));
        qint64 total = number(fields.value(2));
        if (total < 0)
            total = number(fields.value(3));
        if (done < 0)
            continue;
        // A video of two streams (picture and sound) is fetched one after the other.
        if (done < lastDone_)
            finishedStreams_ += lastDone_;
        lastDone_ = done;
        if (progress_)
            progress_(finishedStreams_ + done, total < 0 ? -1 : finishedStreams_ + total);
    }
    output_ = kept + output_.mid(start);
}

void VideoPageRun::finished() {
    silence_.stop();
    readOutput();
    Outcome outcome;
    outcome.ok = !silent_ && process_.exitStatus() == QProcess::NormalExit &&
                 process_.exitCode() == 0 && process_.error() != QProcess::FailedToStart;
    outcome.silent = silent_;
    outcome.output = QString::fromUtf8(output_).trimmed();
    QStringList errorLines;
    for (const QByteArray& line : errors_.split('\n')) {
        if (!line.trimmed().isEmpty() && !line.startsWith("WARNING:"))
            errorLines << QString::fromUtf8(line.trimmed());
    }
    if (process_.error() == QProcess::FailedToStart)
        errorLines << QStringLiteral("%1 could not be started").arg(tool_.program);
    outcome.errorTail = errorLines.mid(std::max<qsizetype>(0, errorLines.size() - kErrorLinesKept))
                            .join(QLatin1Char(' '));
    if (Done done = std::exchange(done_, nullptr))
        done(outcome);
}

VideoPageRun::Look VideoPageRun::lookFrom(const Outcome& outcome) {
    Look look;
    const QStringList lines = outcome.output.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    if (lines.isEmpty())
        return look;
    look.fileName = QFileInfo(lines.first()).fileName();
    look.size = lines.size() > 1 ? number(lines.at(1).trimmed().toUtf8()) : -1;
    return look;
}

QStringList VideoPageRun::workFiles(const QString& file) {
    const QFileInfo info(file);
    const QString stem = info.completeBaseName();
    QStringList found;
    const QDir folder = info.dir();
    for (const QString& name : folder.entryList(QDir::Files | QDir::Hidden)) {
        if (!name.startsWith(stem))
            continue;
        if (name.endsWith(QLatin1String(".part")) || name.endsWith(QLatin1String(".ytdl")) ||
            name.contains(QLatin1String(".part-Frag")) || name.endsWith(QLatin1String(".temp")))
            found << folder.filePath(name);
    }
    return found;
}

}  // namespace foundation
