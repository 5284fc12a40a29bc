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

// A running service with one account, and a client for it.
class ServiceTest : public ::testing::Test {
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
