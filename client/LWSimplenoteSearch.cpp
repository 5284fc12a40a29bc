// SPDX-License-Identifier: GPL-3.0-or-later
#include "client/LWSimplenoteSearch.h"

#include "client/JsonBody.h"

std::shared_ptr<LWSimplenoteSearch> LWSimplenoteSearch::createWithQuery(const QString& query) {
    auto search = LWSNObject::create<LWSimplenoteSearch>();
    search->setQuery(query);
    return search;
}

void LWSimplenoteSearch::init() {
    LWSNObject::init();
    auto self = std::static_pointer_cast<LWSimplenoteSearch>(shared_from_this());
    setCallback(LWCallback::make(self, &LWSimplenoteSearch::pullFromRemoteSuccessWithResponse,
                                 &LWSimplenoteSearch::pullFromRemoteFailure),
                kPullFromRemote);
}

QUrl LWSimplenoteSearch::URLForActionID(int actionID) const {
    return QUrl(QStringLiteral("%1/%2?query=%3&%4")
                    .arg(baseURLString(), orNullText(endpointForActionID(actionID)),
                         orNullText(query_), authParams().join(QLatin1Char('&'))));
}

QString LWSimplenoteSearch::endpointForActionID(int actionID) const {
    return actionID == kPullFromRemote ? QStringLiteral("search")
                                       : LWSNObject::endpointForActionID(actionID);
}

QString LWSimplenoteSearch::HTTPMethodForActionID(int actionID) const {
    return actionID == kPullFromRemote ? QStringLiteral("GET")
                                       : LWSNObject::HTTPMethodForActionID(actionID);
}

void LWSimplenoteSearch::pullFromRemote() {
    callMethodWithActionID(kPullFromRemote);
}

void LWSimplenoteSearch::pullFromRemoteSuccessWithResponse(
    const foundation::HTTPURLResponse& response, const QByteArray& data) {
    if (response.statusCode != 200) {
        pullFromRemoteFailure(errorForResponse(response));
        return;
    }
    const std::optional<TWJsonValue> answer = jsonFromBody(data);
    std::vector<std::shared_ptr<LWSimplenote>> found;
    found.reserve(1);
    try {
        found.push_back(LWSimplenote::noteWithDictionary(answer ? &*answer : nullptr));
    } catch (const std::exception&) {
        // No first result, or an answer of another shape: the search found nothing, which is
        // not a failure.
    }
    contents_ = std::move(found);
    postSuccessForSelector(QStringLiteral("pullFromRemote"));
}

void LWSimplenoteSearch::pullFromRemoteFailure(const foundation::Error& error) {
    postFailureForSelector(QStringLiteral("pullFromRemote"), error);
}
