// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QList>
#include <QPointer>
#include <QString>
#include <QTcpServer>
#include <vector>

class QTcpSocket;

namespace agenttest {

// How one request is answered.
struct Answer {
    int status = 200;
    QByteArray contentType = "text/event-stream";
    QList<QByteArray> chunks;  // sent a few milliseconds apart, each in writes of its own
    bool close = false;        // the service ends the stream after the last chunk
    bool silent = false;       // the request is read and never answered
};

// An event stream of these pieces.
Answer stream(QList<QByteArray> chunks, bool close = false);
// Any other answer, its body sent whole and the connection closed.
Answer other(int status, QByteArray contentType = "text/plain", QByteArray body = {});

// A scripted event-stream service on a loopback port, run by the test's own event loop (the
// stream under test runs there too). Request n is answered by answer n; the last answer also
// answers every later request, and without a script every request gets 404.
class StreamService {
public:
    StreamService();
    ~StreamService();

    QString base() const;  // "http://127.0.0.1:PORT/api"
    void script(std::vector<Answer> answers) { answers_ = std::move(answers); }
    int requestCount() const { return static_cast<int>(heads_.size()); }
    // Each request's line and headers, as sent.
    const QList<QByteArray>& heads() const { return heads_; }
    // Connections the service still holds open.
    int openConnections() const;
    void sendToAll(const QByteArray& bytes);
    void closeAll();

private:
    void accept();
    void answer(QTcpSocket* socket, const Answer& a);

    QTcpServer server_;
    std::vector<Answer> answers_;
    QList<QByteArray> heads_;
    std::vector<QPointer<QTcpSocket>> sockets_;
};

}  // namespace agenttest
