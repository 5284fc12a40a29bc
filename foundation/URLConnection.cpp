// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/URLConnection.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QSet>

#include "foundation/RunLoop.h"

namespace foundation {

namespace {

constexpr int kMaxRedirects = 16;
int gInFlight = 0;
// Exchanges from their start until their last event or their cancel.
QSet<URLConnection*>& running() {
    static QSet<URLConnection*> set;
    return set;
}

QNetworkAccessManager& network() {
    static auto* manager = new QNetworkAccessManager();
    return *manager;
}

bool isRedirect(int status) {
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

}  // namespace

struct URLConnection::Private {
    using Event = std::function<void(URLConnectionDelegate&, URLConnection*)>;

    URLConnection* q;
    std::shared_ptr<URLConnection> self;  // alive from start() until the last event
    QPointer<QNetworkReply> reply;
    QObject guard;  // queued events die with the connection
    URLRequest current;
    int redirects = 0;
    bool responseSeen = false;
    bool started = false;
    bool cancelled = false;

    explicit Private(URLConnection* owner, const URLRequest& request)
        : q(owner), current(request) {}
    ~Private() { dropReply(); }

    void send();
    void announceResponse();
    void takeData();
    void onFinished();
    bool followRedirect(int status);
    void deliver(Event event, bool last = false);
    void dropReply();
};

void URLConnection::Private::send() {
    QNetworkRequest request(current.url);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::ManualRedirectPolicy);
    request.setTransferTimeout(static_cast<int>(current.timeoutInterval * 1000.0));
    if (current.httpBody) {
        request.setHeader(QNetworkRequest::ContentTypeHeader,
                          QByteArrayLiteral("application/x-www-form-urlencoded"));
    }
    for (const auto& [name, value] : current.headers)
        request.setRawHeader(name, value);
    responseSeen = false;
    QNetworkReply* r = current.httpBody ? network().sendCustomRequest(request, current.httpMethod,
                                                                      *current.httpBody)
                                        : network().sendCustomRequest(request, current.httpMethod);
    reply = r;
    QObject::connect(r, &QNetworkReply::metaDataChanged, &guard, [this] { announceResponse(); });
    QObject::connect(r, &QIODevice::readyRead, &guard, [this] { takeData(); });
    QObject::connect(r, &QNetworkReply::finished, &guard, [this] { onFinished(); });
}

void URLConnection::Private::announceResponse() {
    if (responseSeen || !reply)
        return;
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!status.isValid())
        return;
    responseSeen = true;
    HTTPURLResponse response;
    response.url = reply->url();
    response.statusCode = status.toInt();
    response.headers = reply->rawHeaderPairs();
    const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
    response.expectedContentLength = length.isValid() ? length.toLongLong() : -1;
    deliver([response](URLConnectionDelegate& d, URLConnection* c) {
        d.connectionDidReceiveResponse(c, response);
    });
}

void URLConnection::Private::takeData() {
    if (!reply)
        return;
    announceResponse();
    if (!responseSeen)
        return;
    const QByteArray data = reply->readAll();
    if (data.isEmpty())
        return;
    deliver([data](URLConnectionDelegate& d, URLConnection* c) {
        d.connectionDidReceiveData(c, data);
    });
}

void URLConnection::Private::onFinished() {
    if (!reply)
        return;
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!status.isValid()) {
        const Error error(QStringLiteral("QNetworkReplyErrorDomain"), reply->error(),
                          reply->errorString());
        dropReply();
        deliver([error](URLConnectionDelegate& d,
                        URLConnection* c) { d.connectionDidFailWithError(c, error); },
                true);
        return;
    }
    takeData();
    if (isRedirect(status.toInt()) && followRedirect(status.toInt()))
        return;
    dropReply();
    deliver([](URLConnectionDelegate& d, URLConnection* c) { d.connectionDidFinishLoading(c); },
            true);
}

bool URLConnection::Private::followRedirect(int status) {
    const QByteArray location = reply->rawHeader("Location");
    if (location.isEmpty())
        return false;
    if (++redirects > kMaxRedirects) {
        dropReply();
        const Error error(QStringLiteral("QNetworkReplyErrorDomain"),
                          QNetworkReply::TooManyRedirectsError,
                          QStringLiteral("Too many redirects"));
        deliver([error](URLConnectionDelegate& d,
                        URLConnection* c) { d.connectionDidFailWithError(c, error); },
                true);
        return true;
    }
    current.url = reply->url().resolved(QUrl::fromEncoded(location));
    // Browsers turn a POST into a GET on 301, 302 and 303; 307 and 308 repeat the request.
    if (status == 303 || ((status == 301 || status == 302) && current.httpMethod == "POST")) {
        current.httpMethod = "GET";
        current.httpBody.reset();
    }
    dropReply();
    send();
    return true;
}

void URLConnection::Private::deliver(Event event, bool last) {
    RunLoop::main().performInDefaultMode(
        [this, event = std::move(event), last] {
            if (cancelled)
                return;
            std::shared_ptr<URLConnection> keep = self;
            std::shared_ptr<URLConnectionDelegate> delegate = q->delegate_;
            if (last) {
                // Nothing may follow the last event, and the delegate (which often keeps this
                // connection in a table of its own) is let go so that neither keeps the other.
                cancelled = true;
                --gInFlight;
                running().remove(q);
                q->delegate_.reset();
                self.reset();
            }
            if (delegate)
                event(*delegate, q);
        },
        &guard);
}

void URLConnection::Private::dropReply() {
    if (!reply)
        return;
    QNetworkReply* r = reply;
    reply = nullptr;
    QObject::disconnect(r, nullptr, &guard, nullptr);
    if (r->isRunning())
        r->abort();
    r->deleteLater();
}

std::shared_ptr<URLConnection> URLConnection::create(
    const URLRequest& request, std::shared_ptr<URLConnectionDelegate> delegate) {
    return std::shared_ptr<URLConnection>(new URLConnection(request, std::move(delegate)));
}

URLConnection::URLConnection(const URLRequest& request,
                             std::shared_ptr<URLConnectionDelegate> delegate)
    : request_(request),
      delegate_(std::move(delegate)),
      d_(std::make_unique<Private>(this, request)) {}

URLConnection::~URLConnection() {
    running().remove(this);
}

void URLConnection::start() {
    if (d_->started)
        return;
    d_->started = true;
    d_->self = shared_from_this();
    ++gInFlight;
    running().insert(this);
    d_->send();
}

void URLConnection::cancel() {
    if (!d_->started || d_->cancelled)
        return;
    d_->cancelled = true;
    d_->dropReply();
    --gInFlight;
    running().remove(this);
    delegate_.reset();
    std::shared_ptr<URLConnection> keep = std::move(d_->self);
}

void URLConnection::cancelAll() {
    const QSet<URLConnection*> all = running();
    for (URLConnection* connection : all)
        connection->cancel();
}

int URLConnection::inFlightCount() {
    return gInFlight;
}

QString HTTPURLResponse::valueForHeader(const QByteArray& name) const {
    for (const auto& [key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return QString::fromLatin1(value);
    }
    return QString();
}

}  // namespace foundation
