// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "client/LWSimplenoteLogin.h"
#include "foundation/NotificationCenter.h"
#include "tests/support/FixtureServer.h"
#include "tests/support/TempHome.h"

namespace clienttest {

// The service's address is fixed once per process, so every test of this binary shares one
// scripted server and replaces its routes.
testsupport::FixtureServer& server();

// What an observer heard: the notification names in order, and the last one itself.
struct Heard {
    QStringList names;
    foundation::Notification last;
};

class ClientTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Observes selector on object, recording into heard.
    void observe(LWSNObject& object, const QString& selector, Heard& heard);
    std::shared_ptr<LWSimplenoteLogin> loginAs(const QString& email, const QString& password);

    std::unique_ptr<testsupport::TempHome> home_;
};

}  // namespace clienttest
