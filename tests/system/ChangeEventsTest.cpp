// SPDX-License-Identifier: GPL-3.0-or-later
// The running agent hears of a link saved into the download note at once: the real
// `ferrybox --headless` (interval 10 minutes) against the real ferrybox-notes and its change
// events. A service without events, and a stream that the service's restart cuts, leave the
// agent working as before: no alert, no turning off.
#include <gtest/gtest.h>
#include <httplib.h>

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <memory>

#include "tests/support/AgentEnvironment.h"
#include "tests/support/FixtureServer.h"
#include "tests/support/NotesAccount.h"
#include "tests/support/NotesServerProcess.h"
#include "tests/support/NotificationRecorder.h"
#include "tests/support/StopProcess.h"
#include "tests/support/Wait.h"

namespace {

using testsupport::FixtureServer;
using testsupport::waitUntil;

const QString kEmail = QStringLiteral("me@example.org");
const QString kPassword = QStringLiteral("secret words");
const QString kHeader = QStringLiteral("Ferrybox_Downloads");
// What the desktop is told at the start of every check.
const QString kChecking = QStringLiteral("Checking for new downloads");

class ChangeEventsTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(service_.isRunning());
        ASSERT_TRUE(service_.addUser(kEmail, kPassword));
        ASSERT_TRUE(notifications_.isRegistered());
        account_ = std::make_unique<testsupport::NotesAccount>(service_, kEmail, kPassword);
        QFile file(home_.path() + "/password");
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(kPassword.toUtf8() + "\n");
        file.setPermissions(QFile::ReadOwner | QFile::WriteOwner);
        files_.on("GET", "/files/first.bin", FixtureServer::respond(200, "first"));
        files_.on("GET", "/files/second.bin", FixtureServer::respond(200, "second"));
        key_ = account_->create(kHeader);
        ASSERT_FALSE(key_.empty());
    }
    void TearDown() override { testsupport::stopProcess(agent_); }

    // The agent, running until the test ends, against this API address.
    void startAgent(const QString& apiUrl) {
        agent_.setProcessEnvironment(testsupport::agentEnvironment(home_.path(), apiUrl));
        QObject::connect(&agent_, &QProcess::readyReadStandardError,
                         [this] { err_ += QString::fromUtf8(agent_.readAllStandardError()); });
        agent_.start(
            qEnvironmentVariable("FERRYBOX_BUILD_DIR") + "/app/ferrybox",
            {"--headless", "--email", kEmail, "--password-file", home_.path() + "/password"});
        ASSERT_TRUE(agent_.waitForStarted());
    }
    // Waits until the agent has written this text on standard error.
    bool said(const QString& text, int timeoutMs) {
        return waitUntil([&] { return err_.contains(text); }, timeoutMs);
    }
    // The agent is listening, and its first check (at login) is over: the note it pushed back is
    // stored. A link saved before that could be lost under that push, which rewrites the note
    // from what the check's search found.
    void waitForTheFirstCheck() {
        ASSERT_TRUE(said("Change events: listening", 10000)) << err_.toStdString();
        ASSERT_TRUE(waitUntil([&] { return checks() == 1; }, 10000));
        // The service logs each request: the test's own POST that made the note, the agent's.
        ASSERT_TRUE(waitUntil([&] { return service_.log().count("POST /api/note ") == 2; }, 10000))
            << service_.log().toStdString();
    }
    int checks() const {
        int n = 0;
        for (const auto& notification : notifications_.notifications())
            n += notification.body == kChecking ? 1 : 0;
        return n;
    }
    QString link(const char* name) const { return files_.baseUrl() + "/files/" + name; }
    // What a phone does: the link as a new line of the download note.
    void share(const QString& url) { ASSERT_TRUE(account_->update(key_, kHeader + "\n" + url)); }
    // The agent took every link out of the note.
    bool noteEmptied() {
        return waitUntil([&] { return account_->text(key_) == kHeader; }, 10000);
    }
    void expectRunningWithoutAlert() {
        EXPECT_EQ(agent_.state(), QProcess::Running);
        EXPECT_FALSE(err_.contains("alert: ")) << err_.toStdString();
    }

    testsupport::NotificationRecorder notifications_;
    QTemporaryDir home_;
    testsupport::NotesServerProcess service_;
    FixtureServer files_;
    std::unique_ptr<testsupport::NotesAccount> account_;
    std::string key_;
    QProcess agent_;
    QString err_;
};

