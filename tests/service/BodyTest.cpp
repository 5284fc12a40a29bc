// SPDX-License-Identifier: GPL-3.0-or-later
// Note and login bodies as different clients send them: form-encoded bodies of any size up to
// the limit, base64 wrapped into lines, and shapes the service refuses.
#include "tests/service/ServiceFixture.h"

namespace servicetest {
namespace {

// Base64 wrapped at 76 columns with CRLF, as mail-style encoders write it.
std::string wrapped(const std::string& text) {
    const std::string flat = base64(text);
    std::string out;
    for (std::size_t i = 0; i < flat.size(); i += 76)
        out += flat.substr(i, 76) + "\r\n";
    return out;
}

class BodyTest : public ServiceTest {};

INSTANTIATE_TEST_SUITE_P(Backends, BodyTest, kBackends, backendName);

TEST_P(BodyTest, NoteBodiesOfEveryAcceptedSizeAndShapeArriveWhole) {
    struct Case {
        const char* name;
        std::string text;
        std::string body;
        const char* contentType;
    };
    const std::string large(700 * 1024, 'n');  // just under the limit once in base64
    const Case cases[] = {
        {"form-encoded, over 8 KiB", std::string(20000, 'f'), base64(std::string(20000, 'f')),
         "application/x-www-form-urlencoded"},
        {"form-encoded, near 1 MiB", large, base64(large), "application/x-www-form-urlencoded"},
        {"wrapped lines", std::string(1000, 'w'), wrapped(std::string(1000, 'w')),
         "application/x-www-form-urlencoded"},
        {"no content type", "plain", base64("plain"), "application/octet-stream"},
    };
    for (const Case& c : cases) {
        auto res = client_->Post(("/api/note" + auth()).c_str(), c.body, c.contentType);
        ASSERT_TRUE(res) << c.name;
        ASSERT_EQ(res->status, 200) << c.name;
        auto back = client_->Get(("/api/note" + auth("&key=" + res->body)).c_str());
        ASSERT_TRUE(back) << c.name;
        EXPECT_EQ(back->body, c.text) << c.name;
    }
}

TEST_P(BodyTest, RefusedBodiesGetAnEmptyAnswerAndTheConnectionStaysUsable) {
    struct Case {
        const char* name;
        const char* path;
        std::string body;
        const char* contentType;
        int status;
    };
    const Case cases[] = {
        {"note over 1 MiB", "/api/note", std::string(1024 * 1024 + 4, 'A'),
         "application/x-www-form-urlencoded", 413},
        {"note far over 1 MiB", "/api/note", std::string(3 * 1024 * 1024, 'A'),
         "application/x-www-form-urlencoded", 413},
        // Text, but with a NUL character, which no text note holds (nor can PostgreSQL).
        {"note with a NUL", "/api/note", base64(std::string("a\0b", 3)),
         "application/x-www-form-urlencoded", 400},
        {"multipart note", "/api/note", "--b\r\n\r\naGk=\r\n--b--\r\n",
         "multipart/form-data; boundary=b", 400},
        {"login over 1 MiB", "/api/login", std::string(1024 * 1024 + 4, 'A'),
         "application/x-www-form-urlencoded", 413},
    };
    for (const Case& c : cases) {
        const std::string path = c.path == std::string("/api/note") ? c.path + auth() : c.path;
        auto res = client_->Post(path.c_str(), c.body, c.contentType);
        ASSERT_TRUE(res) << c.name;
        EXPECT_EQ(res->status, c.status) << c.name;
        EXPECT_EQ(res->body, "") << c.name;
        // The same client goes on working afterwards.
        EXPECT_EQ(client_->Get(("/api/index" + auth()).c_str())->status, 200) << c.name;
    }
}

}  // namespace
}  // namespace servicetest
