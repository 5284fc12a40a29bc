// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <gtest/gtest.h>

#include <QLineEdit>
#include <memory>

#include "foundation/AlertPanel.h"
#include "foundation/UserDefaults.h"
#include "tests/support/FixtureServer.h"
#include "tests/support/NotificationRecorder.h"
#include "tests/support/TempHome.h"
#include "ui/MainInterface.h"

namespace agenttest {

// The service stand-in for every test of this binary: the API address is fixed for the life of
// the process, so all tests share one server and replace its routes.
testsupport::FixtureServer& server();

// What the installed yt-dlp says its version is, asked as a person would in a terminal.
QString installedYtDlpVersion();

// A fresh home folder, a fresh interface definition, and alerts answered by a script.
class AgentTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    AppController& controller() { return interface_->controller(); }
    MainInterface& interface() { return *interface_; }

    // Stores a setting before start-up.
    void setDefault(const QString& key, const QVariant& value);
    QVariant storedDefault(const QString& key);
    // Answers the login with this token (empty: the service's "no").
    void answerLogin(const std::string& body);
    // Answers the download note's search with one note of this text (and key "dl"), or with
    // none for a null text; pushes of notes succeed. Until a test says otherwise, the note is a
    // bare header.
    void answerSearch(const QString& text);
    // Answers the log note's search likewise (key "log"), or fails it with an HTTP status;
    // until then it finds none.
    void answerLogSearch(const QString& text, int status = 200);
    // Start-up with the password typed in as the headless options do.
    void startWithAccount(const QString& email, const QString& password);
    bool waitForRunning();

    // Alerts shown so far, and how the next ones are answered.
    std::vector<foundation::Alert> alerts;
    foundation::AlertPanel::Response alertAnswer = foundation::AlertPanel::DefaultReturn;

    // The desktop's notification service, there from before start-up.
    std::unique_ptr<testsupport::NotificationRecorder> notifications =
        std::make_unique<testsupport::NotificationRecorder>();

    std::unique_ptr<testsupport::TempHome> home_;
    QString downloadNote_;
    QString logNote_;
    int logSearchStatus_ = 200;
    std::unique_ptr<MainInterface> interface_;
    foundation::AlertPanel::Presenter previousPresenter_;
};

}  // namespace agenttest
