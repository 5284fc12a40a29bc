// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/client/ClientFixture.h"

#include "foundation/URLConnection.h"
#include "tests/support/Wait.h"

namespace clienttest {

testsupport::FixtureServer& server() {
    return testsupport::FixtureServer::sharedService();
}

void ClientTest::SetUp() {
    server().clearRoutes();
    server().clearRequests();
    home_ = std::make_unique<testsupport::TempHome>();
}

void ClientTest::TearDown() {
    foundation::NotificationCenter::defaultCenter().removeObserver(this);
    // Requests still under way keep themselves alive; let them end inside the test.
    server().releaseStalled();
    EXPECT_TRUE(
        testsupport::waitUntil([] { return foundation::URLConnection::inFlightCount() == 0; }));
    home_.reset();
}

void ClientTest::observe(LWSNObject& object, const QString& selector, Heard& heard) {
    auto record = [&heard](const foundation::Notification& n) {
        heard.names << n.name;
        heard.last = n;
    };
    object.addObserver(this, selector, record, record);
}

std::shared_ptr<LWSimplenoteLogin> ClientTest::loginAs(const QString& email,
                                                       const QString& password) {
    auto login = LWSNObject::create<LWSimplenoteLogin>();
    login->setEmail(email);
    login->setPassword(password);
    return login;
}

}  // namespace clienttest
