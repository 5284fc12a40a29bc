// SPDX-License-Identifier: GPL-3.0-or-later
// The agent's own costs, in process: rebuilding the status menu with 20 downloads listed (it
// runs on every piece of every download), and one check of a note of 100 links against the real
// ferrybox-notes, from the search's answer until every transfer has begun and the rewritten note
// is stored. Then the pickup latency of the running agent (`ferrybox --headless`, a process of
// its own): from the answer of the POST that saves a link into the download note until the
// agent's "download begins:" line, with the check timer's interval at 10 minutes.
#include <benchmark/benchmark.h>

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdio>
#include <vector>

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

// Where the agent's executable is: beside the notes service's in the same build.
QString gAgentBinary;

// One exchange with the service, waited for; its status and body, and when its answer came.
struct Answer {
    int status = 0;
    QByteArray body;
    QByteArray modified;  // a note's Note-Modifydate
    qint64 at = 0;        // on the clock given
};

Answer exchange(QNetworkAccessManager& network, const QString& url, const QByteArray* body,
                const QElapsedTimer& clock) {
    QNetworkRequest request{QUrl(url)};
    request.setHeader(QNetworkRequest::ContentTypeHeader, "application/x-www-form-urlencoded");
    QNetworkReply* reply = body ? network.post(request, *body) : network.get(request);
    Answer answer;
    QObject::connect(reply, &QNetworkReply::finished, reply, [&answer, reply, &clock] {
        answer.at = clock.nsecsElapsed();
        answer.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        answer.body = reply->readAll();
        answer.modified = reply->rawHeader("Note-Modifydate");
    });
    waitFor([&answer] { return answer.at != 0; });
    reply->deleteLater();
    return answer;
}

// The agent, running headless with a home of its own, and the lines it writes.
class RunningAgent {
public:
    bool start(const QString& api, QElapsedTimer& clock) {
        QFile password(home_.path() + QStringLiteral("/password"));
        if (!password.open(QIODevice::WriteOnly))
            return false;
        password.write(kPassword.toUtf8() + "\n");
        password.close();
        password.setPermissions(QFile::ReadOwner | QFile::WriteOwner);
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("HOME"), home_.path());
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), home_.path() + QStringLiteral("/.config"));
        env.insert(QStringLiteral("FERRYBOX_API_URL"), api);
        // No desktop, no keyring: nothing but the agent's own work.
        env.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
        env.remove(QStringLiteral("FERRYBOX_PASSWORD_FILE"));
        process_.setProcessEnvironment(env);
        QObject::connect(&process_, &QProcess::readyReadStandardError, &process_, [this, &clock] {
            err_ += QString::fromUtf8(process_.readAllStandardError());
            if (!awaited_.isEmpty() && seenAt_ == 0 && err_.contains(awaited_))
                seenAt_ = clock.nsecsElapsed();
        });
        process_.start(gAgentBinary,
                       {QStringLiteral("--headless"), QStringLiteral("--email"), kEmail,
                        QStringLiteral("--password-file"), password.fileName()});
        return process_.waitForStarted() && waitFor([this] {
                   return err_.contains(QStringLiteral("Change events: listening"));
               });
    }
    ~RunningAgent() {
        process_.terminate();
        if (!process_.waitForFinished(5000)) {
            process_.kill();
            process_.waitForFinished(2000);
        }
    }
    // From now on, the moment this text shows.
    void await(const QString& text) {
        awaited_ = text;
        seenAt_ = err_.contains(text) ? -1 : 0;
    }
    qint64 seenAt() const { return seenAt_; }
    const QString& err() const { return err_; }

private:
    QTemporaryDir home_;
    QProcess process_;
    QString err_;
    QString awaited_;
    qint64 seenAt_ = 0;
};

void BM_PickupLatency(benchmark::State& state) {
    const QString api = qEnvironmentVariable("FERRYBOX_API_URL");
    QElapsedTimer clock;
    clock.start();
    QNetworkAccessManager network;
    const QByteArray credentials =
        QStringLiteral("email=%1&password=%2").arg(kEmail, kPassword).toUtf8().toBase64();
    const Answer login = exchange(network, api + QStringLiteral("/login"), &credentials, clock);
    const QString auth =
        QStringLiteral("auth=%1&email=%2").arg(QString::fromUtf8(login.body), kEmail);
    // The download note, made before the agent starts, so that its first check finds it.
    const QString term = QStringLiteral("Ferrybox_Downloads");
    const QByteArray bare = term.toUtf8().toBase64();
    const Answer made = exchange(network, api + QStringLiteral("/note?") + auth, &bare, clock);
    const QString note = api + QStringLiteral("/note?") + auth + QStringLiteral("&key=") +
                         QString::fromUtf8(made.body);
    const QByteArray created = exchange(network, note, nullptr, clock).modified;
    RunningAgent agent;
    // Its first check, at login, is over once the note it pushed back is stored: a link saved
    // before then could go under that push.
    if (login.status != 200 || made.status != 200 || !agent.start(api, clock) ||
        !waitFor([&] { return exchange(network, note, nullptr, clock).modified != created; })) {
        state.SkipWithError("the agent did not start listening");
        return;
    }
    const int closed = freePort();  // nothing listens there: each transfer begins, then fails
    std::vector<double> seconds;
    int run = 0;
    for (auto _ : state) {
        const QString link =
            QStringLiteral("http://127.0.0.1:%1/shared/file-%2.bin").arg(closed).arg(++run);
        agent.await(QStringLiteral("download begins: ") + link);
        const QByteArray text = (term + QLatin1Char('\n') + link).toUtf8().toBase64();
        const Answer saved = exchange(network, note, &text, clock);
        if (saved.status != 200 || !waitFor([&agent] { return agent.seenAt() != 0; })) {
            state.SkipWithError("the link was not fetched");
            return;
        }
        const double taken = std::max<qint64>(agent.seenAt() - saved.at, 0) / 1e9;
        state.SetIterationTime(taken);
        seconds.push_back(taken);
        // Quiet before the next link: the agent has pushed the note back without it.
        waitFor([&] { return exchange(network, note, nullptr, clock).body == term.toUtf8(); });
    }
    std::sort(seconds.begin(), seconds.end());
    if (!seconds.empty()) {
        const std::size_t half = seconds.size() / 2;
        const double median =
            seconds.size() % 2 ? seconds[half] : (seconds[half - 1] + seconds[half]) / 2;
        state.counters["median_ms"] = median * 1e3;
        state.counters["worst_ms"] = seconds.back() * 1e3;
    }
}
// Twenty links, one after another; median and worst beside the mean.
BENCHMARK(BM_PickupLatency)
    ->UseManualTime()
    ->Iterations(20)
    ->Repetitions(1)
    ->Unit(benchmark::kMillisecond);

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
    gAgentBinary = qEnvironmentVariable("FERRYBOX_BENCH_AGENT_BINARY");
    if (gAgentBinary.isEmpty())
        gAgentBinary = QFileInfo(binary).dir().filePath(QStringLiteral("../app/ferrybox"));
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
