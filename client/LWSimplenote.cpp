// SPDX-License-Identifier: GPL-3.0-or-later
#include "client/LWSimplenote.h"

#include "client/Base64.h"
#include "client/JsonBody.h"
#include "client/NoteDate.h"
#include "foundation/Utf8.h"

namespace {

// A lookup in nothing gives nothing; asking a value of the wrong kind for a member or an element
// raises (see TWJsonValue).
std::optional<TWJsonValue> member(const std::optional<TWJsonValue>& value, const QString& key) {
    return value ? value->valueForKey(key) : std::nullopt;
}

std::optional<TWJsonValue> element(const std::optional<TWJsonValue>& value, qsizetype index) {
    return value ? std::optional(value->at(index)) : std::nullopt;
}

QString stringMember(const std::optional<TWJsonValue>& value, const QString& key) {
    const std::optional<TWJsonValue> found = member(value, key);
    return found && found->isString() ? found->stringValue() : QString();
}

// A note version: a whole number from 1 on, as a JSON number or as header text.
std::optional<qint64> versionFrom(const QString& text) {
    bool ok = false;
    const qint64 version = text.toLongLong(&ok);
    return ok && version > 0 ? std::optional(version) : std::nullopt;
}

std::optional<qint64> versionMember(const std::optional<TWJsonValue>& value) {
    const std::optional<TWJsonValue> found = member(value, QStringLiteral("version"));
    return found && found->isNumber() ? versionFrom(found->numberText()) : std::nullopt;
}

}  // namespace

void LWSimplenote::init() {
    LWSNObject::init();
    auto self = std::static_pointer_cast<LWSimplenote>(shared_from_this());
    setCallback(LWCallback::make(self, &LWSimplenote::pullFromRemoteSuccessWithResponse,
                                 &LWSimplenote::pullFromRemoteFailure),
                kPullFromRemote);
    setCallback(LWCallback::make(self, &LWSimplenote::pushToRemoteSuccessWithResponse,
                                 &LWSimplenote::pushToRemoteFailure),
                kPushToRemote);
    setCallback(LWCallback::make(self, &LWSimplenote::deleteNoteSuccessWithResponse,
                                 &LWSimplenote::deleteNoteFailure),
                kDeleteNote);
}

std::shared_ptr<LWSimplenote> LWSimplenote::noteWithDictionary(const TWJsonValue* given) {
    auto note = LWSNObject::create<LWSimplenote>();
    const std::optional<TWJsonValue> dictionary = given ? std::optional(*given) : std::nullopt;
    const std::optional<TWJsonValue> first = element(
        member(member(dictionary, QStringLiteral("Response")), QStringLiteral("Results")), 0);
    note->key_ = stringMember(first, QStringLiteral("key"));
    note->text_ = stringMember(first, QStringLiteral("content"));
    const QString modify = stringMember(dictionary, QStringLiteral("modify"));
    if (!modify.isNull())
        note->modifyDate_ = noteDateFromString(modify);
    const QString create = stringMember(dictionary, QStringLiteral("create"));
    if (!create.isNull())
        note->createDate_ = noteDateFromString(create);
    if (std::optional<TWJsonValue> deleted = member(dictionary, QStringLiteral("deleted")))
        note->deleted_ = std::move(deleted);
    // A search result carries its version beside its key, an index entry at its top level.
    note->version_ = versionMember(first);
    if (!note->version_)
        note->version_ = versionMember(dictionary);
    return note;
}

QUrl LWSimplenote::URLForActionID(int actionID) const {
    QStringList params = authParams();
    if (!key_.isNull())
        params << QStringLiteral("key=") + key_;
    return QUrl(QStringLiteral("%1/%2?%3")
                    .arg(baseURLString(), orNullText(endpointForActionID(actionID)),
                         params.join(QLatin1Char('&'))));
}

QString LWSimplenote::endpointForActionID(int actionID) const {
    switch (actionID) {
        case kPullFromRemote:
        case kPushToRemote:
            return QStringLiteral("note");
        case kDeleteNote:
            return QStringLiteral("delete");
        default:
            return LWSNObject::endpointForActionID(actionID);
    }
}

