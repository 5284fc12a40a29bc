// SPDX-License-Identifier: GPL-3.0-or-later
#include "client/LWSimplenoteEventStream.h"

#include <QMetaEnum>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QObject>
#include <QRandomGenerator>
#include <QTimer>
#include <QUrl>
#include <algorithm>

#include "client/JsonBody.h"
#include "client/LWSNObject.h"
#include "client/LWSimplenoteCredentialStore.h"
#include "foundation/Log.h"

namespace {

// A line or an event this long is no event of the service's: the stream is broken.
constexpr qsizetype kLongestLine = 64 * 1024;
// A stream that has said nothing for this many heartbeat periods is dead, whatever the socket
// thinks (a sleeping laptop, a NAT that forgot the connection).
constexpr int kSilentPeriods = 3;
// A service whose heartbeat is slower than ours (its --event-heartbeat) would see its streams
// dropped again and again: after each silence the limit doubles, up to this many times the first,
// and it is the first again as soon as two comments come closer together than that.
constexpr int kLongestSilenceFactor = 8;

QString seconds(qint64 ms) {
    return QString::number(static_cast<double>(ms) / 1000.0);
}

QString networkErrorName(QNetworkReply::NetworkError error) {
    const char* name = QMetaEnum::fromType<QNetworkReply::NetworkError>().valueToKey(error);
    return name ? QString::fromLatin1(name) : QString::number(error);
}

bool allDigits(const QByteArray& text) {
    return !text.isEmpty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

LWSimplenoteEventStream::LWSimplenoteEventStream(const QString& baseURL)
    : baseURL_(baseURL), context_(std::make_unique<QObject>()) {
    network_ = new QNetworkAccessManager(context_.get());
    silence_ = new QTimer(context_.get());
    silence_->setSingleShot(true);
    QObject::connect(silence_, &QTimer::timeout, context_.get(), [this] { onSilence(); });
    retry_ = new QTimer(context_.get());
    retry_->setSingleShot(true);
    QObject::connect(retry_, &QTimer::timeout, context_.get(), [this] { open(); });
}

LWSimplenoteEventStream::~LWSimplenoteEventStream() {
    dropReply();
}

void LWSimplenoteEventStream::start() {
    dropReply();
    retry_->stop();
    failures_ = 0;
    serverRetryMs_ = -1;
    silenceLimitMs_ = kSilentPeriods * timing_.heartbeatMs;
    everOpen_ = false;
    lossLogged_ = false;
    backLogged_ = false;
    reopened_ = false;
    open();
}

void LWSimplenoteEventStream::stop() {
    dropReply();
    retry_->stop();
    setState(State::Stopped);
}

// The same authentication as every other call: the stored token and address in the query, as
// they stand.
void LWSimplenoteEventStream::open() {
    dropReply();
    const QString query = QStringLiteral("auth=%1&email=%2")
                              .arg(LWSNObject::orNullText(LWSimplenoteCredentialStore::authToken()),
                                   LWSNObject::orNullText(LWSimplenoteCredentialStore::email()));
    QNetworkRequest request(QUrl(baseURL_ + QStringLiteral("/events?") + query));
    request.setRawHeader("Accept", "text/event-stream");
    request.setRawHeader("Cache-Control", "no-cache");
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                         QNetworkRequest::AlwaysNetwork);
    // The stream has no end: only silence (below) counts as a time-out.
    request.setTransferTimeout(0);

    answered_ = false;
    lastComment_.invalidate();
    status_ = 0;
    discarded_ = 0;
    buffer_.clear();
    eventType_.clear();
    data_.clear();
    hasData_ = false;
    QNetworkReply* reply = network_->get(request);
    reply_ = reply;
    QObject::connect(reply, &QNetworkReply::metaDataChanged, context_.get(),
                     [this] { onResponse(); });
    QObject::connect(reply, &QIODevice::readyRead, context_.get(), [this] { onData(); });
    QObject::connect(reply, &QNetworkReply::finished, context_.get(), [this] { onFinished(); });
    silence_->start(silenceLimitMs_);
    setState(State::Connecting);
}

// Only an event stream is taken at once; any other answer is judged when it is over (aborting
// a reply inside its own report of an error status upsets the network manager).
void LWSimplenoteEventStream::onResponse() {
    if (answered_ || !reply_)
        return;
    const QVariant status = reply_->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!status.isValid())
        return;
    const int code = status.toInt();
    if (code >= 300 && code < 400)
        return;  // a redirect, which the manager follows
    answered_ = true;
    status_ = code;
    const QByteArray type = reply_->rawHeader("Content-Type").trimmed().toLower();
    if (code != 200 || !type.startsWith("text/event-stream"))
        return;
    silence_->start(silenceLimitMs_);
    openSince_.start();
    reopened_ = everOpen_;
    if (!everOpen_) {
        foundation::log(QStringLiteral("Change events: listening"));
    } else if (!backLogged_) {
        foundation::log(QStringLiteral("Change events: listening again"));
        backLogged_ = true;
    }
    everOpen_ = true;
    setState(State::Open);
}

