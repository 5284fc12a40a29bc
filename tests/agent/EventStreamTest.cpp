// SPDX-License-Identifier: GPL-3.0-or-later
// The change-event stream against a scripted event-stream service on loopback: what it hears,
// the answers that end the listening, and how it comes back after every kind of loss. The real
// ferrybox-notes and the agent around it are the system tests' (ChangeEventsTest).
#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QTcpServer>
#include <memory>
#include <vector>

#include "client/LWSimplenoteCredentialStore.h"
#include "client/LWSimplenoteEventStream.h"
#include "foundation/Log.h"
#include "tests/agent/StreamService.h"
#include "tests/support/TempHome.h"
#include "tests/support/Wait.h"

namespace {

using agenttest::Answer;
using agenttest::other;
using agenttest::stream;
using agenttest::StreamService;
using State = LWSimplenoteEventStream::State;
using testsupport::settle;
using testsupport::waitUntil;

const QString kToken = QStringLiteral("tok-3f9a7c");
const QString kEmail = QStringLiteral("me@example.org");

class EventStreamTest : public ::testing::Test {
protected:
    void SetUp() override {
        LWSimplenoteCredentialStore::setAuthToken(kToken);
        LWSimplenoteCredentialStore::setEmail(kEmail);
        stream_ = std::make_unique<LWSimplenoteEventStream>(service_.base());
        stream_->setChangeHandler([this](const QString& key) { keys_ << key; });
        stream_->setStateHandler([this](State state) {
            states_.push_back(state);
            if (state == State::Waiting)
                waits_.push_back(stream_->retryDelayMs());
        });
    }
    void TearDown() override {
        stream_.reset();
        for (const QString& line : log_.lines())
            EXPECT_FALSE(line.contains(kToken))
                << "a log line gives the token away: " << line.toStdString();
    }

    // Short periods, so that a test sees many openings in little time.
    void quick(int heartbeatMs, int firstDelayMs, int longestDelayMs) {
        stream_->setTiming({heartbeatMs, firstDelayMs, longestDelayMs});
    }
    QStringList changeLogLines() const {
        return log_.lines().filter(QStringLiteral("Change events:"));
    }
    bool waitForWaits(std::size_t n) {
        return waitUntil([&] { return waits_.size() >= n; });
    }

