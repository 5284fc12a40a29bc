// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>
#include <QUrl>
#include <memory>
#include <optional>

#include "foundation/Error.h"

class QNetworkReply;

namespace foundation {

struct URLRequest {
    QUrl url;
    QByteArray httpMethod = "GET";
    std::optional<QByteArray> httpBody;
    double timeoutInterval = 60.0;  // seconds
    // Sent besides the ones the transport sets itself; kept across redirects.
    QList<QPair<QByteArray, QByteArray>> headers;
};

struct HTTPURLResponse {
    QUrl url;
    int statusCode = 0;
    QList<QPair<QByteArray, QByteArray>> headers;
    qint64 expectedContentLength = -1;  // -1: unknown

    // The header's value, its name compared case-insensitively; null when absent.
    QString valueForHeader(const QByteArray& name) const;
    // The name to save the body under: Content-Disposition's filename* (RFC 5987), else its
    // filename, else the URL's last path component, else "index.html". Always a plain name of
    // its own: no "/" or "\\", no control characters, never "." or "..", at most 255 bytes, and
    // never of the partial files' form (".x.1-2.part" becomes "_x.1-2.part").
    QString suggestedFilename() const;
    // The standard reason phrase in lower case ("not found"); "server error" for unknown 5xx
    // codes and the like.
    static QString localizedStringForStatusCode(int statusCode);
};

class URLConnection;

// The four events of one exchange, delivered on the main thread in the default run-loop mode.
class URLConnectionDelegate {
public:
    virtual ~URLConnectionDelegate() = default;
    virtual void connectionDidReceiveResponse(URLConnection* connection,
                                              const HTTPURLResponse& response) = 0;
    virtual void connectionDidReceiveData(URLConnection* connection, const QByteArray& data) = 0;
    virtual void connectionDidFailWithError(URLConnection* connection, const Error& error) = 0;
    virtual void connectionDidFinishLoading(URLConnection* connection) = 0;
};

// One asynchronous HTTP exchange. Redirects are followed; each response, a redirect's included,
// is reported with its body, so a delegate that keeps only the body after the last response sees
// the final answer. An HTTP error status is a finished exchange; only transport errors fail, as
// domain "QNetworkReplyErrorDomain" with the QNetworkReply::NetworkError code and its message.
// From start() until its last event the connection keeps itself and its delegate alive; after
// it, it holds neither.
class URLConnection : public std::enable_shared_from_this<URLConnection> {
public:
    static std::shared_ptr<URLConnection> create(const URLRequest& request,
                                                 std::shared_ptr<URLConnectionDelegate> delegate);
    ~URLConnection();

    void start();
    // Stops the exchange; no further event is delivered.
    void cancel();
    const URLRequest& originalRequest() const { return request_; }

    // Exchanges started and not yet over, for a caller that waits until the network is quiet.
    static int inFlightCount();
    // Cancels every exchange not yet over: the process is about to end.
    static void cancelAll();

private:
    URLConnection(const URLRequest& request, std::shared_ptr<URLConnectionDelegate> delegate);
    struct Private;
    URLRequest request_;
    std::shared_ptr<URLConnectionDelegate> delegate_;
    std::unique_ptr<Private> d_;
    friend struct Private;
};

}  // namespace foundation