void LWSimplenoteEventStream::onData() {
    if (!reply_)
        return;
    onResponse();
    const QByteArray bytes = reply_->readAll();
    if (state_ != State::Open) {
        // The body of an answer that is no stream: read and passed over, up to a point.
        discarded_ += bytes.size();
        if (discarded_ > kLongestLine)
            conclude();
        return;
    }
    silence_->start(silenceLimitMs_);
    buffer_ += bytes;
    takeLines();
}

void LWSimplenoteEventStream::onFinished() {
    if (!reply_)
        return;
    onResponse();
    if (state_ != State::Open) {
        conclude();
        return;
    }
    // What came with the end is still the service's word.
    const std::weak_ptr<bool> alive = alive_;
    onData();
    if (alive.expired() || !reply_ || state_ != State::Open)
        return;
    const QNetworkReply::NetworkError error = reply_->error();
    lose(error == QNetworkReply::NoError
             ? QStringLiteral("the service closed it")
             : QStringLiteral("network error %1").arg(networkErrorName(error)));
}

// An answer that opened no stream.
void LWSimplenoteEventStream::conclude() {
    if (!answered_) {
        lose(QStringLiteral("network error %1")
                 .arg(networkErrorName(reply_ ? reply_->error()
                                              : QNetworkReply::UnknownNetworkError)));
    } else if (status_ == 404) {
        end(State::Unavailable,
            QStringLiteral("Change events: the service offers none; checking at the interval"));
    } else if (status_ == 401) {
        end(State::Refused, QStringLiteral("Change events: the service no longer knows this "
                                           "session; listening again after the next login"));
    } else if (status_ == 200) {
        end(State::Unavailable, QStringLiteral("Change events: the service answers with no event "
                                               "stream; checking at the interval"));
    } else {
        lose(QStringLiteral("status %1").arg(status_));
    }
}

void LWSimplenoteEventStream::onSilence() {
    const int limit = silenceLimitMs_;
    if (state_ == State::Open) {
        silenceLimitMs_ = std::min(silenceLimitMs_ * 2,
                                   kLongestSilenceFactor * kSilentPeriods * timing_.heartbeatMs);
    }
    lose(QStringLiteral("nothing heard for %1 s").arg(seconds(limit)));
}

// Lines end at a line feed; a carriage return before it is dropped, as the format allows.
void LWSimplenoteEventStream::takeLines() {
    const std::weak_ptr<bool> alive = alive_;
    const QByteArray pending = std::exchange(buffer_, QByteArray());
    qsizetype from = 0;
    while (true) {
        const qsizetype end = pending.indexOf('\n', from);
        if (end < 0)
            break;
        QByteArray line = pending.mid(from, end - from);
        from = end + 1;
        if (line.endsWith('\r'))
            line.chop(1);
        takeLine(line);
        // A listener may have stopped or destroyed the stream.
        if (alive.expired() || state_ != State::Open)
            return;
    }
    buffer_ = pending.mid(from);
    if (buffer_.size() > kLongestLine || data_.size() > kLongestLine)
        lose(QStringLiteral("an event too long"));
}

