// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/support/NginxProcess.h"

#include <QDir>
#include <QFile>
#include <QTcpSocket>

#include "tests/support/NotesServerProcess.h"
#include "tests/support/StopProcess.h"
#include "tests/support/Wait.h"

namespace testsupport {

namespace {

const char kConfig[] = R"(daemon off;
master_process off;
worker_processes 1;
error_log %1/error.log;
pid %1/nginx.pid;
events { worker_connections 256; }
http {
    access_log off;
    client_body_temp_path %1/tmp;
    proxy_temp_path %1/tmp;
    fastcgi_temp_path %1/tmp;
    uwsgi_temp_path %1/tmp;
    scgi_temp_path %1/tmp;
    types { application/octet-stream bin; text/plain txt; }
    server {
        listen 127.0.0.1:%2;
        root %1/files;
        sendfile on;
        tcp_nopush on;
    }
}
)";

}  // namespace

NginxProcess::NginxProcess() {
    port_ = NotesServerProcess::freePort();
    QDir(dir_.path()).mkpath(QStringLiteral("files"));
    QDir(dir_.path()).mkpath(QStringLiteral("tmp"));
    QFile config(dir_.path() + QStringLiteral("/nginx.conf"));
    if (!config.open(QIODevice::WriteOnly))
        return;
    config.write(QString::fromLatin1(kConfig).arg(dir_.path()).arg(port_).toUtf8());
    config.close();
    process_.start(QStringLiteral("/usr/sbin/nginx"),
                   {QStringLiteral("-p"), dir_.path(), QStringLiteral("-c"), config.fileName(),
                    QStringLiteral("-e"), dir_.path() + QStringLiteral("/error.log")});
    if (!process_.waitForStarted(5000))
        return;
    running_ = waitUntil(
        [this] {
            QTcpSocket probe;
            probe.connectToHost(QStringLiteral("127.0.0.1"), static_cast<quint16>(port_));
            return probe.waitForConnected(100);
        },
        10000);
}

NginxProcess::~NginxProcess() {
    stopProcess(process_);
}

QString NginxProcess::baseUrl() const {
    return QStringLiteral("http://127.0.0.1:%1").arg(port_);
}

QString NginxProcess::addFile(const QString& name, qint64 size) {
    const QString path = root() + QLatin1Char('/') + name;
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return QString();
    QByteArray block(1024 * 1024, '\0');
    for (int i = 0; i < block.size(); ++i)
        block[i] = static_cast<char>((i * 31 + name.size()) % 251);
    for (qint64 left = size; left > 0; left -= block.size())
        file.write(block.constData(), std::min<qint64>(left, block.size()));
    return path;
}

}  // namespace testsupport
