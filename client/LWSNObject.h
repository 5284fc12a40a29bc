// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <memory>
#include <optional>
#include <typeinfo>
#include <vector>

#include "client/LWCallback.h"
#include "foundation/Error.h"
#include "foundation/NotificationCenter.h"
#include "foundation/URLConnection.h"

// The base of every remote action object: a subclass numbers its actions (0 to actionCount() - 1,
// -1 for none) and says, per action, which URL, method and body to use; the base keeps one slot
// per action in four parallel tables, runs the request, maps the transport's events back to the
// action, and announces each outcome as a notification named after the run-time class and the
// operation ("LWSimplenoteLoginLoginSuccessNotification").
//
// Objects are made with create<T>(), which builds the object and then runs the init() chain, so
// that the base can size its tables by the most derived actionCount(). A started request keeps
// its object alive until the outcome is posted.
//
// The service's API base URL is fixed for the life of the process: the environment variable
// FERRYBOX_API_URL when set, else the setting "apiBaseURL", else https://127.0.0.1:8443/api.
class LWSNObject : public std::enable_shared_from_this<LWSNObject>,
                   public foundation::URLConnectionDelegate {
public:
    template <class T>
    static std::shared_ptr<T> create() {
        std::shared_ptr<T> object(new T());
        static_cast<LWSNObject*>(object.get())->init();
        return object;
    }
    ~LWSNObject() override;

    virtual qint64 actionCount() const;
    virtual QUrl URLForActionID(int actionID) const;
    virtual QString endpointForActionID(int actionID) const;
    virtual QString HTTPMethodForActionID(int actionID) const;
    virtual std::optional<QByteArray> HTTPBodyForActionID(int actionID) const;
    // Request headers of the action beyond the transport's own; none by default.
    virtual QList<QPair<QByteArray, QByteArray>> HTTPHeadersForActionID(int actionID) const;
    virtual void updateCredentialsFromStore();

    static QString baseURLString();
    // {"auth=TOKEN", "email=ADDRESS"}, unescaped; an absent value reads "(null)".
    QStringList authParams() const;
    // The run-time class name, without namespace.
    QString className() const;
    static QString classNameOfType(const std::type_info& type);

    // The action object that an outcome notification carries under key (the poster's run-time
    // class name), as a T; null when there is none or it is no T. Without a key, T's own name
    // is the key: fromNotification<LWSimplenoteSearch>(n) finds a search's object.
    template <class T>
    static std::shared_ptr<T> fromNotification(const foundation::Notification& notification,
                                               const QString& key) {
        const auto* object = notification.value<std::shared_ptr<LWSNObject>>(key);
        return object ? std::dynamic_pointer_cast<T>(*object) : nullptr;
    }
    template <class T>
    static std::shared_ptr<T> fromNotification(const foundation::Notification& notification) {
        return fromNotification<T>(notification, classNameOfType(typeid(T)));
    }

    QString successNotificationNameForSelector(const QString& selector) const;
    QString failureNotificationNameForSelector(const QString& selector) const;
    foundation::Error errorForResponse(const foundation::HTTPURLResponse& response) const;

    // Registers observer's blocks for the success and failure of selector, heard only from this
    // very object. Removing them is the observer's business (NotificationCenter by owner).
    void addObserver(const void* observer, const QString& selector,
                     foundation::NotificationCenter::Block onSuccess,
                     foundation::NotificationCenter::Block onFailure);
    void postSuccessForSelector(const QString& selector);
    void postFailureForSelector(const QString& selector,
                                const std::optional<foundation::Error>& error);

    // Table writes; a null object empties the slot, an id of actionCount() or more is ignored.
    void setCallback(std::shared_ptr<LWCallback> callback, int actionID);
    void setConnection(std::shared_ptr<foundation::URLConnection> connection, int actionID);
    void setResponse(std::shared_ptr<foundation::HTTPURLResponse> response, int actionID);
    void setReceivedData(std::shared_ptr<QByteArray> data, int actionID);

    void callMethodWithActionID(int actionID);
    int actionIDForConnection(const foundation::URLConnection* connection) const;
    int actionIDForData(const QByteArray* data) const;

    void connectionDidReceiveResponse(foundation::URLConnection* connection,
                                      const foundation::HTTPURLResponse& response) override;
    void connectionDidReceiveData(foundation::URLConnection* connection,
                                  const QByteArray& data) override;
    void connectionDidFailWithError(foundation::URLConnection* connection,
                                    const foundation::Error& error) override;
    void connectionDidFinishLoading(foundation::URLConnection* connection) override;

    QString email() const { return email_; }
    void setEmail(const QString& email) { email_ = email; }
    QString authToken() const { return authToken_; }
    void setAuthToken(const QString& token) { authToken_ = token; }

    const std::vector<std::shared_ptr<LWCallback>>& callbacks() const { return callbacks_; }
    const std::vector<std::shared_ptr<foundation::URLConnection>>& connections() const {
        return connections_;
    }
    const std::vector<std::shared_ptr<foundation::HTTPURLResponse>>& responses() const {
        return responses_;
    }
    const std::vector<std::shared_ptr<QByteArray>>& receivedData() const { return receivedData_; }

    // The platform's text for an absent value inside formatted text.
    static QString orNullText(const QString& value);

protected:
    LWSNObject() = default;
    virtual void init();
    // "<ClassName: 0xADDRESS>", the base of every description.
    QString baseDescription() const;

private:
    template <class Slot>
    void setSlot(std::vector<std::shared_ptr<Slot>>& table, std::shared_ptr<Slot> value,
                 int actionID);
    QString notificationName(const QString& selector, const char* outcome) const;

    std::vector<std::shared_ptr<LWCallback>> callbacks_;
    std::vector<std::shared_ptr<foundation::URLConnection>> connections_;
    std::vector<std::shared_ptr<foundation::HTTPURLResponse>> responses_;
    std::vector<std::shared_ptr<QByteArray>> receivedData_;
    QString authToken_;
    QString email_;
};
