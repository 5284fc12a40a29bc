// SPDX-License-Identifier: GPL-3.0-or-later
// Downloads that survive: the real headless agent against a file server that drops, resets,
// refuses, changes files and answers ranges wrongly. Every link ends as the whole file, byte for
// byte, or back in the note saying why; a killed or stopped agent's transfers go on at the next
// start from where they were.
#include <gtest/gtest.h>

#include <signal.h>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <optional>

#include "tests/support/FaultFileServer.h"
#include "tests/support/StopProcess.h"
#include "tests/support/Wait.h"
#include "tests/system/HeadlessAgentTest.h"

namespace {

using testsupport::FaultFileServer;
using Fault = FaultFileServer::Fault;

QByteArray content(qint64 size, int seed) {
    QByteArray bytes(size, Qt::Uninitialized);
    for (qint64 i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 131 + seed * 7 + i / 4099) % 251);
    return bytes;
}

class SurvivalTest : public systemtest::HeadlessAgentTest {
protected:
    QStringList partialFiles() const {
        return QDir(downloads()).entryList({".*.part"}, QDir::Files | QDir::Hidden);
    }
};

struct FaultRow {
    const char* name;
    FaultFileServer::File file;
    std::vector<Fault> faults;
    // The whole file, or the reason its link is put back into the note with.
    const char* failure = nullptr;
};

// Every fault at once, each on a file of its own, in one check: the file arrives whole, or the
// note says why not. The server must have been asked only for what was missing.
TEST_F(SurvivalTest, EveryFaultEndsAsTheWholeFileOrInTheNote) {
    const qint64 size = 1 << 20;
    const QByteArray changed = content(size, 99);
    std::vector<Fault> alwaysBusy(200, Fault{.kind = Fault::Status, .status = 503});
    const std::vector<FaultRow> rows = {
        {"dropped", {}, {{.kind = Fault::DropAfter, .bytes = 300000}}},
        {"reset", {}, {{.kind = Fault::ResetAfter, .bytes = 300000}}},
        {"busy", {}, {{.kind = Fault::Status, .status = 503, .retryAfter = "1"}}},
        {"limited", {}, {{.kind = Fault::Status, .status = 429}}},
        {"gateway",
         {},
         {{.kind = Fault::Status, .status = 502}, {.kind = Fault::Status, .status = 504}}},
        {"changed",
         {},
         {{.kind = Fault::DropAfter, .bytes = 300000},
          {.kind = Fault::ReplaceThenServe, .newContent = changed}}},
        {"no-etag", {.etag = false}, {{.kind = Fault::DropAfter, .bytes = 300000}}},
        {"no-ranges", {.ignoreRange = true}, {{.kind = Fault::DropAfter, .bytes = 300000}}},
        {"wrong-ranges",
         {.wrongContentRange = true},
         {{.kind = Fault::DropAfter, .bytes = 300000}}},
        {"forbidden", {}, {{.kind = Fault::Status, .status = 403}}, "403 forbidden"},
        {"always-busy", {}, alwaysBusy, "503 service unavailable"},
    };
    FaultFileServer server;
    QString note = QStringLiteral("Ferrybox_Downloads");
    for (std::size_t i = 0; i < rows.size(); ++i) {
        FaultFileServer::File file = rows[i].file;
        file.content = content(size, int(i));
        server.addFile(rows[i].name, file);
        server.queueFaults(rows[i].name, rows[i].faults);
        note += "\n" + server.url(rows[i].name);
    }
    const std::string key = account_->create(note);

    QString err;
    EXPECT_EQ(runOnce(&err, 3), 1) << err.toStdString();
    const QString text = account_->text(key);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const FaultRow& row = rows[i];
        SCOPED_TRACE(row.name);
        const QString link = server.url(row.name);
        if (row.failure) {
            EXPECT_TRUE(text.contains(QStringLiteral("\n# failed: %1: %2").arg(row.failure, link)))
                << text.toStdString();
            EXPECT_FALSE(QFile::exists(downloads() + "/" + row.name));
            continue;
        }
        EXPECT_FALSE(text.contains(link)) << text.toStdString();
        const QByteArray expected =
            QByteArray(row.name) == "changed" ? changed : content(size, int(i));
        EXPECT_TRUE(downloaded(row.name) == expected);
    }
    EXPECT_TRUE(partialFiles().isEmpty()) << partialFiles().join(", ").toStdString();
    EXPECT_TRUE(err.contains("download waits: " + server.url("busy") +
                             ": retrying in 1 s (The server answered 503 (service unavailable))"))
        << err.toStdString();

    // A dropped connection asks for the rest only, naming the file it began.
    const auto asked = [&](const QString& name) {
        std::vector<FaultFileServer::RequestSeen> seen;
        for (const auto& request : server.requests()) {
            if (request.path.endsWith(name))
                seen.push_back(request);
        }
        return seen;
    };
    const auto dropped = asked("dropped");
    ASSERT_GE(dropped.size(), 2u);
    for (std::size_t i = 1; i < dropped.size(); ++i) {
        EXPECT_TRUE(dropped[i].range.startsWith("bytes=") &&
                    !dropped[i].range.startsWith("bytes=0-"))
            << dropped[i].range.toStdString();
        EXPECT_FALSE(dropped[i].ifRange.isEmpty());
    }
    // What was on its way when the line dropped is all that comes twice.
    EXPECT_LE(server.bodyBytesSent("dropped"), size + size / 20);
    EXPECT_EQ(server.bodyBytesSent("changed"), 300000 + size) << "the changed file from its start";
}

