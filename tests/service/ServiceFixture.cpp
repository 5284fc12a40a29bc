// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/service/ServiceFixture.h"

#include "tests/support/PostgresServer.h"

namespace servicetest {

std::string backendName(const ::testing::TestParamInfo<Backend>& info) {
    return info.param == Backend::SQLite ? "SQLite" : "PostgreSQL";
}

QString newDatabase(Backend backend) {
    if (backend == Backend::SQLite)
        return QString();
    auto& server = testsupport::PostgresServer::shared();
    const QString url = server.newDatabase();
    EXPECT_FALSE(url.isEmpty()) << "no PostgreSQL database: " << server.log().toStdString();
    return url;
}

void ServiceTest::SetUp() {
    startServer();
}

void ServiceTest::startServer(const QStringList& arguments, const QProcessEnvironment& env) {
    client_.reset();
    server_ =
        std::make_unique<testsupport::NotesServerProcess>(arguments, env, newDatabase(GetParam()));
    ASSERT_TRUE(server_->isRunning()) << server_->log().toStdString();
    ASSERT_TRUE(server_->addUser(kEmail, kPassword));
    client_ = std::make_unique<httplib::Client>("127.0.0.1", server_->port());
    token_.clear();
}

httplib::Result ServiceTest::login(const std::string& email, const std::string& password) {
    return client_->Post("/api/login", base64("email=" + email + "&password=" + password),
                         "application/x-www-form-urlencoded");
}

std::string ServiceTest::token() {
    if (token_.empty()) {
        auto res = login(kEmail, kPassword);
        EXPECT_TRUE(res && res->status == 200);
        if (res)
            token_ = res->body;
    }
    return token_;
}

std::string ServiceTest::auth(const std::string& extra) {
    return "?auth=" + token() + "&email=" + kEmail + extra;
}

std::string ServiceTest::createNote(const std::string& text) {
    auto res = client_->Post(("/api/note" + auth()).c_str(), base64(text),
                             "application/x-www-form-urlencoded");
    EXPECT_TRUE(res && res->status == 200);
    return res ? res->body : std::string();
}

}  // namespace servicetest
