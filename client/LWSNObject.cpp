// SPDX-License-Identifier: GPL-3.0-or-later
#include "client/LWSNObject.h"

#include "client/LWSimplenoteCredentialStore.h"
#include "foundation/TypeName.h"
#include "foundation/UserDefaults.h"

namespace {

const QString kBuiltInBaseURL = QStringLiteral("https://127.0.0.1:8443/api");

QString capitalisedFirst(const QString& text) {
    if (text.isEmpty())
        return text;
    return text.left(1).toUpper() + text.mid(1);
}

}  // namespace

LWSNObject::~LWSNObject() {
    foundation::NotificationCenter::defaultCenter().removeObserversForSender(this);
}

void LWSNObject::init() {
    const auto count = static_cast<std::size_t>(std::max<qint64>(actionCount(), 0));
    callbacks_.assign(count, nullptr);
    connections_.assign(count, nullptr);
    responses_.assign(count, nullptr);
    receivedData_.assign(count, nullptr);
    updateCredentialsFromStore();
}

qint64 LWSNObject::actionCount() const {
    return 0;
}
QUrl LWSNObject::URLForActionID(int) const {
    return QUrl();
}
QString LWSNObject::endpointForActionID(int) const {
    return QString();
}
QString LWSNObject::HTTPMethodForActionID(int) const {
    return QString();
}
std::optional<QByteArray> LWSNObject::HTTPBodyForActionID(int) const {
    return std::nullopt;
}
QList<QPair<QByteArray, QByteArray>> LWSNObject::HTTPHeadersForActionID(int) const {
    return {};
}

void LWSNObject::updateCredentialsFromStore() {
    authToken_ = LWSimplenoteCredentialStore::authToken();
    email_ = LWSimplenoteCredentialStore::email();
}

QString LWSNObject::baseURLString() {
    static const QString base = [] {
        const QString fromEnvironment = qEnvironmentVariable("FERRYBOX_API_URL");
        if (!fromEnvironment.isEmpty())
            return fromEnvironment;
        const QString fromSettings = foundation::UserDefaults::standardUserDefaults().stringForKey(
            QStringLiteral("apiBaseURL"));
        return fromSettings.isEmpty() ? kBuiltInBaseURL : fromSettings;
    }();
    return base;
}

QString LWSNObject::orNullText(const QString& value) {
    return value.isNull() ? QStringLiteral("(null)") : value;
}

QStringList LWSNObject::authParams() const {
    return {QStringLiteral("auth=") + orNullText(authToken_),
            QStringLiteral("email=") + orNullText(email_)};
}

QString LWSNObject::className() const {
    return classNameOfType(typeid(*this));
}

QString LWSNObject::classNameOfType(const std::type_info& type) {
    const QString name = foundation::demangledTypeName(type);
    const qsizetype scope = name.lastIndexOf(QStringLiteral("::"));
    return scope < 0 ? name : name.mid(scope + 2);
}

QString LWSNObject::baseDescription() const {
    return QStringLiteral("<%1: 0x%2>")
        .arg(className())
        .arg(reinterpret_cast<quintptr>(this), 0, 16);
}

QString LWSNObject::notificationName(const QString& selector, const char* outcome) const {
    return className() + capitalisedFirst(selector) + QLatin1String(outcome);
}

QString LWSNObject::successNotificationNameForSelector(const QString& selector) const {
    return notificationName(selector, "SuccessNotification");
}

QString LWSNObject::failureNotificationNameForSelector(const QString& selector) const {
    return notificationName(selector, "FailureNotification");
}

foundation::Error LWSNObject::errorForResponse(const foundation::HTTPURLResponse& response) const {
    return foundation::Error(
        QStringLiteral("LWSimplenoteErrorDomain"), response.statusCode,
        foundation::HTTPURLResponse::localizedStringForStatusCode(response.statusCode));
}

void LWSNObject::addObserver(const void* observer, const QString& selector,
                             foundation::NotificationCenter::Block onSuccess,
                             foundation::NotificationCenter::Block onFailure) {
    auto& center = foundation::NotificationCenter::defaultCenter();
    center.addObserver(observer, successNotificationNameForSelector(selector), this,
                       std::move(onSuccess));
    center.addObserver(observer, failureNotificationNameForSelector(selector), this,
                       std::move(onFailure));
}

void LWSNObject::postSuccessForSelector(const QString& selector) {
    foundation::UserInfo info{{className(), shared_from_this()}};
    foundation::NotificationCenter::defaultCenter().post(
        successNotificationNameForSelector(selector), this, std::move(info));
}

