// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QPointer>
#include <QString>
#include <functional>
#include <memory>

class QNetworkAccessManager;
class QNetworkReply;
class QObject;
class QTimer;

// The service's change events for the signed-in account: one long GET of {base}/events with the
// token and address that every other call carries, which the service keeps open and answers with
// server-sent events. Each "change" event names the key of a note that was created, changed or
// deleted; comment lines (the service's "ready" and its heartbeat) only show that the stream is
// alive.
//
// Life and ownership: made and owned by the one who listens (the agent's controller). start()
// opens the stream with the token and address that the credential store holds at that moment;
// each later opening reads them again. From then on the stream keeps itself open: one that ends,
// fails, answers an unexpected status or stays silent for three heartbeat periods (longer after
// each silence, for a service whose heartbeat is slower than ours) is opened again
// after a wait that starts at the service's "retry" time (one second when it names none) and
// doubles up to a minute; once a stream has stayed open for a whole heartbeat period, the next
// loss waits the shortest time again. Two answers end the listening until the next start(): 404
// (or anything but an event stream: the service offers no events) and 401 (the session is gone).
// stop() and destruction close the stream at once, and no callback follows either.
//
// Everything runs on the main thread straight from Qt's event loop, without waiting for the
// default mode: a listener that starts agent work from a callback schedules it there itself.
// A callback may stop() or start() the stream, but must leave destroying it to a later turn.
// The token never reaches a log line: the state changes are logged with texts of our own.
class LWSimplenoteEventStream {
public:
    enum class State {
        Stopped,      // never started, or stop()ped
        Connecting,   // a request is on its way
        Open,         // the service answered with an event stream
        Waiting,      // lost; the next opening is due after retryDelayMs()
        Unavailable,  // the service offers no change events
        Refused,      // the service no longer knows the session
    };

    struct Timing {
        int heartbeatMs = 15000;     // the service's heartbeat period
        int firstDelayMs = 1000;     // the first wait when the service names no retry time
        int longestDelayMs = 60000;  // the longest wait between two openings
    };

    explicit LWSimplenoteEventStream(const QString& baseURL);
    ~LWSimplenoteEventStream();
    LWSimplenoteEventStream(const LWSimplenoteEventStream&) = delete;
    LWSimplenoteEventStream& operator=(const LWSimplenoteEventStream&) = delete;

    // Called with the key of every changed note, in the order the service tells them.
    void setChangeHandler(std::function<void(const QString& key)> handler) {
        changed_ = std::move(handler);
    }
    // Called after every change of state().
    void setStateHandler(std::function<void(State)> handler) { stateChanged_ = std::move(handler); }
    void setTiming(const Timing& timing) { timing_ = timing; }

    // (Re)opens the stream with fresh credentials; the waits start from the shortest again.
    void start();
    void stop();

    State state() const { return state_; }
    // While Waiting: how long this wait lasts.
    int retryDelayMs() const { return retryDelayMs_; }
    // Whether the stream now open follows a lost one (rather than a start()).
    bool reopened() const { return reopened_; }

private:
    void open();
    void onResponse();
    void onData();
    void onFinished();
    void onSilence();
    void conclude();
    void takeLines();
    void takeLine(const QByteArray& line);
    void dispatch();
    void lose(const QString& reason);
    void end(State state, const QString& logLine);
    void dropReply();
    void setState(State state);

    QString baseURL_;
    Timing timing_;
    std::function<void(const QString&)> changed_;
    std::function<void(State)> stateChanged_;

    std::unique_ptr<QObject> context_;  // owns the manager and the timers
    QNetworkAccessManager* network_ = nullptr;
    QTimer* silence_ = nullptr;
    QTimer* retry_ = nullptr;
    QPointer<QNetworkReply> reply_;

    State state_ = State::Stopped;
    bool answered_ = false;  // the current request has its status...
    int status_ = 0;         // ...this one
    qint64 discarded_ = 0;   // body bytes of an answer that is no stream
    bool everOpen_ = false;  // a stream was open since start()
    // A run of losses (until a stream lasts a heartbeat period) is logged once, and so is the
    // first stream open again after it: a service that keeps dropping the stream fills no log.
    bool lossLogged_ = false;
    bool backLogged_ = false;
    bool reopened_ = false;
    QElapsedTimer openSince_;
    QElapsedTimer lastComment_;
    int failures_ = 0;        // openings in a row that did not last
    int serverRetryMs_ = -1;  // the service's "retry", when it gave one
    int retryDelayMs_ = 0;
    int silenceLimitMs_ = 45000;  // silence that counts as a loss

    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);  // gone with this object
    QByteArray buffer_;  // received bytes not yet a whole line
    QByteArray eventType_;
    QByteArray data_;
    bool hasData_ = false;
};