QString LWSimplenote::HTTPMethodForActionID(int actionID) const {
    switch (actionID) {
        case kPullFromRemote:
        case kDeleteNote:
            return QStringLiteral("GET");
        case kPushToRemote:
            return QStringLiteral("POST");
        default:
            return LWSNObject::HTTPMethodForActionID(actionID);
    }
}

std::optional<QByteArray> LWSimplenote::HTTPBodyForActionID(int actionID) const {
    if (actionID == kPushToRemote)
        return encodeData(text_.toUtf8());
    if (actionID == kPullFromRemote || actionID == kDeleteNote)
        return std::nullopt;
    return LWSNObject::HTTPBodyForActionID(actionID);
}

QList<QPair<QByteArray, QByteArray>> LWSimplenote::HTTPHeadersForActionID(int actionID) const {
    if (actionID == kPushToRemote && version_)
        return {{QByteArrayLiteral("Note-Base-Version"), QByteArray::number(*version_)}};
    return LWSNObject::HTTPHeadersForActionID(actionID);
}

void LWSimplenote::pullFromRemote() {
    callMethodWithActionID(kPullFromRemote);
}
void LWSimplenote::pushToRemote() {
    callMethodWithActionID(kPushToRemote);
}
void LWSimplenote::deleteNote() {
    callMethodWithActionID(kDeleteNote);
}

void LWSimplenote::pullFromRemoteSuccessWithResponse(const foundation::HTTPURLResponse& response,
                                                     const QByteArray& data) {
    if (response.statusCode != 200) {
        postFailureForSelector(QStringLiteral("pullFromRemote"), errorForResponse(response));
        return;
    }
    // Key and deleted flag always follow the answer; a date only when the answer has one.
    key_ = response.valueForHeader("Note-Key");
    const QString modify = response.valueForHeader("Note-Modifydate");
    if (!modify.isNull())
        modifyDate_ = noteDateFromString(modify);
    const QString create = response.valueForHeader("Note-Createdate");
    if (!create.isNull())
        createDate_ = noteDateFromString(create);
    const QString deleted = response.valueForHeader("Note-Deleted");
    deleted_ = deleted.isNull() ? std::nullopt : std::optional(TWJsonValue::string(deleted));
    version_ = versionFrom(response.valueForHeader("Note-Version"));
    text_ = foundation::strictUtf8(data);
    postSuccessForSelector(QStringLiteral("pullFromRemote"));
}

void LWSimplenote::postOutcome(const QString& selector,
                               const foundation::HTTPURLResponse& response) {
    if (response.statusCode == 200) {
        postSuccessForSelector(selector);
    } else {
        postFailureForSelector(selector, errorForResponse(response));
    }
}

void LWSimplenote::pushToRemoteSuccessWithResponse(const foundation::HTTPURLResponse& response,
                                                   const QByteArray&) {
    postOutcome(QStringLiteral("pushToRemote"), response);
}

void LWSimplenote::deleteNoteSuccessWithResponse(const foundation::HTTPURLResponse& response,
                                                 const QByteArray&) {
    postOutcome(QStringLiteral("deleteNote"), response);
}

void LWSimplenote::pullFromRemoteFailure(const foundation::Error& error) {
    reportTransportFailure(QStringLiteral("pullFromRemoteFailure:"), error);
}

void LWSimplenote::pushToRemoteFailure(const foundation::Error& error) {
    reportTransportFailure(QStringLiteral("pushToRemoteFailure:"), error);
}

void LWSimplenote::deleteNoteFailure(const foundation::Error& error) {
    reportTransportFailure(QStringLiteral("deleteNoteFailure:"), error);
}

void LWSimplenote::reportTransportFailure(const QString& handlerName,
                                          const foundation::Error& error) {
    QString selector = handlerName;
    selector.remove(QStringLiteral("Failure"));
    postFailureForSelector(selector, error);
}
