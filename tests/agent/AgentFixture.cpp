#include "tests/agent/AgentFixture.h"

#include "tests/support/Wait.h"

namespace agenttest {

testsupport::FixtureServer& server() {
    return testsupport::FixtureServer::sharedService();
}

void AgentTest::SetUp() {
    server().clearRoutes();
    server().clearRequests();
    home_ = std::make_unique<testsupport::TempHome>();
    interface_ = std::make_unique<MainInterface>();
    previousPresenter_ = foundation::AlertPanel::setPresenter([this](const foundation::Alert& a) {
        alerts.push_back(a);
        return alertAnswer;
    });
}

void AgentTest::TearDown() {
    foundation::AlertPanel::setPresenter(previousPresenter_);
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

void AgentTest::startWithAccount(const QString& email, const QString& password) {
    controller().setAccountOverride(email, password);
    controller().awakeFromNib();
}

bool AgentTest::waitForRunning() {
    return testsupport::waitUntil([this] { return controller().appRunning(); });
}

}  // namespace agenttest
