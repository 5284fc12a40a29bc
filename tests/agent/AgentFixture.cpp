// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/agent/AgentFixture.h"

#include <httplib.h>

#include <QProcess>

#include "Classes/TWJSON/TWJSON.h"
#include "foundation/URLConnection.h"
#include "foundation/URLDownload.h"
#include "tests/support/PrivateKeyring.h"
#include "tests/support/Wait.h"

namespace agenttest {

testsupport::FixtureServer& server() {
    return testsupport::FixtureServer::sharedService();
}

QString installedYtDlpVersion() {
    static const QString version = [] {
        QProcess process;
        process.start(QStringLiteral("/usr/bin/yt-dlp"), {QStringLiteral("--version")});
        process.waitForFinished(10000);
        return QString::fromUtf8(process.readAllStandardOutput()).trimmed();
    }();
    return version;
}

void AgentTest::SetUp() {
    ASSERT_TRUE(testsupport::PrivateKeyring::shared().isRunning());
    testsupport::PrivateKeyring::shared().clear();
    server().clearRoutes();
    server().clearRequests();
    answerSearch("Ferrybox_Downloads");
    home_ = std::make_unique<testsupport::TempHome>();
    // Every start-up would run yt-dlp, which takes a fifth of a second or more: only the tests of
    // video pages turn them on.
    setDefault("videoPageFormat", "off");
    interface_ = std::make_unique<MainInterface>();
    previousPresenter_ = foundation::AlertPanel::setPresenter([this](const foundation::Alert& a) {
        alerts.push_back(a);
        return alertAnswer;
    });
}

void AgentTest::TearDown() {
    // Whatever is still under way ends inside the test.
    server().releaseStalled();
    EXPECT_TRUE(testsupport::waitUntil([] {
        return foundation::URLConnection::inFlightCount() == 0 &&
               foundation::URLDownload::inFlightCount() == 0;
    }));
    foundation::AlertPanel::setPresenter(previousPresenter_);
    foundation::URLDownload::setVideoPageTool(std::nullopt);
    interface_.reset();
    home_.reset();
}

void AgentTest::setDefault(const QString& key, const QVariant& value) {
    auto& defaults = foundation::UserDefaults::standardUserDefaults();
    defaults.setObject(value, key);
    defaults.synchronize();
}

QVariant AgentTest::storedDefault(const QString& key) {
    // Read the file as a later start would, not the live store.
    return foundation::UserDefaults(foundation::UserDefaults::defaultFilePath()).objectForKey(key);
}

void AgentTest::answerLogin(const std::string& body) {
    server().on("POST", "/api/login", testsupport::FixtureServer::respond(200, body));
}

namespace {

// A search's answer holding one note of this text under this key, or none for a null text.
std::string searchAnswer(const QString& key, const QString& text) {
    TWJsonValue results = TWJsonValue::array();
    if (!text.isNull()) {
        TWJsonValue note = TWJsonValue::dictionary();
        note.insert("key", TWJsonValue::string(key));
        note.insert("content", TWJsonValue::string(text));
        results.append(note);
    }
    TWJsonValue response = TWJsonValue::dictionary();
    response.insert("totalRecords", TWJsonValue::number(qint64(results.count())));
    response.insert("Results", results);
    TWJsonValue answer = TWJsonValue::dictionary();
    answer.insert("Response", response);
    return JSONRepresentation(answer).toStdString();
}

}  // namespace

void AgentTest::answerSearch(const QString& text) {
    downloadNote_ = text;
    server().on("GET", "/api/search", [this](const httplib::Request& req, httplib::Response& res) {
        const bool log = req.get_param_value("query") == "Ferrybox_Download_Log";
        res.status = log ? logSearchStatus_ : 200;
        res.set_content(log ? searchAnswer("log", logNote_) : searchAnswer("dl", downloadNote_),
                        "application/json");
    });
    server().on("POST", "/api/note", testsupport::FixtureServer::respond(200, "dl"));
}

void AgentTest::answerLogSearch(const QString& text, int status) {
    logNote_ = text;
    logSearchStatus_ = status;
}

void AgentTest::startWithAccount(const QString& email, const QString& password) {
    controller().setAccountOverride(email, password);
    controller().awakeFromNib();
}

bool AgentTest::waitForRunning() {
    return testsupport::waitUntil([this] { return controller().appRunning(); });
}

}  // namespace agenttest
