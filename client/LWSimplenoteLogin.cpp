// SPDX-License-Identifier: GPL-3.0-or-later
#include "client/LWSimplenoteLogin.h"

#include <algorithm>

#include "client/Base64.h"
#include "client/LWSimplenoteCredentialStore.h"

namespace {

// How long the service wants to be left alone: its Retry-After in seconds, else a minute (the
// span over which it counts failed attempts). Never less than a second, so that an answer of 0
// cannot turn a caller that waits and tries again into a loop of logins.
int secondsToWaitAfter(const foundation::HTTPURLResponse& response) {
    bool ok = false;
    const int seconds = response.valueForHeader("Retry-After").trimmed().toInt(&ok);
    if (!ok || seconds < 0)
        return 60;
    return std::max(seconds, 1);
}

}  // namespace

void LWSimplenoteLogin::init() {
    LWSNObject::init();
    auto self = std::static_pointer_cast<LWSimplenoteLogin>(shared_from_this());
    setCallback(LWCallback::make(self, &LWSimplenoteLogin::loginSuccessWithResponse,
                                 &LWSimplenoteLogin::loginFailure),
                kLogin);
    updateCredentialsFromStore();
}

void LWSimplenoteLogin::updateCredentialsFromStore() {
    LWSNObject::updateCredentialsFromStore();
}

QUrl LWSimplenoteLogin::URLForActionID(int actionID) const {
    if (actionID != kLogin)
        return LWSNObject::URLForActionID(actionID);
    return QUrl(QStringLiteral("%1/%2").arg(baseURLString(), endpointForActionID(actionID)));
}

QString LWSimplenoteLogin::endpointForActionID(int actionID) const {
    return actionID == kLogin ? QStringLiteral("login") : LWSNObject::endpointForActionID(actionID);
}

QString LWSimplenoteLogin::HTTPMethodForActionID(int actionID) const {
    return actionID == kLogin ? QStringLiteral("POST")
                              : LWSNObject::HTTPMethodForActionID(actionID);
}

std::optional<QByteArray> LWSimplenoteLogin::HTTPBodyForActionID(int actionID) const {
    if (actionID != kLogin)
        return LWSNObject::HTTPBodyForActionID(actionID);
    const QString form =
        QStringLiteral("email=%1&password=%2").arg(orNullText(email()), orNullText(password_));
    return encodeData(form.toUtf8());
}

void LWSimplenoteLogin::login() {
    callMethodWithActionID(kLogin);
}

void LWSimplenoteLogin::loginSuccessWithResponse(const foundation::HTTPURLResponse& response,
                                                 const QByteArray& data) {
    // Too many failed attempts: the account may well be right, so the caller is told how long
    // to wait rather than that the login is unknown. Whatever body comes with it is no token.
    if (response.statusCode == kTooManyAttempts) {
        secondsToWait_ = secondsToWaitAfter(response);
        loginFailure(
            foundation::Error(QStringLiteral("LWSimplenoteErrorDomain"), response.statusCode,
                              QStringLiteral("too many attempts: wait %1 s").arg(*secondsToWait_)));
        return;
    }
    // Any other status is not looked at: any answer with a body is the token.
    if (!data.isEmpty()) {
        setAuthToken(QString::fromUtf8(data));
        saveCredentialsToStore();
        postSuccessForSelector(QStringLiteral("login"));
        return;
    }
    loginFailure(
        foundation::Error(QStringLiteral("LWSimplenoteLoginDomain"), 0,
                          QStringLiteral("Unknown login error. Check user name and password.")));
}

void LWSimplenoteLogin::loginFailure(const foundation::Error& error) {
    postFailureForSelector(QStringLiteral("login"), error);
}

void LWSimplenoteLogin::saveCredentialsToStore() {
    LWSimplenoteCredentialStore::setEmail(email());
    LWSimplenoteCredentialStore::setAuthToken(authToken());
}

QString LWSimplenoteLogin::description() const {
    return QStringLiteral("<%1 authToken:%2>").arg(baseDescription(), orNullText(authToken()));
}
