// SPDX-License-Identifier: GPL-3.0-or-later
#include "client/LWSimplenoteLogin.h"

#include "client/Base64.h"
#include "client/LWSimplenoteCredentialStore.h"

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

void LWSimplenoteLogin::loginSuccessWithResponse(const foundation::HTTPURLResponse&,
                                                 const QByteArray& data) {
    // The status is not looked at: any answer with a body is the token.
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
