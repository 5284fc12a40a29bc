// SPDX-License-Identifier: GPL-3.0-or-later
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
    const std::optional<TWJsonValue> answer = jsonFromBody(data);
    std::vector<std::shared_ptr<LWSimplenote>> notes;
    if (answer) {
        notes.reserve(static_cast<std::size_t>(answer->count()));
        for (const TWJsonValue& element : answer->elements())
            notes.push_back(LWSimplenote::noteWithDictionary(&element));
        // Walking a dictionary walks its keys. A key is a string, which has no members, so the
        // first one raises: nothing guards this, and the answer ends unannounced.
        for (const TWJsonMember member : answer->members()) {
            const TWJsonValue key = TWJsonValue::string(member.key);
            notes.push_back(LWSimplenote::noteWithDictionary(&key));
        }
    }
    contents_ = std::move(notes);
    postSuccessForSelector(QStringLiteral("pullFromRemote"));
}

void LWSimplenoteIndex::pullFromRemoteFailure(const foundation::Error& error) {
    postFailureForSelector(QStringLiteral("pullFromRemote"), error);
}
