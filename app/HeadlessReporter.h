// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QElapsedTimer>
#include <map>

#include "agent/DownloadReporter.h"

// A headless run's account of its downloads, one line on standard error for each begin, wait, end
// and failure; on a terminal also a live line of progress.
class HeadlessReporter : public DownloadReporter {
public:
    HeadlessReporter();

    void downloadBegan(const FXDownload& download) override;
    void downloadProgressed(const FXDownload& download) override;
    void downloadFinished(const FXDownload& download) override;
    void downloadFailed(const FXDownload& download, const foundation::Error& error) override;
    void downloadWaitChanged(const FXDownload& download) override;

    int failures() const { return failures_; }

private:
    void printLine(const QString& line);

    bool terminal_;
    bool progressShown_ = false;
    QElapsedTimer sinceProgress_;
    std::map<const FXDownload*, QElapsedTimer> running_;
    int failures_ = 0;
};
