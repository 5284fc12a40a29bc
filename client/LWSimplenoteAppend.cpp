// SPDX-License-Identifier: GPL-3.0-or-later
#include "client/LWSimplenoteAppend.h"

#include "client/Base64.h"

namespace {

// A note version as the service names it: a whole number from 1 on.
std::optional<qint64> versionFrom(const QString& text) {
    bool ok = false;
    const qint64 version = text.toLongLong(&ok);
    return ok && version > 0 ? std::optional(version) : std::nullopt;
}

}  // namespace

void LWSimplenoteAppend::init() {
    LWSNObject::init();
    auto self = std::static_pointer_cast<LWSimplenoteAppend>(shared_from_this());
    setCallback(LWCallback::make(self, &LWSimplenoteAppend::appendToRemoteSuccessWithResponse,
                                 &LWSimplenoteAppend::appendToRemoteFailure),
                kAppendToRemote);
}

QUrl LWSimplenoteAppend::URLForActionID(int actionID) const {
    if (actionID != kAppendToRemote)
        return LWSNObject::URLForActionID(actionID);
    // Every character of the header but the unreserved ones is escaped: "&", "+" and "#" are
    // text of a header, not parts of the query. No header asks for none, which the service
    // refuses, rather than for a note that begins with "(null)".
    const QString header = QString::fromLatin1(QUrl::toPercentEncoding(header_));
    return QUrl(QStringLiteral("%1/%2?header=%3&%4")
                    .arg(baseURLString(), endpointForActionID(actionID), header,
                         authParams().join(QLatin1Char('&'))));
}

QString LWSimplenoteAppend::endpointForActionID(int actionID) const {
    return actionID == kAppendToRemote ? QStringLiteral("append")
                                       : LWSNObject::endpointForActionID(actionID);
}

QString LWSimplenoteAppend::HTTPMethodForActionID(int actionID) const {
    return actionID == kAppendToRemote ? QStringLiteral("POST")
                                       : LWSNObject::HTTPMethodForActionID(actionID);
}

std::optional<QByteArray> LWSimplenoteAppend::HTTPBodyForActionID(int actionID) const {
    if (actionID != kAppendToRemote)
        return LWSNObject::HTTPBodyForActionID(actionID);
    return encodeDataUncapped(line_.toUtf8());
}

void LWSimplenoteAppend::appendToRemote() {
    callMethodWithActionID(kAppendToRemote);
}

void LWSimplenoteAppend::appendToRemoteSuccessWithResponse(
    const foundation::HTTPURLResponse& response, const QByteArray& data) {
    if (response.statusCode != 200) {
        appendToRemoteFailure(errorForResponse(response));
        return;
    }
    key_ = QString::fromUtf8(data);
    version_ = versionFrom(response.valueForHeader("Note-Version"));
    postSuccessForSelector(QStringLiteral("appendToRemote"));
}

void LWSimplenoteAppend::appendToRemoteFailure(const foundation::Error& error) {
    postFailureForSelector(QStringLiteral("appendToRemote"), error);
}
