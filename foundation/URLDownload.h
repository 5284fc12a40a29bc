// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <memory>

#include "foundation/Error.h"
#include "foundation/URLConnection.h"

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
};

// Errors of a transfer that are not the network's own (those keep the domain
// "QNetworkReplyErrorDomain" and the QNetworkReply::NetworkError code).
extern const QString URLDownloadErrorDomain;  // "URLDownloadErrorDomain"
enum URLDownloadErrorCode {
    URLDownloadErrorUnsupportedURL = 1,
    URLDownloadErrorNoDestination = 2,
    URLDownloadErrorDestinationExists = 3,
    URLDownloadErrorCannotWrite = 4,
    // An HTTP status of 400 or more: the code is the status itself.
};

// One file transfer over HTTP or HTTPS into a file. The body goes to a partial file beside the
// destination, which is renamed into place when the transfer ends well, so a file under its final
// name is always whole; failure and cancel delete the partial file. Redirects are followed (up to
// 16). The request's timeoutInterval is the longest silence allowed, not a limit on a long
// transfer. The body is read in bounded pieces and written as it arrives, so memory stays flat
// whatever the size; until the destination is decided nothing is read and the server waits.
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
    virtual ~URLDownload();
    URLDownload(const URLDownload&) = delete;
    URLDownload& operator=(const URLDownload&) = delete;

    const URLRequest& request() const { return request_; }
    // Answers the destination event: the full path of the file, and whether a file already there
    // may be replaced (else the transfer fails when one exists at the end).
    void setDestination(const QString& path, bool allowOverwrite);
    // Where the file goes (and, after the finish event, is); empty until decided.
    QString destination() const;
    // Stops the transfer and deletes what it wrote; no event follows.
    void cancel();

    // Transfers started and not yet over, for a caller that waits until everything is quiet.
    static int inFlightCount();
    // Cancels every transfer not yet over, begun or not: the process is about to end.
    static void cancelAll();

protected:
    URLDownload();

private:
    void startTransfer(const URLRequest& request, URLDownloadDelegate* delegate);

    struct Private;
    URLRequest request_;
    std::unique_ptr<Private> d_;
    friend struct Private;
};

}  // namespace foundation
