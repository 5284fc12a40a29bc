// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/HeadlessReporter.h"

#include <unistd.h>

#include <cstdio>

#include "agent/FXDownload.h"

namespace {
constexpr qint64 kProgressIntervalMs = 100;
constexpr qint64 kMebibyte = 1048576;
}  // namespace

HeadlessReporter::HeadlessReporter() : terminal_(::isatty(STDERR_FILENO) == 1) {}

void HeadlessReporter::downloadBegan(const FXDownload& download) {
    running_[&download].start();
    printLine(QStringLiteral("download begins: %1").arg(download.displayName()));
}

void HeadlessReporter::downloadProgressed(const FXDownload& download) {
    if (!terminal_ || (sinceProgress_.isValid() && sinceProgress_.elapsed() < kProgressIntervalMs))
        return;
    sinceProgress_.start();
    const QString total = download.size() >= 0
                              ? QStringLiteral("%1 MiB").arg(download.size() / kMebibyte)
                              : QStringLiteral("?");
    const QString line = QStringLiteral("\r\033[K%1: %2 of %3")
                             .arg(download.displayName())
                             .arg(QStringLiteral("%1 MiB").arg(download.done() / kMebibyte), total);
    std::fputs(line.toLocal8Bit().constData(), stderr);
    std::fflush(stderr);
    progressShown_ = true;
}

void HeadlessReporter::downloadFinished(const FXDownload& download) {
    const auto it = running_.find(&download);
    const double seconds = it == running_.end() ? 0.0 : it->second.nsecsElapsed() / 1e9;
    if (it != running_.end())
        running_.erase(it);
    const double rate = seconds > 0.0 ? download.done() / 1e6 / seconds : 0.0;
    printLine(QStringLiteral("download finished: %1 (%2 bytes, %3 MB/s)")
                  .arg(download.destination())
                  .arg(download.done())
                  .arg(rate, 0, 'f', 1));
}

void HeadlessReporter::downloadFailed(const FXDownload& download, const foundation::Error& error) {
    running_.erase(&download);
    ++failures_;
    printLine(QStringLiteral("download failed: %1: %2")
                  .arg(download.absoluteURLString(), error.localizedDescription));
}

// A wait says why the last attempt ended; its end says nothing, the progress shows it.
void HeadlessReporter::downloadWaitChanged(const FXDownload& download) {
    const std::optional<foundation::URLDownload::Wait> wait = download.waiting();
    if (!wait)
        return;
    printLine(QStringLiteral("download waits: %1: %2 (%3)")
                  .arg(download.absoluteURLString(), download.waitText(), wait->reason));
}

void HeadlessReporter::printLine(const QString& line) {
    if (progressShown_) {
        std::fputs("\r\033[K", stderr);
        progressShown_ = false;
    }
    std::fprintf(stderr, "%s\n", line.toLocal8Bit().constData());
    std::fflush(stderr);
}
