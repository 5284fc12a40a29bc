// SPDX-License-Identifier: GPL-3.0-or-later
// The real ferrybox binary, headless, with a temporary home, against the scripted service.
#include <gtest/gtest.h>
#include <httplib.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <chrono>
#include <csignal>
#include <mutex>

#include "platform/KCKeychainItem.h"
#include "tests/support/AgentEnvironment.h"
#include "tests/support/FixtureServer.h"
#include "tests/support/HungKeyring.h"
#include "tests/support/PrivateKeyring.h"
#include "tests/support/PrivateSessionBus.h"
#include "tests/support/Wait.h"

namespace {

using testsupport::FixtureServer;

struct RunResult {
    int exitCode = -1;
    QString out;
    QString err;
};

class HeadlessTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(home_.isValid());
        server_.on("POST", "/api/login", FixtureServer::respond(200, "token-xyz"));
        // A download note with nothing to fetch.
        server_.on(
            "GET", "/api/search",
            FixtureServer::respond(
                200,
                R"({"Response": {"Results": [{"key": "k", "content": "Ferrybox_Downloads"}]}})"));
        server_.on("POST", "/api/note", FixtureServer::respond(200, "k"));
    }

    QString binary() const { return qEnvironmentVariable("FERRYBOX_BUILD_DIR") + "/app/ferrybox"; }

    QProcessEnvironment environment() const {
        QProcessEnvironment env =
            testsupport::agentEnvironment(home_.path(), server_.baseUrl() + "/api");
        env.remove("DBUS_SESSION_BUS_ADDRESS");
        return env;
    }

    QString passwordFile(const QByteArray& content, QFile::Permissions permissions) {
        const QString path = home_.path() + "/password";
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(content);
        file.close();
        file.setPermissions(permissions);
        return path;
    }

    RunResult run(const QStringList& arguments, QProcessEnvironment env) {
        QProcess process;
        process.setProcessEnvironment(env);
        process.start(binary(), arguments);
        EXPECT_TRUE(process.waitForFinished(30000)) << "ferrybox did not finish";
        return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()),
                QString::fromUtf8(process.readAllStandardError())};
    }

    QString settingsText() const {
        QFile file(home_.path() + "/.config/Ferrybox/Ferrybox.conf");
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    }

    static constexpr auto kPrivate = QFile::ReadOwner | QFile::WriteOwner;

    QTemporaryDir home_;
    FixtureServer server_;
};

TEST_F(HeadlessTest, OnceLogsInChecksAndQuits) {
    const QString file = passwordFile("pa ss&word=1\nsecond line\n", kPrivate);
    const RunResult r =
        run({"--headless", "--once", "--email", "me+tag@example.org", "--password-file", file},
            environment());
    EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();

    // The password is the file's first line, and it never reaches the settings.
    ASSERT_EQ(server_.requests().size(), 3u) << "login, search, push";
    EXPECT_EQ(
        server_.requests()[0].body,
        QByteArray("email=me+tag@example.org&password=pa ss&word=1").toBase64().toStdString());
    const QString settings = settingsText();
    EXPECT_TRUE(settings.contains("token-xyz")) << settings.toStdString();
    EXPECT_FALSE(settings.contains("pa ss"));
}

TEST_F(HeadlessTest, PasswordFileFromTheEnvironment) {
    QProcessEnvironment env = environment();
    env.insert("FERRYBOX_PASSWORD_FILE", passwordFile("secret", kPrivate));
    const RunResult r = run({"--headless", "--once", "--email", "me@example.org"}, env);
    EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();
    ASSERT_GE(server_.requests().size(), 1u);
    EXPECT_EQ(server_.requests()[0].body,
              QByteArray("email=me@example.org&password=secret").toBase64().toStdString());
}

// Without a password file the keyring gives the stored address's password, as in the window.
TEST_F(HeadlessTest, PasswordFromTheKeyring) {
    ASSERT_TRUE(testsupport::PrivateKeyring::shared().isRunning());
    testsupport::PrivateKeyring::shared().clear();
    ASSERT_NE(KCGenericKeychainItem::addGenericKeychainItemForService("Ferrybox", "me@example.org",
                                                                      "from the keyring"),
              nullptr);
    QDir().mkpath(home_.path() + "/.config/Ferrybox");
    QFile settings(home_.path() + "/.config/Ferrybox/Ferrybox.conf");
    ASSERT_TRUE(settings.open(QIODevice::WriteOnly));
    settings.write("email=\"me@example.org\"\nshouldRememberPassword=\"yes\"\n");
    settings.close();
    QProcessEnvironment env = environment();
    env.insert("DBUS_SESSION_BUS_ADDRESS", qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS"));
    const RunResult r = run({"--headless", "--once"}, env);
    EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();
    ASSERT_GE(server_.requests().size(), 1u);
    EXPECT_EQ(
        server_.requests()[0].body,
        QByteArray("email=me@example.org&password=from the keyring").toBase64().toStdString());
}

TEST_F(HeadlessTest, FailedLoginSaysWhyAndExitsWithOne) {
    server_.on("POST", "/api/login", FixtureServer::respond(401, ""));
    const RunResult r = run({"--headless", "--email", "me@example.org", "--password-file",
                             passwordFile("wrong", kPrivate)},
                            environment());
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains("Error logging in to Simplenote.")) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains("Unknown login error. Check user name and password."));
    EXPECT_FALSE(r.err.contains("wrong"));
}

