// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QStringList>

#include "foundation/URLConnection.h"
#include "foundation/URLDownload.h"

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

// Writes every event of a file transfer down as a short line; the data events of a run count
// as one line. The destination is the suggested name in folder.
class Recorder : public foundation::URLDownloadDelegate {
public:
    QStringList events;
    QString folder;
    bool allowOverwrite = true;
    quint64 bytes = 0;

    bool over() const {
        return !events.isEmpty() &&
               (events.last().startsWith("finish") || events.last().startsWith("fail"));
    }
    void downloadDidBegin(foundation::URLDownload*) override { events << "begin"; }
    void downloadDidReceiveResponse(foundation::URLDownload*,
                                    const foundation::HTTPURLResponse& response) override {
        events << QStringLiteral("response %1 %2")
                      .arg(response.statusCode)
                      .arg(response.expectedContentLength);
    }
    void downloadDecideDestinationWithSuggestedFilename(foundation::URLDownload* download,
                                                        const QString& name) override {
        events << "destination " + name;
        download->setDestination(folder + "/" + name, allowOverwrite);
    }
    void downloadDidReceiveDataOfLength(foundation::URLDownload*, quint64 length) override {
        bytes += length;
        if (events.last() != "data")
            events << "data";
    }
    void downloadDidFinish(foundation::URLDownload*) override {
        events << QStringLiteral("finish %1").arg(bytes);
    }
    void downloadDidFailWithError(foundation::URLDownload*,
                                  const foundation::Error& error) override {
        events << QStringLiteral("fail %1 %2").arg(error.domain).arg(error.code);
    }
};

}  // namespace foundationtest
