// SPDX-License-Identifier: GPL-3.0-or-later
#include "agent/FXDownload.h"

#include <cmath>

std::shared_ptr<FXDownload> FXDownload::startWithRequest(
    const foundation::URLRequest& request, foundation::URLDownloadDelegate* delegate) {
    return foundation::URLDownload::start<FXDownload>(request, delegate);
}

QString FXDownload::absoluteURLString() const {
    const QUrl& url = request().url;
    return url.isValid() ? url.toString(QUrl::FullyEncoded) : QStringLiteral("(null)");
}

QString FXDownload::link() const {
    return noteLine_.isEmpty() ? request().url.toString(QUrl::FullyEncoded) : noteLine_;
}

QString FXDownload::waitText() const {
    const std::optional<Wait> wait = waiting();
    if (!wait)
        return QString();
    if (wait->forNetwork)
        return QStringLiteral("waiting for the network");
    return QStringLiteral("retrying in %1 s").arg(std::lround(wait->secondsLeft));
}

QString FXDownload::displayName() const {
    return title_.isEmpty() ? absoluteURLString() : title_.section(QLatin1Char('/'), -1);
}

QString FXDownload::description() const {
    return QStringLiteral("<FXDownload: 0x%1>").arg(reinterpret_cast<quintptr>(this), 0, 16);
}
