// SPDX-License-Identifier: GPL-3.0-or-later
#include "agent/FailureReason.h"

#include <QNetworkReply>

#include "foundation/URLConnection.h"
#include "foundation/URLDownload.h"

namespace {

QString networkReason(qint64 code, const QString& description) {
    switch (code) {
        case QNetworkReply::ConnectionRefusedError:
            return QStringLiteral("connection refused");
        case QNetworkReply::RemoteHostClosedError:
            return QStringLiteral("connection closed by the server");
        case QNetworkReply::HostNotFoundError:
            return QStringLiteral("host not found");
        case QNetworkReply::TimeoutError:
            return description.isEmpty() ? QStringLiteral("no answer") : description;
        case QNetworkReply::SslHandshakeFailedError:
            return QStringLiteral("secure connection failed");
        case QNetworkReply::TooManyRedirectsError:
            return QStringLiteral("too many redirects");
        case QNetworkReply::InsecureRedirectError:
            return QStringLiteral("redirected from https to http");
        default:
            return description;
    }
}

QString downloadReason(qint64 code, const QString& description) {
    switch (code) {
        case foundation::URLDownloadErrorUnsupportedURL:
            return QStringLiteral("not a link");
        case foundation::URLDownloadErrorNoDestination:
            return QStringLiteral("no place to save it");
        case foundation::URLDownloadErrorDestinationExists:
            return QStringLiteral("a file of that name exists");
        case foundation::URLDownloadErrorCannotWrite:
            return QStringLiteral("cannot write to the download folder");
        default:
            if (code >= 400) {
                return QStringLiteral("%1 %2").arg(code).arg(
                    foundation::HTTPURLResponse::localizedStringForStatusCode(
                        static_cast<int>(code)));
            }
            return description;
    }
}

}  // namespace

QString failureReason(const foundation::Error& error) {
    QString reason = error.domain == foundation::URLDownloadErrorDomain
                         ? downloadReason(error.code, error.localizedDescription)
                         : networkReason(error.code, error.localizedDescription);
    if (reason.isEmpty())
        reason = QStringLiteral("failed");
    reason = reason.simplified();
    reason.replace(QStringLiteral(": "), QStringLiteral(" - "));
    if (reason.endsWith(QLatin1Char(':')))
        reason.chop(1);
    if (!reason.isEmpty() && reason.at(0).isUpper() &&
        (reason.size() < 2 || !reason.at(1).isUpper()))
        reason[0] = reason.at(0).toLower();
    return reason;
}
