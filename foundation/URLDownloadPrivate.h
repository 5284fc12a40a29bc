// SPDX-License-Identifier: GPL-3.0-or-later
// The inside of a transfer, shared by the files that make it: URLDownload.cpp (the transfer as
// the delegate sees it: events, destination, the end), URLDownloadConnections.cpp (the
// connections that bring the bytes), URLDownloadRanges.cpp (how they share the file),
// URLDownloadRetry.cpp (the waits between attempts) and URLDownloadJournal.cpp (what the next
// process needs).
#pragma once

#include <QElapsedTimer>
#include <QFile>
#include <QNetworkReply>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QTimer>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "foundation/ByteRanges.h"
#include "foundation/URLDownload.h"
#include "foundation/VideoPageRun.h"

class QNetworkAccessManager;

namespace foundation {

// One HTTP exchange of a transfer: the whole body, or one range of it.
struct DownloadConnection {
    QPointer<QNetworkReply> reply;
    QNetworkAccessManager* manager = nullptr;
    QString host;
    qint64 offset = 0;     // where its next byte goes in the file
    qint64 end = -1;       // where it stops (exclusive); -1 at the end of the body
    qint64 askedEnd = -1;  // the end its request named; -1 for none
    bool ranged = false;
    bool answered = false;  // its status was accepted
    bool finished = false;  // the reply is over; what it holds may still be unread
    QTimer silence;
};

struct URLDownload::Private {
    using Event = std::function<void(URLDownloadDelegate&, URLDownload*)>;
    enum class Stage { AwaitingResponse, AwaitingDestination, Receiving, Waiting, Over };

    explicit Private(URLDownload* owner);
    ~Private();

    URLDownload* q;
    URLDownloadDelegate* delegate = nullptr;
    QPointer<QObject> delegateObject;  // set when the delegate is a QObject
    bool delegateIsObject = false;
    std::shared_ptr<URLDownload> self;  // alive from the start until the last event
    QObject guard;                      // queued events and timers die with the download
    std::shared_ptr<int> lifetime = std::make_shared<int>();  // for other threads: alive or not
    Stage stage = Stage::AwaitingResponse;
    bool lastEventQueued = false;
    bool cancelled = false;
    bool responseDelivered = false;
    QString destination;
    bool allowOverwrite = false;
    QFile part;

    // What is known of the file.
    QUrl resolvedUrl;  // after the redirects: later connections go straight there
    qint64 length = -1;
    QByteArray validator;
    bool acceptsRanges = false;  // the server said so
    bool rangesBroken = false;   // it answered a range wrongly: one plain connection from now on
    ByteRanges onDisk;
    qint64 reported = 0;  // bytes announced to the delegate in data events

    std::vector<std::unique_ptr<DownloadConnection>> connections;
    std::vector<std::unique_ptr<DownloadConnection>> closed;  // deleted from the event loop
    static constexpr int kMostConnections = 8;
    // Lowered when a server turns extra connections away, back up after a wait.
    int connectionLimit = kMostConnections;
    QTimer readDelay;       // reads what slow connections have brought
    int silenceMs = 60000;  // the request's longest silence

    // Between attempts.
    RetryTimings timings;
    int attempt = 0;
    QElapsedTimer sinceProgress;
    qint64 networkDownMs = 0;  // time the network was down since the last progress
    QElapsedTimer networkDownSince;
    QTimer retryTimer;
    bool waitingForNetwork = false;
    Error lastError;

    // The video page tool, once the answer was a web page (URLDownloadVideo.cpp).
    bool videoTried = false;
    bool usesVideoTool = false;
    std::unique_ptr<VideoPageRun> video;

    // The journal's row, 0 when the transfer is not journaled.
    qint64 journalId = 0;
    QElapsedTimer sinceJournal;
    qint64 journaledBytes = 0;
    QElapsedTimer sinceSync;
    bool syncing = false;
    QString journaledPart;

    // URLDownload.cpp
    void begin();
    void responseArrived(const HTTPURLResponse& response);
    void destinationDecided();
    void afterRead();
    void announce();
    void complete();
    void fail(const Error& error);
    void attemptFailed(const Error& error, std::optional<double> retryAfter);
    void retryNow();
    void networkChanged(bool down);
    void journal(bool now);
    void syncInBackground();
    void journalAndSync();
    void forgetJournal();
    static bool networkDown(const QUrl& url);
    void deliver(Event event, bool last = false);
    void stopEverything();
    void removePart();
    double secondsWithoutProgress() const;

    // URLDownloadVideo.cpp
    bool handsOverToVideoTool(const DownloadConnection* c) const;
    void handOverToVideoTool();
    void downloadVideo();
    void videoDone(const VideoPageRun::Outcome& outcome);
    void dropVideoRun();
    void removeVideoWork();

    // URLDownloadConnections.cpp
    DownloadConnection* open(qint64 offset, qint64 end);
    void onMetaData(DownloadConnection* c);
    void onFinished(DownloadConnection* c);
    bool read(DownloadConnection* c);
    void readAll();
    void madeProgress();
    void connectionDone(DownloadConnection* c);
    void connectionFailed(DownloadConnection* c, const Error& error,
                          std::optional<double> retryAfter);
    void startOver(DownloadConnection* keep);
    void useOneConnection();
    void takeMoreConnections();
    void settle(DownloadConnection* c);
    bool isOpen(const DownloadConnection* c) const;
    std::vector<DownloadConnection*> openConnections() const;
    void close(DownloadConnection* c);
    void closeAll();
    bool writeAt(qint64 offset, const QByteArray& data);
    qint64 endOf(const DownloadConnection* c) const;
};

// How many connections of this process are open to a server, all transfers together.
int connectionsTo(const QString& host);
// Transfers from their start until their last event or their cancel, and how many.
QSet<URLDownload*>& runningDownloads();
int& downloadsInFlight();
// The timings that setRetryTimings() chose, if any.
std::optional<RetryTimings>& chosenRetryTimings();

}  // namespace foundation
