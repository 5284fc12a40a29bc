// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <gtest/gtest.h>
#include <httplib.h>

#include <memory>

#include "tests/support/NotesServerProcess.h"

namespace servicetest {

inline std::string base64(const std::string& text) {
    return QByteArray::fromStdString(text).toBase64().toStdString();
}

// What the service's own web page sends with each of its calls.
inline const httplib::Headers kFromPage = {{"X-Ferrybox-Page", "1"},
                                           {"Sec-Fetch-Site", "same-origin"}};

// Where the service under test keeps its notes.
enum class Backend { SQLite, PostgreSQL };
inline const auto kBackends = ::testing::Values(Backend::SQLite, Backend::PostgreSQL);
std::string backendName(const ::testing::TestParamInfo<Backend>& info);

// A fresh, empty database of the backend for one server, as NotesServerProcess takes it: empty
// for a file in the server's own folder, or the URL of a new database of the test program's
// private PostgreSQL server (the test fails when there is none).
QString newDatabase(Backend backend);

// A running service with one account, and a client for it; each test runs with each backend.
class ServiceTest : public ::testing::TestWithParam<Backend> {
protected:
    static constexpr const char* kEmail = "me+tag@example.org";
    static constexpr const char* kPassword = "pa ss&word=1";

    void SetUp() override;
    // The server under test (made by SetUp, or by startServer with options).
    void startServer(const QStringList& arguments = {}, const QProcessEnvironment& env = {});

    httplib::Result login(const std::string& email, const std::string& password);
    std::string token();
    // "?auth=TOKEN&email=ADDRESS" plus extra ("&key=...").
    std::string auth(const std::string& extra = "");
    std::string createNote(const std::string& text);

    std::unique_ptr<testsupport::NotesServerProcess> server_;
    std::unique_ptr<httplib::Client> client_;
    std::string token_;
};

}  // namespace servicetest
