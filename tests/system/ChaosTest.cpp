// SPDX-License-Identifier: GPL-3.0-or-later
// What is shared reaches the folder exactly once, whatever happens at the same time: the real
// `ferrybox --headless` and the real ferrybox-notes with a slow line between them and every
// device (a delaying proxy), several phones sharing links at random moments, a web page that
// saves the download note from a copy that is already out of date, and checks asked for at
// random moments (SIGUSR1, as "Check For Downloads Now") besides those the agent starts itself
// at login and at each change of the note. The notes are kept in a file, and in PostgreSQL.
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <atomic>
#include <chrono>
#include <random>
#include <thread>

#include "tests/support/AgentEnvironment.h"
#include "tests/support/DelayingProxy.h"
#include "tests/support/FixtureServer.h"
#include "tests/support/NotesAccount.h"
#include "tests/support/NotesServerProcess.h"
#include "tests/support/PostgresServer.h"
#include "tests/support/StopProcess.h"
#include "tests/support/Wait.h"

namespace {

using namespace std::chrono_literals;
using testsupport::FixtureServer;
using testsupport::waitUntil;

const QString kEmail = QStringLiteral("me@example.org");
const QString kPassword = QStringLiteral("secret words");
const QString kHeader = QStringLiteral("Ferrybox_Downloads");

constexpr int kLinks = 100;
constexpr int kPhones = 4;
// Of the links, those that the page adds by saving the whole note; the phones share the rest.
constexpr int kPageLinks = 20;

// Each file's bytes differ from every other's, in length and in content.
std::string content(int n) {
    std::string bytes(std::size_t(1500 + 97 * n), '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = char((i * 31 + std::size_t(n) * 7) % 251);
    return bytes;
}

std::string name(int n) {
    return "file-" + std::to_string(n) + ".bin";
}

// A device of the account as the web page is one: signed in with a cookie, every call marked
// as the page's own.
class PageClient {
public:
    explicit PageClient(int port) : client_("127.0.0.1", port) {
        client_.set_read_timeout(30, 0);
        auto res = client_.Post("/web/sign-in", headers(),
                                "email=" + QUrl::toPercentEncoding(kEmail).toStdString() +
                                    "&password=" + QUrl::toPercentEncoding(kPassword).toStdString(),
                                "application/x-www-form-urlencoded");
        if (res && res->status == 200) {
            static const QRegularExpression cookie(QStringLiteral("ferrybox_device=([^;]+)"));
            cookie_ = "ferrybox_device=" +
                      cookie.match(QString::fromStdString(res->get_header_value("Set-Cookie")))
                          .captured(1)
                          .toStdString();
        }
    }
    bool signedIn() const { return !cookie_.empty(); }

    // What the phone's share sheet does.
    bool share(const std::string& link) {
        auto res = client_.Post(
            "/web/append", headers(),
            "url=" + QUrl::toPercentEncoding(QString::fromStdString(link)).toStdString(),
            "application/x-www-form-urlencoded");
        return res && res->status == 200;
    }
    // Opens the note; its text and version.
    std::pair<QString, std::string> open(const std::string& key) {
        auto res = client_.Get(("/api/note?key=" + key).c_str(), headers());
        if (!res || res->status != 200)
            return {};
        return {QString::fromStdString(res->body), res->get_header_value("Note-Version")};
    }
    // Saves the note's text as the page's Save does, naming the version it was opened at.
    bool save(const std::string& key, const QString& text, const std::string& version) {
        httplib::Headers withBase = headers();
        withBase.emplace("Note-Base-Version", version);
        auto res = client_.Post(("/api/note?key=" + key).c_str(), withBase,
                                text.toUtf8().toBase64().toStdString(),
                                "application/x-www-form-urlencoded");
        return res && res->status == 200;
    }

private:
    httplib::Headers headers() const {
        httplib::Headers h{{"X-Ferrybox-Page", "1"}, {"Sec-Fetch-Site", "same-origin"}};
        if (!cookie_.empty())
            h.emplace("Cookie", cookie_);
        return h;
    }

    httplib::Client client_;
    std::string cookie_;
};

// Where the service keeps the notes: a SQLite file, or a database of a private PostgreSQL.
enum class Notes { InAFile, InPostgreSQL };

class ChaosTest : public ::testing::TestWithParam<Notes> {
protected:
    void SetUp() override {
        QString database;
        if (GetParam() == Notes::InPostgreSQL) {
            database = testsupport::PostgresServer::shared().newDatabase();
            ASSERT_FALSE(database.isEmpty())
                << testsupport::PostgresServer::shared().log().toStdString();
        }
        service_ = std::make_unique<testsupport::NotesServerProcess>(
            QStringList(), QProcessEnvironment(), database);
        ASSERT_TRUE(service_->isRunning()) << service_->log().toStdString();
        ASSERT_TRUE(service_->addUser(kEmail, kPassword));
        // Tens of milliseconds each way, for the agent and for every device.
        line_ = std::make_unique<testsupport::DelayingProxy>(service_->port(), 30ms);
        account_ = std::make_unique<testsupport::NotesAccount>(*service_, kEmail, kPassword);
        key_ = account_->create(kHeader);
        ASSERT_FALSE(key_.empty());
        QFile file(home_.path() + "/password");
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(kPassword.toUtf8() + "\n");
        file.setPermissions(QFile::ReadOwner | QFile::WriteOwner);
        for (int n = 0; n < kLinks; ++n)
            files_.on("GET", "/" + name(n), FixtureServer::respond(200, content(n)));
    }
    void TearDown() override { testsupport::stopProcess(agent_); }

    void startAgent() {
        agent_.setProcessEnvironment(
            testsupport::agentEnvironment(home_.path(), line_->baseUrl() + "/api"));
        agent_.start(
            qEnvironmentVariable("FERRYBOX_BUILD_DIR") + "/app/ferrybox",
            {"--headless", "--email", kEmail, "--password-file", home_.path() + "/password"});
        ASSERT_TRUE(agent_.waitForStarted());
    }
    std::string link(int n) const { return files_.baseUrl().toStdString() + "/" + name(n); }
    QString folder() const { return home_.path() + "/Downloads/Ferrybox"; }
    int downloaded() const {
        return int(QDir(folder()).entryList({"file-*.bin"}, QDir::Files).size());
    }
    bool noteHoldsALink() {
        const QString text = account_->text(key_);
        return text.isNull() || text.contains(QLatin1String("http"));
    }
    int logged(const QString& request) { return int(service_->log().count(request)); }
    // What the agent wrote to standard error so far.
    const QString& said() {
        agent_.setReadChannel(QProcess::StandardError);
        while (agent_.waitForReadyRead(20)) {
        }
        err_ += QString::fromUtf8(agent_.readAllStandardError());
        return err_;
    }

    QTemporaryDir home_;
    std::unique_ptr<testsupport::NotesServerProcess> service_;
    std::unique_ptr<testsupport::DelayingProxy> line_;
    FixtureServer files_;
    std::unique_ptr<testsupport::NotesAccount> account_;
    std::string key_;
    QProcess agent_;
    QString err_;
};

TEST_P(ChaosTest, EverySharedLinkIsDownloadedExactlyOnce) {
    startAgent();
    ASSERT_TRUE(waitUntil([&] { return said().contains("Change events: listening"); }, 15000))
        << err_.toStdString();
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));