// Sends SIGTERM and expects the run to end at once as it should: normally, with status 0. What
// it said on standard error.
QString terminated(QProcess& process) {
    ::kill(static_cast<pid_t>(process.processId()), SIGTERM);
    EXPECT_TRUE(process.waitForFinished(10000));
    const QString err = QString::fromUtf8(process.readAllStandardError());
    EXPECT_EQ(process.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(process.exitCode(), 0) << err.toStdString();
    return err;
}

// Turned away for too many attempts, the account is not wrong: the run says how long it waits,
// stays, logs in again when the time is up and runs its check; so does a single check.
TEST_F(HeadlessTest, TooManyAttemptsWaitsAndLogsInAgain) {
    using Clock = std::chrono::steady_clock;
    for (const QStringList& mode : {QStringList{}, QStringList{"--once"}}) {
        SCOPED_TRACE(mode.join(' ').toStdString());
        server_.clearRequests();
        struct Logins {
            std::mutex mutex;
            std::vector<Clock::time_point> at;
        };
        auto logins = std::make_shared<Logins>();
        server_.on("POST", "/api/login",
                   [logins, answer = FixtureServer::sequence(
                                {FixtureServer::respond(429, "", {{"Retry-After", "1"}}),
                                 FixtureServer::respond(200, "token-xyz")})](
                       const httplib::Request& req, httplib::Response& res) {
                       std::lock_guard lock(logins->mutex);
                       logins->at.push_back(Clock::now());
                       answer(req, res);
                   });
        QProcess process;
        process.setProcessEnvironment(environment());
        process.start(binary(), QStringList{"--headless", "--email", "me@example.org",
                                            "--password-file", passwordFile("secret", kPrivate)} +
                                    mode);
        const auto checked = [&] {
            for (const auto& r : server_.requests())
                if (r.method == "POST" && r.path == "/api/note")
                    return true;
            return false;
        };
        testsupport::waitUntil([&] { return checked() || process.state() == QProcess::NotRunning; },
                               15000);
        ASSERT_TRUE(checked()) << "no check after the second login: "
                               << process.readAllStandardError().toStdString();
        QString err;
        if (mode.isEmpty()) {
            err = terminated(process);
        } else {
            ASSERT_TRUE(process.waitForFinished(10000));
            EXPECT_EQ(process.exitCode(), 0);
            err = QString::fromUtf8(process.readAllStandardError());
        }
        EXPECT_TRUE(err.contains("Error logging in to Simplenote.\ntoo many attempts: wait 1 s\n"))
            << err.toStdString();
        std::lock_guard lock(logins->mutex);
        ASSERT_EQ(logins->at.size(), 2u);
        EXPECT_GE(logins->at[1] - logins->at[0], std::chrono::milliseconds(900));
    }
}

struct RefusalCase {
    const char* name;
    QStringList arguments;
    bool withDisplay;
    int exitCode;
    const char* message;
};

class RefusalTest : public HeadlessTest, public ::testing::WithParamInterface<RefusalCase> {};

TEST_P(RefusalTest, ExplainsAndStops) {
    const RefusalCase& c = GetParam();
    QStringList arguments = c.arguments;
    for (QString& a : arguments)
        a.replace("@FILE@", home_.path() + "/password");
    passwordFile("secret", QFile::ReadOwner | QFile::WriteOwner | QFile::ReadOther);
    QProcessEnvironment env = environment();
    env.remove("DISPLAY");
    env.remove("WAYLAND_DISPLAY");
    env.remove("QT_QPA_PLATFORM");
    const RunResult r = run(arguments, env);
    EXPECT_EQ(r.exitCode, c.exitCode);
    EXPECT_TRUE(r.err.contains(c.message)) << r.err.toStdString();
    EXPECT_TRUE(server_.requests().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Headless, RefusalTest,
    ::testing::Values(RefusalCase{"NoDesktop", {}, false, 2, "desktop session"},
                      RefusalCase{"ReadablePasswordFile",
                                  {"--headless", "--email", "a@b.org", "--password-file", "@FILE@"},
                                  false,
                                  2,
                                  "can be read by other users"},
                      RefusalCase{
                          "NoAccount", {"--headless"}, false, 1, "no account to log in with"},
                      RefusalCase{"UnknownOption", {"--frobnicate"}, false, 2, "unknown argument"}),
    [](const auto& info) { return std::string(info.param.name); });

// SIGTERM (a logout, systemctl stop) ends a run at once, without the quit guard's question; the
// file that was coming in stays partial for the next start to finish.
TEST_F(HeadlessTest, TerminateSignalQuitsWithoutAskingAndKeepsThePartialFile) {
    server_.on("GET", "/big.bin", server_.stallMidBody(1000000, 1000));
    server_.on(
        "GET", "/api/search",
        FixtureServer::respond(
            200, R"({"Response": {"Results": [{"key": "k", "content": "Ferrybox_Downloads\n)" +
                     server_.baseUrl().toStdString() + R"(/big.bin"}]}})"));
    QProcess process;
    process.setProcessEnvironment(environment());
    process.start(binary(), {"--headless", "--email", "me@example.org", "--password-file",
                             passwordFile("secret", kPrivate)});
    ASSERT_TRUE(process.waitForStarted());
    const QDir folder(home_.path() + "/Downloads/Ferrybox");
    ASSERT_TRUE(testsupport::waitUntil(
        [&] { return folder.entryList({".*.part"}, QDir::Files | QDir::Hidden).size() == 1; },
        10000));
    EXPECT_FALSE(terminated(process).contains("alert:"));
    EXPECT_EQ(folder.entryList({".*.part"}, QDir::Files | QDir::Hidden).size(), 1);
}

