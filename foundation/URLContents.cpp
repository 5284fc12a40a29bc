// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/URLContents.h"

#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QThread>
#include <memory>

namespace foundation {

std::optional<QByteArray> contentsOfURL(const QUrl& url) {
    std::optional<QByteArray> contents;
    std::unique_ptr<QThread> reader(QThread::create([&] {
        QEventLoop loop;
        QNetworkAccessManager manager;
        QNetworkRequest request(url);
        request.setTransferTimeout(60000);
        request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                             QNetworkRequest::NoLessSafeRedirectPolicy);
        std::unique_ptr<QNetworkReply> reply(manager.get(request));
        QObject::connect(reply.get(), &QNetworkReply::finished, &loop, &QEventLoop::quit);
        loop.exec();
        const bool answered =
            reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid() ||
            reply->error() == QNetworkReply::NoError;
        if (answered)
            contents = reply->readAll();
    }));
    reader->start();
    reader->wait();
    return contents;
}

}  // namespace foundation