    testsupport::TempHome home_;
    foundation::LogCapture log_;
    StreamService service_;
    std::unique_ptr<LWSimplenoteEventStream> stream_;
    QStringList keys_;
    std::vector<State> states_;
    std::vector<int> waits_;
};

TEST_F(EventStreamTest, AsksWithTheSessionOfEveryOtherCall) {
    service_.script({stream({"retry: 2000\n: ready\n\n"})});
    stream_->start();
    ASSERT_TRUE(waitUntil([&] { return stream_->state() == State::Open; }));
    ASSERT_EQ(service_.requestCount(), 1);
    const QByteArray head = service_.heads().front();
    EXPECT_TRUE(
        head.startsWith("GET /api/events?auth=tok-3f9a7c&email=me@example.org HTTP/1.1\r\n"))
        << head.toStdString();
    EXPECT_TRUE(head.toLower().contains("\r\naccept: text/event-stream\r\n")) << head.toStdString();
    EXPECT_EQ(changeLogLines(), QStringList{"Change events: listening"});
}

// --- what the stream hears

struct WireCase {
    const char* name;
    QList<QByteArray> chunks;
    QStringList keys;
};

class WireTest : public EventStreamTest, public ::testing::WithParamInterface<WireCase> {};

// Every case ends with a change of the note "end", so the test knows when all was read.
TEST_P(WireTest, HearsTheChangedNotes) {
    QList<QByteArray> chunks = GetParam().chunks;
    chunks << "event: change\ndata: {\"key\":\"end\"}\n\n";
    service_.script({stream(chunks)});
    stream_->start();
    ASSERT_TRUE(waitUntil([&] { return keys_.contains("end"); })) << keys_.join(",").toStdString();
    keys_.removeLast();
    EXPECT_EQ(keys_, GetParam().keys);
    EXPECT_EQ(stream_->state(), State::Open);
    EXPECT_EQ(service_.requestCount(), 1);
}

INSTANTIATE_TEST_SUITE_P(
    Stream, WireTest,
    ::testing::Values(
        WireCase{"ReadyHeartbeatAndChanges",
                 {"retry: 2000\n: ready\n\n", "event: change\ndata: {\"key\":\"k1\"}\n\n",
                  ": heartbeat\n\n", "event: change\ndata: {\"key\":\"k2\"}\n\n"},
                 {"k1", "k2"}},
        WireCase{
            "SplitAnywhere", {"event: cha", "nge\nda", "ta: {\"key\":", "\"k1\"}\n", "\n"}, {"k1"}},
        WireCase{
            "TwoEventsInOnePiece",
            {"event: change\ndata: {\"key\":\"a\"}\n\nevent: change\ndata: {\"key\":\"b\"}\n\n"},
            {"a", "b"}},
        WireCase{"CarriageReturnsBeforeLineFeeds",
                 {"event: change\r\ndata: {\"key\":\"k1\"}\r\n\r\n"},
                 {"k1"}},
        WireCase{
            "DataOverSeveralLines", {"event: change\ndata: {\"key\":\ndata: \"k5\"}\n\n"}, {"k5"}},
        WireCase{"NoSpaceAfterTheColonAndAnId",
                 {"id: 7\nevent:change\ndata:{\"key\":\"k4\"}\n\n"},
                 {"k4"}},
        WireCase{"KeyOutsideAscii",
                 {"event: change\ndata: {\"key\":\"n\xc3\xb6te\"}\n\n"},
                 {QString::fromUtf8("n\xc3\xb6te")}},
        WireCase{"WhatIsNoChangeIsPassedOver",
                 {"data: {\"key\":\"plain message\"}\n\n", "event: change\ndata: not json\n\n",
                  "event: change\ndata: {\"id\":1}\n\n", "event: change\ndata: {\"key\":7}\n\n",
                  "event: change\ndata: {\"key\":\"\"}\n\n", "event: change\n\n",
                  "event: other\ndata: {\"key\":\"x\"}\n\n", ": {\"key\":\"comment\"}\n\n",
                  "event: change\ndata: {\"key\":\"kept\"}\n\n"},
                 {"kept"}}),
    [](const auto& info) { return std::string(info.param.name); });

// --- answers that end the listening

struct EndCase {
    const char* name;
    Answer answer;
    State state;
    const char* logLine;
};

class EndTest : public EventStreamTest, public ::testing::WithParamInterface<EndCase> {};

TEST_P(EndTest, ListensNoMoreUntilTheNextStart) {
    quick(100, 10, 40);
    service_.script({GetParam().answer});
    stream_->start();
    ASSERT_TRUE(waitUntil([&] { return stream_->state() == GetParam().state; }));
    // Long enough for several openings, had it gone on trying.
    settle(300);
    EXPECT_EQ(service_.requestCount(), 1);
    EXPECT_EQ(stream_->state(), GetParam().state);
    EXPECT_EQ(changeLogLines(), QStringList{GetParam().logLine});

    service_.script({stream({": ready\n\n"})});
    stream_->start();
    EXPECT_TRUE(waitUntil([&] { return stream_->state() == State::Open; }));
    EXPECT_EQ(service_.requestCount(), 2);
}

INSTANTIATE_TEST_SUITE_P(
    Stream, EndTest,
    ::testing::Values(
        EndCase{"ServiceWithoutEvents", other(404), State::Unavailable,
                "Change events: the service offers none; checking at the interval"},
        EndCase{"SessionGone", other(401), State::Refused,
                "Change events: the service no longer knows this session; listening again after "
                "the next login"},
        EndCase{"PageInsteadOfAStream", other(200, "text/html", "<html></html>"),
                State::Unavailable,
                "Change events: the service answers with no event stream; checking at the "
                "interval"}),
    [](const auto& info) { return std::string(info.param.name); });

// --- losses: opened again, with waits that double up to the longest

struct LossCase {
    const char* name;
    Answer answer;
    const char* reason;
};

class LossTest : public EventStreamTest, public ::testing::WithParamInterface<LossCase> {};

TEST_P(LossTest, OpensAgainWithGrowingWaits) {
    quick(1000, 20, 160);
    service_.script({GetParam().answer});
    stream_->start();
    ASSERT_TRUE(waitForWaits(6)) << waits_.size();
    const int expected[] = {20, 40, 80, 160, 160, 160};
    for (int i = 0; i < 6; ++i) {
        // Up to a fifth shorter, at random.
        EXPECT_LE(waits_[i], expected[i]) << i;
        EXPECT_GE(waits_[i], expected[i] * 4 / 5) << i;
    }
    EXPECT_GE(service_.requestCount(), 6);
    // One line for the loss, whatever number of tries: a stream that is open again and lost at
    // once, before it lasted, belongs to the same run.
    const QStringList losses = changeLogLines().filter(" opening again ");
    ASSERT_EQ(losses.size(), 1) << changeLogLines().join("\n").toStdString();
    EXPECT_TRUE(losses.front().contains(GetParam().reason)) << losses.front().toStdString();
    EXPECT_LE(changeLogLines().filter("Change events: listening").size(), 2);
    EXPECT_TRUE(keys_.isEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Stream, LossTest,
    ::testing::Values(LossCase{"EndedByTheService", stream({": ready\n\n"}, true),
                               "(the service closed it)"},
                      LossCase{"ServiceError", other(503), "(status 503)"},
                      LossCase{"TooManyStreams", other(429), "(status 429)"},
                      LossCase{"EventTooLong", stream({"data: " + QByteArray(70000, 'x')}),
                               "(an event too long)"}),
    [](const auto& info) { return std::string(info.param.name); });

// A service that cannot be reached is tried again and again, and logged once, not per try.
TEST_F(EventStreamTest, ServiceNotReachedIsTriedAgainAndLoggedOnce) {
    QTcpServer closed;
    closed.listen(QHostAddress::LocalHost, 0);
    const QString base = QStringLiteral("http://127.0.0.1:%1/api").arg(closed.serverPort());
    closed.close();
    stream_ = std::make_unique<LWSimplenoteEventStream>(base);
    stream_->setStateHandler([this](State state) {
        if (state == State::Waiting)
            waits_.push_back(stream_->retryDelayMs());
    });
    quick(1000, 10, 40);
    stream_->start();
    ASSERT_TRUE(waitForWaits(5));
    const QStringList lines = changeLogLines();
    ASSERT_EQ(lines.size(), 1) << lines.join("\n").toStdString();
    EXPECT_TRUE(lines.front().startsWith("Change events: no stream (network error "))
        << lines.front().toStdString();
}

// A stream that says nothing, not even its heartbeat, for three periods is taken for dead.
TEST_F(EventStreamTest, SilenceIsALoss) {
    quick(100, 10, 40);
    service_.script({stream({": ready\n\n"})});
    stream_->start();
    ASSERT_TRUE(waitUntil([&] { return service_.requestCount() >= 2; }));
    EXPECT_TRUE(waitUntil([&] { return service_.openConnections() <= 1; }))
        << "the silent stream was closed";
    const QStringList lines = changeLogLines();
    ASSERT_GE(lines.size(), 2);
    EXPECT_EQ(lines[1],
              "Change events: stream lost (nothing heard for 0.3 s); opening again "
              "with waits of up to 0.04 s");
}

// A service whose heartbeat is slower than three of ours gets more time after each silence, and
// the usual limit again once its comments come often enough.
TEST_F(EventStreamTest, SlowerHeartbeatIsWaitedFor) {
    quick(100, 10, 40);
    service_.script({stream({": ready\n\n"})});
    stream_->start();
    ASSERT_TRUE(waitUntil([&] { return service_.requestCount() == 3; }));
    ASSERT_TRUE(waitUntil([&] { return stream_->state() == State::Open; }));
    // Heartbeats every 50 ms for a while, then silence.
    for (int i = 0; i < 4; ++i) {
        service_.sendToAll(": heartbeat\n\n");
        settle(50);
    }
    ASSERT_TRUE(waitUntil([&] { return service_.requestCount() == 4; }));
    const QStringList losses = changeLogLines().filter(" opening again ");
    ASSERT_GE(losses.size(), 3) << changeLogLines().join("\n").toStdString();
    EXPECT_TRUE(losses[0].contains("(nothing heard for 0.3 s)")) << losses[0].toStdString();
    EXPECT_TRUE(losses[1].contains("(nothing heard for 0.6 s)")) << losses[1].toStdString();
    EXPECT_TRUE(losses[2].contains("(nothing heard for 0.3 s)")) << losses[2].toStdString();
}

// Heartbeats keep a quiet stream open.
TEST_F(EventStreamTest, HeartbeatsKeepItOpen) {
    quick(100, 10, 40);
    service_.script({stream({": ready\n\n"})});
    stream_->start();
    ASSERT_TRUE(waitUntil([&] { return stream_->state() == State::Open; }));
    QElapsedTimer open;
    open.start();
    // Six silence limits, each bridged by a heartbeat.
    while (open.elapsed() < 1800) {
        service_.sendToAll(": heartbeat\n\n");
        settle(100);
    }
    EXPECT_EQ(service_.requestCount(), 1);
    EXPECT_EQ(stream_->state(), State::Open);
}

// Once a stream has stayed open for a heartbeat period, the next loss waits the shortest again.
TEST_F(EventStreamTest, StreamThatLastedStartsTheWaitsAgain) {
    quick(200, 20, 1000);
    const Answer closing = stream({": ready\n\n"}, true);
    const Answer staying = stream({": ready\n\n"});
    service_.script({closing, closing, closing, staying, closing});
    stream_->start();
    ASSERT_TRUE(waitUntil([&] { return service_.requestCount() == 4; }));
    ASSERT_TRUE(waitUntil([&] { return stream_->state() == State::Open; }));
    QElapsedTimer open;
    open.start();
    ASSERT_TRUE(waitUntil([&] { return open.elapsed() >= 300; }));
    service_.closeAll();
    ASSERT_TRUE(waitForWaits(4));
    EXPECT_GE(waits_[2], 64);
    EXPECT_LE(waits_[3], 20) << "back to the shortest wait";
    EXPECT_TRUE(changeLogLines().contains("Change events: listening again"));
}

// The service's "retry" replaces the first wait.
TEST_F(EventStreamTest, ServiceRetryTimeIsTheFirstWait) {
    quick(1000, 5000, 60000);
    service_.script({stream({"retry: 50\n: ready\n\n"}, true)});
    stream_->start();
    ASSERT_TRUE(waitForWaits(2));
    EXPECT_LE(waits_[0], 50);
    EXPECT_LE(waits_[1], 100);
    EXPECT_TRUE(waitUntil([&] { return service_.requestCount() >= 3; }));
}

// Stopping closes the stream, and nothing is heard or tried afterwards.
TEST_F(EventStreamTest, StopClosesAndStaysQuiet) {
    quick(100, 10, 40);
    service_.script({stream({": ready\n\n"})});
    stream_->start();
    ASSERT_TRUE(waitUntil([&] { return stream_->state() == State::Open; }));
    stream_->stop();
    EXPECT_EQ(stream_->state(), State::Stopped);
    ASSERT_TRUE(waitUntil([&] { return service_.openConnections() == 0; }));
    service_.sendToAll("event: change\ndata: {\"key\":\"late\"}\n\n");
    settle(300);
    EXPECT_TRUE(keys_.isEmpty());
    EXPECT_EQ(service_.requestCount(), 1);
}

// A listener may stop the stream from inside its own callback; a stream may go at any moment.
TEST_F(EventStreamTest, StoppedFromItsCallbackOrDestroyedWhileConnecting) {
    service_.script(
        {stream({"event: change\ndata: {\"key\":\"a\"}\n\nevent: change\ndata: "
                 "{\"key\":\"b\"}\n\n"})});
    stream_->setChangeHandler([this](const QString& key) {
        keys_ << key;
        stream_->stop();
    });
    stream_->start();
    ASSERT_TRUE(waitUntil([&] { return !keys_.isEmpty(); }));
    settle(50);
    EXPECT_EQ(keys_, QStringList{"a"});

    Answer silent;
    silent.silent = true;
    service_.script({silent});
    stream_->start();
    ASSERT_TRUE(waitUntil([&] { return service_.requestCount() == 2; }));
    EXPECT_EQ(stream_->state(), State::Connecting);
    stream_.reset();
    settle(50);
}

}  // namespace
