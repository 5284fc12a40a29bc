// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/agent/StreamService.h"

#include <QTcpSocket>
#include <QTimer>
#include <memory>

namespace agenttest {

Answer stream(QList<QByteArray> chunks, bool close) {
    Answer a;
    a.chunks = std::move(chunks);
    a.close = close;
    return a;
}

Answer other(int status, QByteArray contentType, QByteArray body) {
    Answer a;
    a.status = status;
    a.contentType = std::move(contentType);
    if (!body.isEmpty())
        a.chunks << body;
    a.close = true;
    return a;
}

StreamService::StreamService() {
    server_.listen(QHostAddress::LocalHost, 0);
    QObject::connect(&server_, &QTcpServer::newConnection, &server_, [this] { accept(); });
}

StreamService::~StreamService() {
    closeAll();
}

QString StreamService::base() const {
    return QStringLiteral("http://127.0.0.1:%1/api").arg(server_.serverPort());
}

int StreamService::openConnections() const {
    int n = 0;
    for (const auto& socket : sockets_) {
        if (socket && socket->state() == QAbstractSocket::ConnectedState)
            ++n;
    }
    return n;
}

void StreamService::sendToAll(const QByteArray& bytes) {
    for (const auto& socket : sockets_) {
        if (socket && socket->state() == QAbstractSocket::ConnectedState) {
            socket->write(bytes);
            socket->flush();
        }
    }
}

void StreamService::closeAll() {
    for (const auto& socket : sockets_) {
        if (socket)
            socket->disconnectFromHost();
    }
}

void StreamService::accept() {
    while (QTcpSocket* socket = server_.nextPendingConnection()) {
        sockets_.push_back(socket);
        auto head = std::make_shared<QByteArray>();
        QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket, head] {
            if (head->endsWith("\r\n\r\n"))
                return;
            *head += socket->readAll();
            if (!head->contains("\r\n\r\n"))
                return;
            *head = head->left(head->indexOf("\r\n\r\n") + 4);
            heads_ << *head;
            answer(socket,
                   answers_.empty()
                       ? other(404)
                       : answers_[std::min<std::size_t>(heads_.size() - 1, answers_.size() - 1)]);
        });
    }
}

void StreamService::answer(QTcpSocket* socket, const Answer& a) {
    if (a.silent)
        return;
    QByteArray head = "HTTP/1.1 " + QByteArray::number(a.status) + " Scripted\r\n";
    head += "Content-Type: " + a.contentType + "\r\nCache-Control: no-cache\r\n";
    if (a.status != 200)
        head += "Content-Length: 0\r\n";
    head += "Connection: close\r\n\r\n";
    socket->write(head);
    socket->flush();
    if (a.status != 200) {
        socket->disconnectFromHost();
        return;
    }
    // Chunks a few milliseconds apart, so that the stream reads them one by one.
    QPointer<QTcpSocket> guarded(socket);
    int delay = 0;
    for (const QByteArray& chunk : a.chunks) {
        delay += 5;
        QTimer::singleShot(delay, socket, [guarded, chunk] {
            if (guarded) {
                guarded->write(chunk);
                guarded->flush();
            }
        });
    }
    if (a.close) {
        QTimer::singleShot(delay + 5, socket, [guarded] {
            if (guarded)
                guarded->disconnectFromHost();
        });
    }
}

}  // namespace agenttest