    std::atomic<int> failures{0};
    std::atomic<bool> sharing{true};
    std::vector<std::thread> devices;
    const qint64 agentPid = agent_.processId();
    for (int phone = 0; phone < kPhones; ++phone) {
        devices.emplace_back([&, phone] {
            std::mt19937 random(seed + unsigned(phone));
            PageClient client(line_->port());
            for (int n = kPageLinks + phone; n < kLinks; n += kPhones) {
                std::this_thread::sleep_for(std::chrono::milliseconds(random() % 250));
                failures += client.signedIn() && client.share(link(n)) ? 0 : 1;
            }
        });
    }
    // The page: opened, a link typed in, saved a moment later from what it opened. Meanwhile
    // the agent took links out of the note and phones put others in.
    devices.emplace_back([&] {
        std::mt19937 random(seed + 100);
        PageClient page(line_->port());
        for (int n = 0; n < kPageLinks; ++n) {
            const auto [text, version] = page.open(key_);
            std::this_thread::sleep_for(std::chrono::milliseconds(50 + random() % 300));
            failures +=
                page.signedIn() && !text.isNull() &&
                        page.save(key_, text + "\n" + QString::fromStdString(link(n)), version)
                    ? 0
                    : 1;
        }
    });
    // "Check For Downloads Now", at any moment.
    std::thread checker([&] {
        std::mt19937 random(seed + 200);
        while (sharing) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100 + random() % 500));
            ::kill(pid_t(agentPid), SIGUSR1);
        }
    });
    for (std::thread& device : devices)
        device.join();
    sharing = false;
    checker.join();
    EXPECT_EQ(failures, 0);

    EXPECT_TRUE(waitUntil([&] { return downloaded() == kLinks && !noteHoldsALink(); }, 90000))
        << downloaded() << " files; the note: " << account_->text(key_).toStdString();
    // One more check, to be sure that nothing is started again afterwards.
    const int searches = logged("GET /api/search");
    ::kill(pid_t(agentPid), SIGUSR1);
    EXPECT_TRUE(waitUntil([&] { return logged("GET /api/search") > searches; }, 15000));
    EXPECT_TRUE(waitUntil([&] { return !noteHoldsALink(); }, 15000));
    EXPECT_TRUE(waitUntil(
        [&] { return said().count("download begins") == said().count("download finished"); },
        15000));

    std::map<std::string, int> fetched;
    for (const auto& request : files_.requests())
        ++fetched[request.path];
    for (int n = 0; n < kLinks; ++n) {
        EXPECT_EQ(fetched["/" + name(n)], 1) << name(n);
        QFile file(folder() + "/" + QString::fromStdString(name(n)));
        EXPECT_TRUE(file.open(QIODevice::ReadOnly) && file.readAll().toStdString() == content(n))
            << name(n);
    }
    EXPECT_EQ(err_.count("download begins"), kLinks) << err_.toStdString();
    EXPECT_FALSE(err_.contains("download failed")) << err_.toStdString();
    EXPECT_EQ(account_->text(key_), kHeader);
    EXPECT_EQ(agent_.state(), QProcess::Running);
}

INSTANTIATE_TEST_SUITE_P(Notes, ChaosTest, ::testing::Values(Notes::InAFile, Notes::InPostgreSQL),
                         [](const auto& info) {
                             return info.param == Notes::InAFile ? "InAFile" : "InPostgreSQL";
                         });

}  // namespace
