// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <memory>
#include <optional>
#include <vector>

#include "foundation/DownloadJournal.h"
#include "foundation/Error.h"
#include "foundation/RetryPolicy.h"
#include "foundation/URLConnection.h"
#include "foundation/VideoPageTool.h"

namespace foundation {

class URLDownload;

// The events of one file transfer, delivered on the main thread in the default run-loop mode and
// in this order: begin; response; destination (answered by calling setDestination()); data, once
// per read; then finish or failure. A transfer that cannot start (no URL, a scheme other than
// http and https) reports its failure alone. Every event is optional: by default it is ignored,
// and a transfer whose destination is not decided fails.
class URLDownloadDelegate {
public:
    virtual ~URLDownloadDelegate() = default;
    virtual void downloadDidBegin(URLDownload*) {}
    virtual void downloadDidReceiveResponse(URLDownload*, const HTTPURLResponse&) {}
    virtual void downloadDecideDestinationWithSuggestedFilename(URLDownload*, const QString&) {}
    virtual void downloadDidReceiveDataOfLength(URLDownload*, quint64) {}
    virtual void downloadDidFinish(URLDownload*) {}
    virtual void downloadDidFailWithError(URLDownload*, const Error&) {}
    // Between the events above, when the transfer begins or ends a wait (see waiting()).
    virtual void downloadWaitDidChange(URLDownload*) {}
};

// Errors of a transfer that are not the network's own (those keep the domain
// "QNetworkReplyErrorDomain" and the QNetworkReply::NetworkError code).
extern const QString URLDownloadErrorDomain;  // "URLDownloadErrorDomain"
enum URLDownloadErrorCode {
    URLDownloadErrorUnsupportedURL = 1,
    URLDownloadErrorNoDestination = 2,
    URLDownloadErrorDestinationExists = 3,
    URLDownloadErrorCannotWrite = 4,
    // The video page tool failed; the description is what it said last.
    URLDownloadErrorVideoPageTool = 5,
    // An HTTP status of 400 or more: the code is the status itself.
};

// One file transfer over HTTP or HTTPS into a file. The body goes to a partial file beside the
// destination, which is renamed into place when the transfer ends well, so a file under its final
// name is always whole; failure and cancel delete the partial file. Redirects are followed (up to
// 16). The request's timeoutInterval is the longest silence allowed before the first answer; once
// the body flows, a connection silent for that long (at most 30 seconds) is given up and made
// again. The body is read in bounded pieces and written as it arrives, so memory stays flat
// whatever the size; until the destination is decided nothing is read and the server waits.
//
// What the delegate sees as one transfer survives a lot underneath. A connection that drops,
// stalls or resets, and an answer that says "not now" (408, 425, 429, 500, 502, 503, 504) or a
// connection that cannot be made, is tried again after a wait that doubles from a second up to
// a minute, or as long as Retry-After asks; the bytes already on disk are kept and only the rest
// is asked for (Range, with If-Range naming the file as it was, so a file that changed meanwhile
// starts over). Waits spend nothing while the network is down; a transfer that gets no further
// for ten minutes fails with its last error. A large file from a server that serves ranges comes
// over several connections at once, each writing its part of the one partial file.
//
// With a journal open (DownloadJournal), every transfer is written to it from its start, and a
// transfer that suspendAll() stops, or that a crash ends, is taken up again by the next process
// through resumeJournaled().
//
// The facility keeps a download alive from start() until its last event. When the delegate is a
// QObject, its destruction silences the download's events.
class URLDownload : public std::enable_shared_from_this<URLDownload> {
public:
    // Makes a T (this class or a subclass of it) and starts its transfer; the events come later,
    // from the event loop.
    template <class T = URLDownload>
    static std::shared_ptr<T> start(const URLRequest& request, URLDownloadDelegate* delegate) {
        std::shared_ptr<T> download(new T());
        download->startTransfer(request, delegate);
        return download;
    }
    // Takes up, as Ts, the journaled transfers whose process is gone: each begins again with its
    // events from the start (begin, response, destination, one data event for what was already on
    // disk, ...), and asks only for what is missing.
    template <class T = URLDownload>
    static std::vector<std::shared_ptr<T>> resumeJournaled(URLDownloadDelegate* delegate) {
        std::vector<std::shared_ptr<T>> resumed;
        DownloadJournal* journal = DownloadJournal::shared();
        if (!journal)
            return resumed;
        for (const DownloadJournal::Entry& entry : journal->claimOrphans()) {
            std::shared_ptr<T> download(new T());
            download->resumeTransfer(entry, delegate);
            resumed.push_back(std::move(download));
        }
        return resumed;
    }
    virtual ~URLDownload();
    URLDownload(const URLDownload&) = delete;
    URLDownload& operator=(const URLDownload&) = delete;

    const URLRequest& request() const { return request_; }
    // Answers the destination event: the full path of the file, and whether a file already there
    // may be replaced (else the transfer fails when one exists at the end).
    void setDestination(const QString& path, bool allowOverwrite);
    // Where the file goes (and, after the finish event, is); empty until decided.
    QString destination() const;
    // Whether the video page tool brings the file: the link's answer was a page with a video.
    bool fromVideoPage() const;
    // Stops the transfer and deletes what it wrote; no event follows.
    void cancel();

    // A transfer between two attempts: waiting for the network to come back, or for a moment
    // (secondsLeft) after the reason that ended the last attempt.
    struct Wait {
        bool forNetwork = false;
        double secondsLeft = 0;
        QString reason;
    };
    std::optional<Wait> waiting() const;

    // Transfers started and not yet over, for a caller that waits until everything is quiet.
    static int inFlightCount();
    // Cancels every transfer not yet over, begun or not: the process is about to end.
    static void cancelAll();
    // Stops every transfer not yet over with no further event, keeping the journaled ones'
    // partial files and journal rows for the next process; the others are cancelled.
    static void suspendAll();
    // The waits and the patience of transfers started from now on (RetryTimings::standard()
    // until set).
    static void setRetryTimings(const RetryTimings& timings);
    // The program that transfers hand a web page to, for the video in it; none to save pages as
    // they are.
    static void setVideoPageTool(std::optional<VideoPageTool> tool);
    static const std::optional<VideoPageTool>& videoPageTool();

protected:
    URLDownload();

private:
    void startTransfer(const URLRequest& request, URLDownloadDelegate* delegate);
    void resumeTransfer(const DownloadJournal::Entry& entry, URLDownloadDelegate* delegate);
    bool adopt(const URLRequest& request, URLDownloadDelegate* delegate);
    void suspend();

    struct Private;
    URLRequest request_;
    std::unique_ptr<Private> d_;
    friend struct Private;
};

}  // namespace foundation
