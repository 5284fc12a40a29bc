// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <memory>

#include "tests/support/AgentEnvironment.h"
#include "tests/support/NotesAccount.h"
#include "tests/support/NotesServerProcess.h"

namespace systemtest {

// The real headless agent of one account of a real ferrybox-notes, in a home of its own. The
// service starts in SetUp, after the test's own servers have bound their ports.
class HeadlessAgentTest : public ::testing::Test {
protected:
    static constexpr const char* kEmail = "me@example.org";
    static constexpr const char* kPassword = "secret words";

    void SetUp() override {
        service_ = std::make_unique<testsupport::NotesServerProcess>();
        ASSERT_TRUE(service_->isRunning());
        ASSERT_TRUE(service_->addUser(kEmail, kPassword));
        account_ = std::make_unique<testsupport::NotesAccount>(*service_, kEmail, kPassword);
        QFile file(home_.path() + "/password");
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QByteArray(kPassword) + "\n");
        file.setPermissions(QFile::ReadOwner | QFile::WriteOwner);
    }

    // A transfer that gets nowhere for `patience` seconds fails.
    void startAgent(QProcess& agent, bool once, double patience = 600) {
        QProcessEnvironment env = testsupport::agentEnvironment(home_.path(), service_->apiUrl());
        env.insert("FERRYBOX_DOWNLOAD_PATIENCE", QString::number(patience));
        agent.setProcessEnvironment(env);
        QStringList arguments{"--headless", "--email", kEmail, "--password-file",
                              home_.path() + "/password"};
        if (once)
            arguments << "--once";
        agent.start(qEnvironmentVariable("FERRYBOX_BUILD_DIR") + "/app/ferrybox", arguments);
        ASSERT_TRUE(agent.waitForStarted());
    }

    // One check with --once; its exit code, with standard error for the failure message.
    int runOnce(QString* err, double patience = 600) {
        QProcess agent;
        startAgent(agent, true, patience);
        EXPECT_TRUE(agent.waitForFinished(90000));
        *err = QString::fromUtf8(agent.readAllStandardError());
        return agent.exitCode();
    }

    QString downloads() const { return home_.path() + "/Downloads/Ferrybox"; }
    QByteArray downloaded(const QString& name) const {
        QFile file(downloads() + "/" + name);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(missing)");
    }
    QStringList downloadedFiles() const {
        return QDir(downloads()).entryList(QDir::Files | QDir::Hidden);
    }

    QTemporaryDir home_;
    std::unique_ptr<testsupport::NotesServerProcess> service_;
    std::unique_ptr<testsupport::NotesAccount> account_;
};

}  // namespace systemtest