// A SIGTERM in the first seconds, while start-up still waits for a keyring that never answers
// (its own bus, beside the test's keyring), ends the run as a later one does; it is not lost
// because no event loop ran yet to be ended.
TEST_F(HeadlessTest, TerminateSignalDuringStartUpQuits) {
    testsupport::PrivateSessionBus agentBus(false);
    testsupport::HungKeyring keyring(agentBus.address());
    ASSERT_TRUE(keyring.isRegistered());
    QProcessEnvironment env = environment();
    env.insert("DBUS_SESSION_BUS_ADDRESS", agentBus.address());
    QProcess process;
    process.setProcessEnvironment(env);
    process.start(binary(), {"--headless", "--email", "me@example.org"});
    ASSERT_TRUE(process.waitForStarted());
    // The agent catches SIGTERM from just before it asks the keyring for the password.
    const QString status = QString("/proc/%1/status").arg(process.processId());
    ASSERT_TRUE(testsupport::waitUntil(
        [&] {
            QFile file(status);
            const QByteArray text = file.open(QIODevice::ReadOnly) ? file.readAll() : "";
            const qsizetype at = text.indexOf("SigCgt:");
            return at >= 0 && (text.mid(at + 7, 17).trimmed().toULongLong(nullptr, 16) &
                               (1ull << (SIGTERM - 1)));
        },
        10000));
    terminated(process);
}

// The resolver, which the agent never calls, from the command line: its three lines, or the
// exception's kind and message.
TEST(ResolveVideoTest, PrintsTheThreeLinesOrWhatWentWrong) {
    FixtureServer pages;
    pages.on("GET", "/watch",
             FixtureServer::respond(200, "18|http:\\/\\/cdn.example\\/v," + std::string(600, '.') +
                                             "<meta name=\"title\" content=\"A &amp; B\">" +
                                             std::string(600, '.')));
    struct Case {
        QString link;
        int exitCode;
        QString out;
        QString err;  // a part of standard error
    };
    const Case cases[] = {
        {pages.baseUrl() + "/watch?v=1", 0, "http://cdn.example/v\nA & B\n18\n", ""},
        {QString("http://127.0.0.1:%1/watch").arg(FixtureServer::closedPort()), 1, "",
         "std::invalid_argument: "},
    };
    for (const Case& c : cases) {
        QProcess process;
        process.start(qEnvironmentVariable("FERRYBOX_BUILD_DIR") + "/app/ferrybox",
                      {"--resolve-video", c.link});
        ASSERT_TRUE(process.waitForFinished(30000));
        EXPECT_EQ(process.exitCode(), c.exitCode) << c.link.toStdString();
        EXPECT_EQ(QString::fromUtf8(process.readAllStandardOutput()), c.out);
        EXPECT_TRUE(QString::fromUtf8(process.readAllStandardError()).contains(c.err));
    }
}

}  // namespace
