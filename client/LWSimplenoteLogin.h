// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "client/LWSNObject.h"

// Exchanges the e-mail address and password for a session token (action 0, `login`). Any
// non-empty answer is taken for the token, whatever its status; only an empty answer or a
// transport failure fails.
class LWSimplenoteLogin : public LWSNObject {
public:
    enum ActionID { kLogin = 0 };

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

protected:
    void init() override;

private:
    QString password_;
};
