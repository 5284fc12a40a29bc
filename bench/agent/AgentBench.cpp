// SPDX-License-Identifier: GPL-3.0-or-later
// The agent's own costs, in process: rebuilding the status menu with 20 downloads listed (it
// runs on every piece of every download), and one check of a note of 100 links against the real
// ferrybox-notes, from the search's answer until every transfer has begun and the rewritten note
// is stored.
#include <benchmark/benchmark.h>

#include <QApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <cstdio>

#include "client/LWSimplenoteCredentialStore.h"
#include "foundation/RunLoop.h"
#include "foundation/URLConnection.h"
#include "foundation/URLDownload.h"
#include "ui/MainInterface.h"

namespace {

const QString kEmail = QStringLiteral("bench@example.org");
const QString kPassword = QStringLiteral("secret");

int freePort() {
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

bool waitFor(const std::function<bool()>& done) {
    return foundation::RunLoop::runUntil(done, 20000);
}

void BM_UpdateMenu(benchmark::State& state) {
    MainInterface interface;
    AppController& controller = interface.controller();
    controller.awakeFromNib();
    controller.setAppRunning(true);
    foundation::URLDownloadDelegate ignoring;  // every event ignored
    AppController::DownloadList list;
    for (int i = 0; i < state.range(0); ++i) {
        // Never given the event loop while measured: listed, never answered.
        foundation::URLRequest request;
        request.url = QUrl(QStringLiteral("http://127.0.0.1:9/files/movie-%1.mkv").arg(i));
        auto download = FXDownload::startWithRequest(request, &ignoring);
        download->setDone(i * 1000003LL);
        download->setSize(700LL * 1048576);
        list.push_back(download);
    }
    controller.setDownloadList(list);
    for (auto _ : state) {
        controller.updateMenu();
        // What the event loop does after each rebuild, deleting the menu before included.
        QCoreApplication::sendPostedEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    for (const auto& download : list)
        download->cancel();
    controller.setDownloadList({});
}
BENCHMARK(BM_UpdateMenu)->Arg(20)->Unit(benchmark::kMicrosecond);

// The notes service, started once for the process (the API address is read once).
class NotesService {
public:
    bool start(const QString& binary) {
        const QString db = dir_.path() + QStringLiteral("/notes.db");
        QProcess add;
        add.start(binary, {QStringLiteral("add-user"), kEmail, QStringLiteral("--db"), db});
        add.write(kPassword.toUtf8() + "\n");
        add.closeWriteChannel();
        if (!add.waitForFinished(20000) || add.exitCode() != 0)
            return false;
        port_ = freePort();
        serve_.start(binary,
                     {QStringLiteral("serve"), QStringLiteral("--listen"),
                      QStringLiteral("127.0.0.1:%1").arg(port_), QStringLiteral("--db"), db});
        return waitFor([this] {
            QTcpSocket probe;
            probe.connectToHost(QStringLiteral("127.0.0.1"), static_cast<quint16>(port_));
            return probe.waitForConnected(100);
        });
    }
    ~NotesService() {
        serve_.terminate();
        if (!serve_.waitForFinished(5000)) {
            serve_.kill();
            serve_.waitForFinished(2000);
        }
    }
    QString api() const { return QStringLiteral("http://127.0.0.1:%1/api").arg(port_); }

private:
    QTemporaryDir dir_;
    QProcess serve_;
    int port_ = 0;
};

// Counts the transfers that have begun.
class BeginCounter : public DownloadReporter {
public:
    int begun = 0;
    void downloadBegan(const FXDownload&) override { ++begun; }
    void downloadProgressed(const FXDownload&) override {}
    void downloadFinished(const FXDownload&) override {}
    void downloadFailed(const FXDownload&, const foundation::Error&) override {}
};

// Stores a note of any length straight through the API (the client caps what it pushes).
void storeNote(const QString& text) {
    class Quiet : public foundation::URLConnectionDelegate {
        void connectionDidReceiveResponse(foundation::URLConnection*,
                                          const foundation::HTTPURLResponse&) override {}
        void connectionDidReceiveData(foundation::URLConnection*, const QByteArray&) override {}
        void connectionDidFailWithError(foundation::URLConnection*,
                                        const foundation::Error&) override {}
        void connectionDidFinishLoading(foundation::URLConnection*) override {}
    };
    foundation::URLRequest request;
    request.url = QUrl(qEnvironmentVariable("FERRYBOX_API_URL") +
                       QStringLiteral("/note?auth=%1&email=%2")
                           .arg(LWSimplenoteCredentialStore::authToken(), kEmail));
    request.httpMethod = "POST";
    request.httpBody = text.toUtf8().toBase64();
    foundation::URLConnection::create(request, std::make_shared<Quiet>())->start();
    waitFor([] { return foundation::URLConnection::inFlightCount() == 0; });
}

void BM_CheckOfAHundredLinks(benchmark::State& state) {
    MainInterface interface;
    AppController& controller = interface.controller();
    BeginCounter counter;
    controller.setDownloadReporter(&counter);
    controller.setAccountOverride(kEmail, kPassword);
    controller.awakeFromNib();
    if (!waitFor([&] { return controller.appRunning(); })) {
        state.SkipWithError("could not log in");
        return;
    }
    waitFor([] { return foundation::URLConnection::inFlightCount() == 0; });

    QString note = QStringLiteral("Ferrybox_Downloads");
    const int closed = freePort();  // nothing listens there: every transfer begins, then fails
    for (int i = 0; i < 100; ++i)
        note += QStringLiteral("\nhttp://127.0.0.1:%1/files/part-%2.bin").arg(closed).arg(i);

    QElapsedTimer clock;
    qint64 answered = 0;
    qint64 begun = 0;
    qint64 stored = 0;
    auto& center = foundation::NotificationCenter::defaultCenter();
    center.addObserver(
        &clock, QStringLiteral("LWSimplenoteSearchPullFromRemoteSuccessNotification"), nullptr,
        [&](const foundation::Notification&) { answered = clock.nsecsElapsed(); });
    center.addObserver(&clock, QStringLiteral("LWSimplenotePushToRemoteSuccessNotification"),
                       nullptr,
                       [&](const foundation::Notification&) { stored = clock.nsecsElapsed(); });
    for (auto _ : state) {
        storeNote(note);
        counter.begun = 0;
        answered = begun = stored = 0;
        clock.start();
        controller.searchForNote();
        waitFor([&] {
            if (counter.begun == 100 && begun == 0)
                begun = clock.nsecsElapsed();
            return begun != 0 && stored != 0;
        });
        state.SetIterationTime((std::max(begun, stored) - answered) / 1e9);
        waitFor([] {
            return foundation::URLDownload::inFlightCount() == 0 &&
                   foundation::URLConnection::inFlightCount() == 0;
        });
    }
    center.removeObserver(&clock);
}
BENCHMARK(BM_CheckOfAHundredLinks)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    QTemporaryDir home;
    qputenv("HOME", home.path().toUtf8());
    qputenv("XDG_CONFIG_HOME", (home.path() + "/.config").toUtf8());
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    NotesService notes;
    const QString binary = qEnvironmentVariable("FERRYBOX_BENCH_NOTES_BINARY");
    if (binary.isEmpty() || !notes.start(binary)) {
        std::fprintf(stderr, "agent_bench: set FERRYBOX_BENCH_NOTES_BINARY to ferrybox-notes\n");
        return 2;
    }
    qputenv("FERRYBOX_API_URL", notes.api().toUtf8());
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
