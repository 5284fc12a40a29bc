// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <memory>

#include "foundation/URLDownload.h"

// One file transfer started from a link of the download note: the transfer itself (the record
// is what every event of the transfer names), with what the agent counts and shows of it. The
// download facility keeps it alive from its start to its last event; the controller lists it
// from its begin to its end.
class FXDownload : public foundation::URLDownload {
public:
    // Makes a record and starts its transfer with delegate as the receiver of its events.
    static std::shared_ptr<FXDownload> startWithRequest(const foundation::URLRequest& request,
                                                        foundation::URLDownloadDelegate* delegate);

    // Bytes received so far.
    qint64 done() const { return done_; }
    void setDone(qint64 done) { done_ = done; }
    // The length the response announced, -1 when it announced none; 1 until the response
    // arrives, so that a record never has size 0.
    qint64 size() const { return size_; }
    void setSize(qint64 size) { size_ = size; }
    // Empty, or the full path under which a "videoplayback.mp4" stream is saved.
    const QString& title() const { return title_; }
    void setTitle(const QString& title) { title_ = title; }
    // Another platform download object: declared, never used by the agent.
    const std::shared_ptr<foundation::URLDownload>& download() const { return download_; }
    void setDownload(std::shared_ptr<foundation::URLDownload> d) { download_ = std::move(d); }

    // The line of the download note the transfer was made from; empty for one that a new start
    // took up from an earlier agent (its link is the request's).
    const QString& noteLine() const { return noteLine_; }
    void setNoteLine(const QString& line) { noteLine_ = line; }
    // The link as the person wrote it: the note's line, else the request's URL.
    QString link() const;
    // While the transfer waits between attempts, what for: "retrying in 8 s" or "waiting for
    // the network"; else empty.
    QString waitText() const;

    // The link as text; "(null)" for a line that made no URL.
    QString absoluteURLString() const;
    // How the menu and the notifications name the transfer: the title's last path component,
    // or the link in full when the title is empty.
    QString displayName() const;
    // "<FXDownload: 0x...>", as log lines show the record.
    QString description() const;

private:
    friend class foundation::URLDownload;
    FXDownload() = default;

    std::shared_ptr<foundation::URLDownload> download_;
    qint64 done_ = 0;
    qint64 size_ = 1;
    QString title_ = QStringLiteral("");
    QString noteLine_;
};
