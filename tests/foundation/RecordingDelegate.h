// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QStringList>

#include "foundation/URLConnection.h"

namespace foundationtest {

// Writes every event of a connection down as one short line: "response 302", "data BODY",
// "fail DOMAIN CODE", "finish".
class RecordingDelegate : public foundation::URLConnectionDelegate {
public:
    QStringList events;
    bool over() const {
        return !events.isEmpty() && (events.last() == "finish" || events.last().startsWith("fail"));
    }

    void connectionDidReceiveResponse(foundation::URLConnection*,
                                      const foundation::HTTPURLResponse& response) override {
        events << QStringLiteral("response %1").arg(response.statusCode);
    }
    void connectionDidReceiveData(foundation::URLConnection*, const QByteArray& data) override {
        // Bodies may arrive in several pieces; one line per body keeps the record readable.
        if (!events.isEmpty() && events.last().startsWith("data ")) {
            events.last() += QString::fromUtf8(data);
        } else {
            events << "data " + QString::fromUtf8(data);
        }
    }
    void connectionDidFailWithError(foundation::URLConnection*,
                                    const foundation::Error& error) override {
        events << QStringLiteral("fail %1 %2").arg(error.domain).arg(error.code);
    }
    void connectionDidFinishLoading(foundation::URLConnection*) override { events << "finish"; }
};

}  // namespace foundationtest
