// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "client/LWSNObject.h"

// Exchanges the e-mail address and password for a session token (action 0, `login`). Any
// non-empty answer is taken for the token, whatever its status, save the service's refusal
// after too many failed attempts (429); an empty answer or a transport failure fails too.
class LWSimplenoteLogin : public LWSNObject {
public:
    enum ActionID { kLogin = 0 };
    static constexpr int kTooManyAttempts = 429;

    qint64 actionCount() const override { return 1; }
    QUrl URLForActionID(int actionID) const override;
    QString endpointForActionID(int actionID) const override;
    QString HTTPMethodForActionID(int actionID) const override;
    std::optional<QByteArray> HTTPBodyForActionID(int actionID) const override;
    void updateCredentialsFromStore() override;

    QString password() const { return password_; }
    void setPassword(const QString& password) { password_ = password; }

    void login();
    void loginSuccessWithResponse(const foundation::HTTPURLResponse& response,
                                  const QByteArray& data);
    void loginFailure(const foundation::Error& error);
    void saveCredentialsToStore();
    QString description() const;
    // After the service refused for too many attempts: the seconds it asked to wait before the
    // next login (its Retry-After, else 60). Empty for every other outcome.
    std::optional<int> secondsToWait() const { return secondsToWait_; }

protected:
    void init() override;

private:
    QString password_;
    std::optional<int> secondsToWait_;
};
