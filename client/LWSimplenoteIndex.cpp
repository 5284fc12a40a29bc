#include "client/LWSimplenoteIndex.h"

#include "client/JsonBody.h"

void LWSimplenoteIndex::init() {
    LWSNObject::init();
    auto self = std::static_pointer_cast<LWSimplenoteIndex>(shared_from_this());
    setCallback(LWCallback::make(self, &LWSimplenoteIndex::pullFromRemoteSuccessWithResponse,
                                 &LWSimplenoteIndex::pullFromRemoteFailure),
                kPullFromRemote);
}

QUrl LWSimplenoteIndex::URLForActionID(int actionID) const {
    return QUrl(QStringLiteral("%1/%2?%3")
                    .arg(baseURLString(), orNullText(endpointForActionID(actionID)),
                         authParams().join(QLatin1Char('&'))));
}

QString LWSimplenoteIndex::endpointForActionID(int actionID) const {
    return actionID == kPullFromRemote ? QStringLiteral("index")
                                       : LWSNObject::endpointForActionID(actionID);
}

QString LWSimplenoteIndex::HTTPMethodForActionID(int actionID) const {
    return actionID == kPullFromRemote ? QStringLiteral("GET")
                                       : LWSNObject::HTTPMethodForActionID(actionID);
}

void LWSimplenoteIndex::pullFromRemote() {
    callMethodWithActionID(kPullFromRemote);
}

void LWSimplenoteIndex::pullFromRemoteSuccessWithResponse(
    const foundation::HTTPURLResponse& response, const QByteArray& data) {
    if (response.statusCode != 200) {
        pullFromRemoteFailure(errorForResponse(response));
        return;
    }
    const TWJsonValue answer = jsonFromBody(data).value_or(TWJsonValue());
    std::vector<std::shared_ptr<LWSimplenote>> notes;
    notes.reserve(static_cast<std::size_t>(answer.count()));
    for (const TWJsonValue& element : answer.elements()) {
        notes.push_back(LWSimplenote::noteWithDictionary(element));
    }
    // Walking a dictionary walks its keys, which make notes of nothing.
    for (const TWJsonMember& member : answer.members()) {
        notes.push_back(LWSimplenote::noteWithDictionary(TWJsonValue::string(member.key)));
    }
    contents_ = std::move(notes);
    postSuccessForSelector(QStringLiteral("pullFromRemote"));
}

void LWSimplenoteIndex::pullFromRemoteFailure(const foundation::Error& error) {
    postFailureForSelector(QStringLiteral("pullFromRemote"), error);
}