// A large file from a server that caps each connection comes over several at once, each writing
// its part of the file; one that drops is made again for what it lacked. A server that answers
// ranges wrongly gets a single connection and still gives the whole file.
TEST_F(SurvivalTest, LargeFilesComeOverSeveralConnections) {
    const qint64 size = 40 << 20;
    FaultFileServer capped;
    capped.addFile("capped.bin", {.content = content(size, 1), .bytesPerSecond = 8 << 20});
    capped.queueFaults("capped.bin", {{.kind = Fault::DropAfter, .bytes = 12 << 20},
                                      {.kind = Fault::ResetAfter, .bytes = 1 << 20}});
    FaultFileServer wrong;
    wrong.addFile("wrong.bin", {.content = content(size, 2), .wrongContentRange = true});
    const std::string key =
        account_->create(QStringLiteral("Ferrybox_Downloads\n%1\n%2")
                             .arg(capped.url("capped.bin"), wrong.url("wrong.bin")));
    QString err;
    EXPECT_EQ(runOnce(&err), 0) << err.toStdString();
    EXPECT_TRUE(downloaded("capped.bin") == content(size, 1));
    EXPECT_TRUE(downloaded("wrong.bin") == content(size, 2));
    EXPECT_GE(capped.maxConcurrentConnections("capped.bin"), 4);
    int whole = 0;
    for (const auto& request : capped.requests())
        whole += request.range.isEmpty() ? 1 : 0;
    EXPECT_EQ(whole, 1) << "the file is never asked for from its start again";
    EXPECT_LE(capped.bodyBytesSent("capped.bin"), size + (2 << 20)) << "little fetched twice";
    EXPECT_EQ(account_->text(key), "Ferrybox_Downloads");
}

// An agent that ends in the middle (killed, or stopped as at logout) leaves its transfer for the
// next start, which asks only for what is missing and finishes it, once.
class ResumeTest : public SurvivalTest, public ::testing::WithParamInterface<int> {};

TEST_P(ResumeTest, NextStartGoesOnWithTheTransfer) {
    const qint64 size = 24 << 20;
    FaultFileServer server;
    server.addFile("film.bin", {.content = content(size, 3), .bytesPerSecond = 1 << 20});
    const std::string key =
        account_->create(QStringLiteral("Ferrybox_Downloads\n%1").arg(server.url("film.bin")));
    QProcess first;
    startAgent(first, false);
    ASSERT_TRUE(testsupport::waitUntil([&] { return server.bodyBytesSent("film.bin") > (8 << 20); },
                                       30000));
    ::kill(static_cast<pid_t>(first.processId()), GetParam());
    ASSERT_TRUE(first.waitForFinished(10000));
    EXPECT_EQ(account_->text(key), "Ferrybox_Downloads") << "the link was taken";
    ASSERT_EQ(partialFiles().size(), 1u);
    const std::size_t before = server.requests().size();
    // As if the agent had ended before it stored the note: the link is there still, and the
    // next start must not fetch it a second time beside the transfer it goes on with.
    ASSERT_TRUE(account_->update(key, "Ferrybox_Downloads\n" + server.url("film.bin")));

    QString err;
    EXPECT_EQ(runOnce(&err), 0) << err.toStdString();
    EXPECT_TRUE(downloaded("film.bin") == content(size, 3));
    EXPECT_TRUE(partialFiles().isEmpty());
    const auto requests = server.requests();
    ASSERT_GT(requests.size(), before);
    for (std::size_t i = before; i < requests.size(); ++i) {
        EXPECT_TRUE(requests[i].range.startsWith("bytes=") &&
                    !requests[i].range.startsWith("bytes=0-"))
            << requests[i].range.toStdString();
    }
    EXPECT_TRUE(err.contains("download finished: " + downloads() + "/film.bin"))
        << err.toStdString();
}

INSTANTIATE_TEST_SUITE_P(SurvivalTest, ResumeTest, ::testing::Values(SIGKILL, SIGTERM),
                         [](const auto& info) {
                             return info.param == SIGKILL ? "Killed" : "Stopped";
                         });

}  // namespace
