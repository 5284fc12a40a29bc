// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QDateTime>
#include <optional>

#include "Classes/TWJSON/TWJsonValue.h"
#include "client/LWSNObject.h"

// One note of the account and the three actions that move it: pull (text and metadata of a
// known key), push (store the text; without a key the service creates a new note) and delete.
//
// The note's version is the service's count of its writes, as a search or a pull gave it;
// absent when the service gives none. A push names it as the version its text is based on
// (header Note-Base-Version), so that the service merges in what others wrote since instead of
// overwriting it. A service that knows no versions sees exactly the requests it always did.
//
// A transport failure of any of the three is posted under the handler's own name less the word
// "Failure" ("LWSimplenotePullFromRemote:FailureNotification", colon included), which is not the
// name addObserver() registers: observers of a note action hear only of HTTP failures.
class LWSimplenote : public LWSNObject {
public:
    enum ActionID { kPullFromRemote = 0, kPushToRemote = 1, kDeleteNote = 2 };

    // Key and text from the first search result under "Response"/"Results", the dates and the
    // deleted flag from the top level. Nothing (nullptr) gives a note with every field absent,
    // as does a dictionary without "Response". Throws std::out_of_range for an empty "Results"
    // and std::invalid_argument where a member or an element is asked of a value of the wrong
    // kind (an array for the dictionary, a string for "Response", and so on).
    static std::shared_ptr<LWSimplenote> noteWithDictionary(const TWJsonValue* dictionary);

    qint64 actionCount() const override { return 3; }
    QUrl URLForActionID(int actionID) const override;
    QString endpointForActionID(int actionID) const override;
    QString HTTPMethodForActionID(int actionID) const override;
    std::optional<QByteArray> HTTPBodyForActionID(int actionID) const override;
    QList<QPair<QByteArray, QByteArray>> HTTPHeadersForActionID(int actionID) const override;

    void pullFromRemote();
    void pushToRemote();
    void deleteNote();

    void pullFromRemoteSuccessWithResponse(const foundation::HTTPURLResponse& response,
                                           const QByteArray& data);
    void pushToRemoteSuccessWithResponse(const foundation::HTTPURLResponse& response,
                                         const QByteArray& data);
    void deleteNoteSuccessWithResponse(const foundation::HTTPURLResponse& response,
                                       const QByteArray& data);
    void pullFromRemoteFailure(const foundation::Error& error);
    void pushToRemoteFailure(const foundation::Error& error);
    void deleteNoteFailure(const foundation::Error& error);

    QString key() const { return key_; }
    void setKey(const QString& key) { key_ = key; }
    QString text() const { return text_; }
    void setText(const QString& text) { text_ = text; }
    std::optional<QDateTime> modifyDate() const { return modifyDate_; }
    void setModifyDate(std::optional<QDateTime> date) { modifyDate_ = std::move(date); }
    std::optional<QDateTime> createDate() const { return createDate_; }
    void setCreateDate(std::optional<QDateTime> date) { createDate_ = std::move(date); }
    // Exactly as received: a header's text after a pull, the JSON value from a dictionary.
    std::optional<TWJsonValue> deleted() const { return deleted_; }
    void setDeleted(std::optional<TWJsonValue> deleted) { deleted_ = std::move(deleted); }
    std::optional<qint64> version() const { return version_; }
    void setVersion(std::optional<qint64> version) { version_ = version; }

protected:
    void init() override;

private:
    void postOutcome(const QString& selector, const foundation::HTTPURLResponse& response);
    void reportTransportFailure(const QString& handlerName, const foundation::Error& error);

    QString key_;
    QString text_;
    std::optional<QDateTime> modifyDate_;
    std::optional<QDateTime> createDate_;
    std::optional<TWJsonValue> deleted_;
    std::optional<qint64> version_;
};
