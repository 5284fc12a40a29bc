// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <optional>

#include "client/LWSNObject.h"

// Adds one line at the end of the newest note that begins with a header, or has the service make
// a note of the two (action 0, `appendToRemote`): how the agent puts a link back into the
// download note without sending the rest of it. The service adds the line in one write of its
// own, so links shared into the note at the same moment stay, a line the note holds already is
// not added twice, and a note longer than a push can carry still takes the line.
//
// The line goes whole, as base64 of its UTF-8 (never cut at the push's 384 bytes). On success
// key() is the note's key and version() its version after the append (absent when the service
// names none). An HTTP error status (400 for a line or header that is empty or holds a line
// break, 413 when the note would grow too long, 401 for a session that has ended) and a
// transport failure alike post the failure notification with the error; key and version stay
// as they were.
class LWSimplenoteAppend : public LWSNObject {
public:
    enum ActionID { kAppendToRemote = 0 };

    qint64 actionCount() const override { return 1; }
    QUrl URLForActionID(int actionID) const override;
    QString endpointForActionID(int actionID) const override;
    QString HTTPMethodForActionID(int actionID) const override;
    std::optional<QByteArray> HTTPBodyForActionID(int actionID) const override;

    void appendToRemote();
    void appendToRemoteSuccessWithResponse(const foundation::HTTPURLResponse& response,
                                           const QByteArray& data);
    void appendToRemoteFailure(const foundation::Error& error);

    QString header() const { return header_; }
    void setHeader(const QString& header) { header_ = header; }
    QString line() const { return line_; }
    void setLine(const QString& line) { line_ = line; }
    QString key() const { return key_; }
    std::optional<qint64> version() const { return version_; }

protected:
    void init() override;

private:
    QString header_;
    QString line_;
    QString key_;
    std::optional<qint64> version_;
};
