// SPDX-License-Identifier: GPL-3.0-or-later
// File transfers: the events in order, the name a server may suggest and the names it may not,
// the ways a transfer fails that the end-to-end tests cannot reach quickly, and never a partial
// file left behind. (The real agent meets every other failure in tests/system.)
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QNetworkReply>
#include <QTemporaryDir>
#include <functional>

#include "foundation/PartialFiles.h"
#include "foundation/URLDownload.h"
#include "tests/foundation/RecordingDelegate.h"
#include "tests/support/FixtureServer.h"
#include "tests/support/Wait.h"

namespace {

using foundation::URLDownload;
using foundationtest::Recorder;
using testsupport::FixtureServer;
using testsupport::waitUntil;

const QString kNetwork = QStringLiteral("QNetworkReplyErrorDomain");
const QString kDownload = QStringLiteral("URLDownloadErrorDomain");

QString fail(const QString& domain, int code) {
    return QStringLiteral("fail %1 %2").arg(domain).arg(code);
}

struct TransferCase {
    const char* name;
    std::function<void(FixtureServer&)> routes;
    QString url;  // "@" stands for the server's address
    QStringList events;
    QStringList files;  // what the folder holds afterwards, as NAME=CONTENT or NAME
    std::function<void(Recorder&, const QString& folder)> prepare = nullptr;
    double timeout = 60;
    double patience = 0;  // seconds without progress before a transfer gives up
};

void PrintTo(const TransferCase& c, std::ostream* os) {
    *os << c.name;
}

class TransferTest : public ::testing::TestWithParam<TransferCase> {};

TEST_P(TransferTest, EventsAndWhatIsLeftInTheFolder) {
    const TransferCase& c = GetParam();
    FixtureServer server;
    c.routes(server);
    QTemporaryDir dir;
    Recorder recorder;
    recorder.folder = dir.path() + "/in";
    ASSERT_TRUE(QDir().mkpath(recorder.folder));
    if (c.prepare)
        c.prepare(recorder, recorder.folder);

    foundation::URLRequest request;
    request.url = QUrl(QString(c.url).replace("@", server.baseUrl()), QUrl::StrictMode);
    request.timeoutInterval = c.timeout;
    URLDownload::setRetryTimings({0.05, 0.2, c.patience});
    URLDownload::start(request, &recorder);
    ASSERT_TRUE(waitUntil([&] { return recorder.over(); }, 10000))
        << recorder.events.join(" | ").toStdString();
    testsupport::settle(50);
    // Whether the first bytes of a transfer that then fails were read first is up to timing.
    if (!c.events.contains("data") && c.events.last().startsWith("fail"))
        recorder.events.removeAll("data");
    EXPECT_EQ(recorder.events, c.events);
    EXPECT_EQ(URLDownload::inFlightCount(), 0);

    // What the next start sweeps away is never a finished file.
    foundation::PartialFiles::removeStale(recorder.folder);
    QStringList files;
    const QDir folder(recorder.folder);
    for (const QString& name : folder.entryList(QDir::Files | QDir::Hidden)) {
        QFile file(folder.filePath(name));
        const bool small = file.size() < 100 && file.open(QIODevice::ReadOnly);
        files << (small ? name + "=" + QString::fromUtf8(file.readAll()) : name);
    }
    EXPECT_EQ(files, c.files);
}

auto serve(const std::string& path, int status, const std::string& body,
           std::multimap<std::string, std::string> headers = {}) {
    return
        [=](FixtureServer& s) { s.on("GET", path, FixtureServer::respond(status, body, headers)); };
}

auto disposition(const std::string& value) {
    return serve("/get", 200, "body", {{"Content-Disposition", value}});
}

// As long as a file system allows a name: its partial file's name has to be shortened.
const QString kLongest = QString("ü").repeated(101) + QString("€").repeated(16) + "x.txt";
// Names of partial files of this machine and of an older Ferrybox, from a process id that no
// system gives out, so that the sweep after the transfer would take them.
const QString kPartialShaped = ".x." + foundation::PartialFiles::hostTag() + "-999999999-4.part";
const QString kOlderPartialShaped = ".x.999999999-4.part";

INSTANTIATE_TEST_SUITE_P(
    Foundation, TransferTest,
    ::testing::Values(
        TransferCase{"PlainFile",
                     serve("/files/a.txt", 200, "hello"),
                     "@/files/a.txt",
                     {"begin", "response 200 5", "destination a.txt", "data", "finish 5"},
                     {"a.txt=hello"}},
        TransferCase{"EmptyFile",
                     serve("/e", 200, ""),
                     "@/e",
                     {"begin", "response 200 0", "destination e", "finish 0"},
                     {"e="}},
        TransferCase{
            "NameFromTheFinalAddress",
            [](FixtureServer& s) {
                s.on("GET", "/go", FixtureServer::redirectTo("/files/report%20final.pdf"));
                s.on("GET", "/files/report final.pdf", FixtureServer::respond(200, "pdf"));
            },
            "@/go",
            {"begin", "response 200 3", "destination report final.pdf", "data", "finish 3"},
            {"report final.pdf=pdf"}},
        TransferCase{"ExtendedNameFirst",
                     disposition("attachment; filename=\"plain.txt\"; "
                                 "filename*=UTF-8''na%C3%AFve%20file.txt"),
                     "@/get",
                     {"begin", "response 200 4", "destination naïve file.txt", "data", "finish 4"},
                     {"naïve file.txt=body"}},
        TransferCase{"QuotedNameWithSemicolon",
                     disposition("attachment; filename=\"a;b.txt\""),
                     "@/get",
                     {"begin", "response 200 4", "destination a;b.txt", "data", "finish 4"},
                     {"a;b.txt=body"}},
        TransferCase{"DotsAndControlsAreNoName",
                     disposition("attachment; filename=\"..\""),
                     "@/get",
                     {"begin", "response 200 4", "destination get", "data", "finish 4"},
                     {"get=body"}},
        TransferCase{"LongestName",
                     disposition("attachment; filename*=UTF-8''" +
                                 QUrl::toPercentEncoding(kLongest).toStdString()),
                     "@/get",
                     {"begin", "response 200 4", "destination " + kLongest, "data", "finish 4"},
                     {kLongest + "=body"}},
        TransferCase{"NameOfAPartialFile",
                     disposition("attachment; filename=\"" + kPartialShaped.toStdString() + "\""),
                     "@/get",
                     {"begin", "response 200 4", "destination _" + kPartialShaped.mid(1), "data",
                      "finish 4"},
                     {"_" + kPartialShaped.mid(1) + "=body"}},
        TransferCase{
            "NameOfAnOlderPartialFile",
            disposition("attachment; filename=\"" + kOlderPartialShaped.toStdString() + "\""),
            "@/get",
            {"begin", "response 200 4", "destination _" + kOlderPartialShaped.mid(1), "data",
             "finish 4"},
            {"_" + kOlderPartialShaped.mid(1) + "=body"}},
        TransferCase{"NoNameAtAll",
                     serve("/", 200, "<html>"),
                     "@/",
                     {"begin", "response 200 6", "destination index.html", "data", "finish 6"},
                     {"index.html=<html>"}},
        TransferCase{// Never again, however patient the transfer.
                     "NotFound",
                     serve("/x", 404, "gone"),
                     "@/x",
                     {"begin", fail(kDownload, 404)},
                     {},
                     nullptr,
                     60,
                     600},
        TransferCase{"LineThatIsNoUrl",
                     [](FixtureServer&) {},
                     "not a link at all",
                     {fail(kDownload, foundation::URLDownloadErrorUnsupportedURL)},
                     {}},
        TransferCase{"SilentBeforeAnswering",
                     [](FixtureServer& s) { s.on("GET", "/x", s.stall()); },
                     "@/x",
                     {"begin", fail(kNetwork, QNetworkReply::TimeoutError)},
                     {},
                     nullptr,
                     1.0},
        TransferCase{"SilentMidBody",
                     [](FixtureServer& s) { s.on("GET", "/x", s.stallMidBody(1000, 10)); },
                     "@/x",
                     {"begin", "response 200 1000", "destination x", "data",
                      fail(kNetwork, QNetworkReply::TimeoutError)},
                     {},
                     nullptr,
                     1.0},
        // A server that is busy for a moment, or a line that goes silent, costs a wait; the
        // delegate still sees one transfer. This server ignores ranges: the file starts over.
        TransferCase{"BusyThenServed",
                     [](FixtureServer& s) {
                         s.on("GET", "/x",
                              FixtureServer::sequence(
                                  {FixtureServer::respond(503, "busy", {{"Retry-After", "0"}}),
                                   FixtureServer::respond(429, "slow down"),
                                   FixtureServer::respond(200, "body")}));
                     },
                     "@/x",
                     {"begin", "response 200 4", "destination x", "data", "finish 4"},
                     {"x=body"},
                     nullptr,
                     60,
                     5},
        TransferCase{"SilentMidBodyThenServed",
                     [](FixtureServer& s) {
                         s.on("GET", "/x",
                              FixtureServer::sequence(
                                  {s.stallMidBody(20, 10),
                                   FixtureServer::respond(200, "abcdefghijklmnopqrst")}));
                     },
                     "@/x",
                     {"begin", "response 200 20", "destination x", "data", "finish 20"},
                     {"x=abcdefghijklmnopqrst"},
                     nullptr,
                     0.5,
                     5},
        TransferCase{"FolderIsAFile",
                     serve("/x", 200, "body"),
                     "@/x",
                     {"begin", "response 200 4", "destination x",
                      fail(kDownload, foundation::URLDownloadErrorCannotWrite)},
                     {},
                     [](Recorder& r, const QString&) {
                         r.folder += "/plain";
                         QFile(r.folder).open(QIODevice::WriteOnly);
                     }},
        TransferCase{"ExistingFileReplaced",
                     serve("/x", 200, "new"),
                     "@/x",
                     {"begin", "response 200 3", "destination x", "data", "finish 3"},
                     {"x=new"},
                     [](Recorder&, const QString& folder) {
                         QFile old(folder + "/x");
                         old.open(QIODevice::WriteOnly);
                         old.write("old");
                     }},
        TransferCase{"ExistingFileKept",
                     serve("/x", 200, "new"),
                     "@/x",
                     {"begin", "response 200 3", "destination x", "data",
                      fail(kDownload, foundation::URLDownloadErrorDestinationExists)},
                     {"x=old"},
                     [](Recorder& r, const QString& folder) {
                         r.allowOverwrite = false;
                         QFile old(folder + "/x");
                         old.open(QIODevice::WriteOnly);
                         old.write("old");
                     }}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(URLDownloadTest, LargeBodyArrivesWholeInFewPieces) {
    FixtureServer server;
    std::string body(5 * 1024 * 1024 + 7, '\0');
    for (std::size_t i = 0; i < body.size(); ++i)
        body[i] = static_cast<char>(i * 7 % 251);
    server.on("GET", "/big.bin", FixtureServer::respond(200, body));
    QTemporaryDir dir;
    int dataEvents = 0;
    struct Counting : Recorder {
        int* count;
        void downloadDidReceiveDataOfLength(URLDownload* d, quint64 n) override {
            ++*count;
            Recorder::downloadDidReceiveDataOfLength(d, n);
        }
    } counting;
    counting.folder = dir.path();
    counting.count = &dataEvents;
    foundation::URLRequest request;
    request.url = QUrl(server.baseUrl() + "/big.bin");
    URLDownload::start(request, &counting);
    ASSERT_TRUE(waitUntil([&] { return counting.over(); }, 20000));
    EXPECT_EQ(counting.events.last(), QStringLiteral("finish %1").arg(body.size()));
    QFile file(dir.path() + "/big.bin");
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_TRUE(file.readAll() == QByteArray::fromStdString(body));
    EXPECT_LE(dataEvents, 64) << "one data event per read, not per network packet";
}

// One transfer cancelled, or every transfer of a process that is about to end.
class CancelTest : public ::testing::TestWithParam<bool> {};

TEST_P(CancelTest, StopsSilentlyAndLeavesNothing) {
    FixtureServer server;
    server.on("GET", "/x", server.stallMidBody(100000, 1000));
    QTemporaryDir dir;
    Recorder recorder;
    recorder.folder = dir.path();
    foundation::URLRequest request;
    request.url = QUrl(server.baseUrl() + "/x");
    URLDownload::setRetryTimings({});
    auto download = URLDownload::start(request, &recorder);
    ASSERT_TRUE(waitUntil([&] { return recorder.events.contains("data"); }));
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden).size(), 1)
        << "the partial file";
    if (GetParam()) {
        URLDownload::cancelAll();
    } else {
        download->cancel();
    }
    server.releaseStalled();
    testsupport::settle(200);
    EXPECT_EQ(recorder.events,
              (QStringList{"begin", "response 200 100000", "destination x", "data"}));
    EXPECT_TRUE(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden).isEmpty());
    EXPECT_EQ(URLDownload::inFlightCount(), 0);
}

INSTANTIATE_TEST_SUITE_P(URLDownloadTest, CancelTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "All" : "One"; });

}  // namespace
