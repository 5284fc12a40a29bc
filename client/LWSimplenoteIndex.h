// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <vector>

#include "client/LWSimplenote.h"

// The account's note index. Each element becomes a note through
// LWSimplenote::noteWithDictionary, which looks for key and text where index elements have
// none: index notes carry only their dates and deleted flag. An answer of another shape is not
// guarded against: an element that is no dictionary, or an answer that is an object (whose keys
// are walked), raises out of the answer's handler, nothing is posted, and the run loop logs it.
class LWSimplenoteIndex : public LWSNObject {
public:
    enum ActionID { kPullFromRemote = 0 };

    qint64 actionCount() const override { return 1; }
    QUrl URLForActionID(int actionID) const override;
    QString endpointForActionID(int actionID) const override;
    QString HTTPMethodForActionID(int actionID) const override;

    void pullFromRemote();
    void pullFromRemoteSuccessWithResponse(const foundation::HTTPURLResponse& response,
                                           const QByteArray& data);
    void pullFromRemoteFailure(const foundation::Error& error);

    const std::vector<std::shared_ptr<LWSimplenote>>& contents() const { return contents_; }
    // Never set by anything.
    std::optional<std::vector<TWJsonValue>> fullContents() const { return std::nullopt; }

protected:
    void init() override;

private:
    std::vector<std::shared_ptr<LWSimplenote>> contents_;
};