void LWSimplenoteEventStream::takeLine(const QByteArray& line) {
    if (line.isEmpty()) {
        dispatch();
        return;
    }
    if (line.startsWith(':')) {
        // A comment: "ready", the heartbeat.
        const int usual = kSilentPeriods * timing_.heartbeatMs;
        if (lastComment_.isValid() && lastComment_.elapsed() <= usual)
            silenceLimitMs_ = usual;
        lastComment_.start();
        return;
    }
    const qsizetype colon = line.indexOf(':');
    const QByteArray field = colon < 0 ? line : line.left(colon);
    QByteArray value = colon < 0 ? QByteArray() : line.mid(colon + 1);
    if (value.startsWith(' '))
        value.remove(0, 1);
    if (field == "event") {
        eventType_ = value;
    } else if (field == "data") {
        if (hasData_)
            data_ += '\n';
        data_ += value;
        hasData_ = true;
    } else if (field == "retry" && allDigits(value)) {
        serverRetryMs_ = value.size() > 9 ? timing_.longestDelayMs
                                          : std::min(value.toInt(), timing_.longestDelayMs);
    }
    // "id" and fields of no meaning here are passed over.
}

void LWSimplenoteEventStream::dispatch() {
    const QByteArray type = std::exchange(eventType_, QByteArray());
    const QByteArray data = std::exchange(data_, QByteArray());
    const bool hadData = std::exchange(hasData_, false);
    if (!hadData || type != "change")
        return;
    const std::optional<TWJsonValue> json = jsonFromBody(data);
    if (!json || !json->isDictionary())
        return;
    const std::optional<TWJsonValue> key = json->valueForKey(QStringLiteral("key"));
    if (!key || !key->isString() || key->stringValue().isEmpty())
        return;
    if (changed_)
        changed_(key->stringValue());
}

void LWSimplenoteEventStream::lose(const QString& reason) {
    const bool lasted = state_ == State::Open && openSince_.isValid() &&
                        openSince_.elapsed() >= timing_.heartbeatMs;
    dropReply();
    // A stream that lasted ends a run of losses: the next one is logged, and waits the least.
    if (lasted) {
        failures_ = 0;
        lossLogged_ = false;
        backLogged_ = false;
    }
    // The service's retry time, else ours, doubled for every opening in a row that did not
    // last; up to a fifth less at random, so that many agents that lost one service together
    // do not all come back in the same millisecond.
    const qint64 shortest = std::clamp(serverRetryMs_ >= 0 ? serverRetryMs_ : timing_.firstDelayMs,
                                       1, timing_.longestDelayMs);
    const qint64 longest = timing_.longestDelayMs;
    const qint64 delay = std::min(shortest << std::min(failures_, 20), longest);
    retryDelayMs_ = static_cast<int>(
        delay - QRandomGenerator::global()->bounded(static_cast<int>(delay / 5) + 1));
    ++failures_;
    if (!lossLogged_) {
        foundation::log(
            QStringLiteral("Change events: %1 (%2); opening again with waits of up "
                           "to %3 s")
                .arg(everOpen_ ? QStringLiteral("stream lost") : QStringLiteral("no stream"),
                     reason)
                .arg(seconds(longest)));
        lossLogged_ = true;
    }
    retry_->start(retryDelayMs_);
    setState(State::Waiting);
}

void LWSimplenoteEventStream::end(State state, const QString& logLine) {
    dropReply();
    retry_->stop();
    foundation::log(logLine);
    setState(state);
}

// Nothing of an old request reaches this object again: its signals are cut before the abort,
// which would otherwise report a cancelled transfer.
void LWSimplenoteEventStream::dropReply() {
    silence_->stop();
    if (QNetworkReply* reply = reply_.data()) {
        reply_ = nullptr;
        QObject::disconnect(reply, nullptr, context_.get(), nullptr);
        if (!reply->isFinished())
            reply->abort();
        reply->deleteLater();
    }
}

void LWSimplenoteEventStream::setState(State state) {
    if (state_ == state)
        return;
    state_ = state;
    if (stateChanged_)
        stateChanged_(state);
}