// The agent's own push of the rewritten note is a change too, but a note without links starts
// nothing: one shared link, one check beyond the timer's first, however long one waits.
TEST_F(ChangeEventsTest, OneSharedLinkMakesExactlyOneMoreCheck) {
    startAgent(service_.apiUrl());
    waitForTheFirstCheck();

    share(link("first.bin"));
    // The next tick of the timer is ten minutes away; the bound here is only generous.
    ASSERT_TRUE(said("download begins: " + link("first.bin"), 5000)) << err_.toStdString();
    EXPECT_FALSE(waitUntil([&] { return checks() > 2; }, 30000));
    EXPECT_EQ(checks(), 2);
    EXPECT_EQ(account_->text(key_), kHeader);
    EXPECT_EQ(err_.count("download begins: "), 1) << err_.toStdString();
    expectRunningWithoutAlert();
}

// A service without change events (answering 404 for them, as older ferrybox-notes does): the
// agent checks at login and by its timer exactly as before, asks for events once only, and says
// so in one line, without an alert.
TEST_F(ChangeEventsTest, ServiceWithoutEventsIsUsedAsBefore) {
    // Everything but the events passes to the real service.
    FixtureServer older;
    const int port = service_.port();
    const auto forward = [port](const httplib::Request& req, httplib::Response& res) {
        httplib::Client notes("127.0.0.1", port);
        const auto answer = req.method == "POST" ? notes.Post(req.target.c_str(), req.body,
                                                              "application/x-www-form-urlencoded")
                                                 : notes.Get(req.target.c_str());
        if (!answer) {
            res.status = 502;
            return;
        }
        res.status = answer->status;
        for (const auto& [name, value] : answer->headers) {
            if (name.rfind("Note-", 0) == 0)
                res.set_header(name, value);
        }
        res.set_content(answer->body, answer->get_header_value("Content-Type"));
    };
    older.on("POST", "/api/login", forward);
    older.on("GET", "/api/search", forward);
    older.on("GET", "/api/note", forward);
    older.on("POST", "/api/note", forward);
    const auto eventRequests = [&older] {
        int n = 0;
        for (const auto& r : older.requests())
            n += r.path == "/api/events" ? 1 : 0;
        return n;
    };
    ASSERT_TRUE(account_->update(key_, kHeader + "\n" + link("first.bin")));

    startAgent(older.baseUrl() + "/api");
    EXPECT_TRUE(said("download begins: " + link("first.bin"), 10000)) << err_.toStdString();
    EXPECT_TRUE(said("Change events: the service offers none; checking at the interval", 10000));
    EXPECT_TRUE(noteEmptied());
    // Time for a few tries, had it gone on asking.
    EXPECT_FALSE(waitUntil([&] { return eventRequests() > 1; }, 3000));
    EXPECT_EQ(eventRequests(), 1);
    EXPECT_EQ(err_.count("Change events: "), 1) << err_.toStdString();
    expectRunningWithoutAlert();
}

// The service restarts under a live stream: the agent opens it again by itself, a link saved
// while it was away is fetched once it is back, and so is a later one.
TEST_F(ChangeEventsTest, LostStreamIsOpenedAgain) {
    startAgent(service_.apiUrl());
    waitForTheFirstCheck();

    ASSERT_TRUE(service_.restart());
    share(link("first.bin"));
    EXPECT_TRUE(said("download begins: " + link("first.bin"), 15000)) << err_.toStdString();
    EXPECT_TRUE(err_.contains("Change events: stream lost (")) << err_.toStdString();
    EXPECT_TRUE(err_.contains("Change events: listening again")) << err_.toStdString();
    ASSERT_TRUE(noteEmptied());

    share(link("second.bin"));
    EXPECT_TRUE(said("download begins: " + link("second.bin"), 5000)) << err_.toStdString();
    expectRunningWithoutAlert();
}

}  // namespace