void LWSNObject::postFailureForSelector(const QString& selector,
                                        const std::optional<foundation::Error>& error) {
    foundation::UserInfo info{{className(), shared_from_this()}};
    if (error)
        info.emplace(QStringLiteral("error"), *error);
    foundation::NotificationCenter::defaultCenter().post(
        failureNotificationNameForSelector(selector), this, std::move(info));
}

template <class Slot>
void LWSNObject::setSlot(std::vector<std::shared_ptr<Slot>>& table, std::shared_ptr<Slot> value,
                         int actionID) {
    if (actionID < 0 || static_cast<qint64>(actionID) >= actionCount())
        return;
    if (static_cast<std::size_t>(actionID) >= table.size())
        return;
    table[static_cast<std::size_t>(actionID)] = std::move(value);
}

void LWSNObject::setCallback(std::shared_ptr<LWCallback> callback, int actionID) {
    setSlot(callbacks_, std::move(callback), actionID);
}

void LWSNObject::setConnection(std::shared_ptr<foundation::URLConnection> connection,
                               int actionID) {
    setSlot(connections_, std::move(connection), actionID);
}

void LWSNObject::setResponse(std::shared_ptr<foundation::HTTPURLResponse> response, int actionID) {
    setSlot(responses_, std::move(response), actionID);
}

void LWSNObject::setReceivedData(std::shared_ptr<QByteArray> data, int actionID) {
    setSlot(receivedData_, std::move(data), actionID);
}

void LWSNObject::callMethodWithActionID(int actionID) {
    foundation::URLRequest request;
    request.url = URLForActionID(actionID);
    request.httpMethod = HTTPMethodForActionID(actionID).toUtf8();
    request.httpBody = HTTPBodyForActionID(actionID);
    request.headers = HTTPHeadersForActionID(actionID);
    setReceivedData(std::make_shared<QByteArray>(), actionID);
    // The connection holds this object as its delegate until the outcome is delivered.
    std::shared_ptr<foundation::URLConnectionDelegate> delegate(
        shared_from_this(), static_cast<foundation::URLConnectionDelegate*>(this));
    setConnection(foundation::URLConnection::create(request, delegate), actionID);
    if (actionID < 0 || static_cast<std::size_t>(actionID) >= connections_.size())
        return;
    if (const auto& connection = connections_[static_cast<std::size_t>(actionID)]) {
        connection->start();
    }
}

int LWSNObject::actionIDForConnection(const foundation::URLConnection* connection) const {
    for (std::size_t i = 0; i < connections_.size(); ++i) {
        if (connections_[i].get() == connection)
            return static_cast<int>(i);
    }
    return -1;
}

int LWSNObject::actionIDForData(const QByteArray* data) const {
    for (std::size_t i = 0; i < receivedData_.size(); ++i) {
        if (receivedData_[i].get() == data)
            return static_cast<int>(i);
    }
    return -1;
}

void LWSNObject::connectionDidReceiveResponse(foundation::URLConnection* connection,
                                              const foundation::HTTPURLResponse& response) {
    const int id = actionIDForConnection(connection);
    if (id < 0)
        return;
    setResponse(std::make_shared<foundation::HTTPURLResponse>(response), id);
    // Whatever came before this response (a redirect's own body) is not the answer.
    if (const auto& buffer = receivedData_[static_cast<std::size_t>(id)])
        buffer->clear();
}

void LWSNObject::connectionDidReceiveData(foundation::URLConnection* connection,
                                          const QByteArray& data) {
    const int id = actionIDForConnection(connection);
    if (id < 0)
        return;
    if (const auto& buffer = receivedData_[static_cast<std::size_t>(id)])
        buffer->append(data);
}

void LWSNObject::connectionDidFailWithError(foundation::URLConnection* connection,
                                            const foundation::Error& error) {
    const int id = actionIDForConnection(connection);
    if (id < 0)
        return;
    std::shared_ptr<LWSNObject> keepAlive = shared_from_this();
    setReceivedData(nullptr, id);
    if (auto callback = callbacks_[static_cast<std::size_t>(id)])
        callback->invokeFailure(error);
}

void LWSNObject::connectionDidFinishLoading(foundation::URLConnection* connection) {
    const int id = actionIDForConnection(connection);
    if (id < 0)
        return;
    std::shared_ptr<LWSNObject> keepAlive = shared_from_this();
    const auto slot = static_cast<std::size_t>(id);
    std::shared_ptr<QByteArray> data = receivedData_[slot];
    std::shared_ptr<foundation::HTTPURLResponse> response = responses_[slot];
    setReceivedData(nullptr, id);
    setResponse(nullptr, id);
    if (auto callback = callbacks_[slot]) {
        callback->invokeSuccessWithResponse(response ? *response : foundation::HTTPURLResponse(),
                                            data ? *data : QByteArray());
    }
}
