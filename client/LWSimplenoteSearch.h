// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <vector>

#include "client/LWSimplenote.h"

// Finds the notes that contain a text. Only the first result becomes a note (its key and text;
// dates and deleted flag from the answer's top level); an answer that is not JSON gives one
// note with nothing set, and an empty result list gives no note. Both still count as success.
//
// The query goes into the URL text as it stands, and the URL parser escapes only what a URL
// cannot carry at all: blanks and other control characters, non-ASCII text (as its UTF-8
// bytes), a "%" that is not followed by two hex digits, and the characters "{}|^`\"<>". A "%"
// with two hex digits is taken as an escape already made. "&", "=", "+" and "#" pass unescaped
// and change what the service is asked ("#" even cuts the auth parameters off). The agent's
// search terms are letters and "_" only.
class LWSimplenoteSearch : public LWSNObject {
public:
    enum ActionID { kPullFromRemote = 0 };

    static std::shared_ptr<LWSimplenoteSearch> createWithQuery(const QString& query);

    qint64 actionCount() const override { return 1; }
    QUrl URLForActionID(int actionID) const override;
    QString endpointForActionID(int actionID) const override;
    QString HTTPMethodForActionID(int actionID) const override;

    void pullFromRemote();
    void pullFromRemoteSuccessWithResponse(const foundation::HTTPURLResponse& response,
                                           const QByteArray& data);
    void pullFromRemoteFailure(const foundation::Error& error);

    // Absent before the first successful pull.
    const std::optional<std::vector<std::shared_ptr<LWSimplenote>>>& contents() const {
        return contents_;
    }
    // For a search that keeps every result, which this one does not.
    void setContents(std::optional<std::vector<std::shared_ptr<LWSimplenote>>> contents) {
        contents_ = std::move(contents);
    }
    QString query() const { return query_; }
    void setQuery(const QString& query) { query_ = query; }

protected:
    void init() override;

private:
    std::optional<std::vector<std::shared_ptr<LWSimplenote>>> contents_;
    QString query_;
};
