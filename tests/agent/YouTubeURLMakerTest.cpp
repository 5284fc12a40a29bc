// SPDX-License-Identifier: GPL-3.0-or-later
// The watch-page resolver against pages served on loopback: format choice, the page address,
// the fixed cuts, entity decoding, and the exceptions a caller has to guard against.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QTimer>

#include "agent/YouTubeURLMaker.h"
#include "foundation/TypeName.h"
#include "tests/support/FixtureServer.h"

namespace {

using testsupport::FixtureServer;

const std::string kTitle = "<meta name=\"title\" content=\"";
// Enough filler after each piece that every 500-unit cut stays inside the page.
const std::string kFiller(600, '.');

std::string titled(const std::string& title) {
    return kTitle + title + "\">" + kFiller;
}

TEST(YouTubeURLMakerTest, PagesOfEveryShape) {
    struct Case {
        const char* name;
        std::string page;
        bool hd;
        QStringList result;  // empty when the call throws
        QString exception = {};
        std::string query = "v=abc";  // as the page was asked for
    };
    const std::string both = "'IS_HD_AVAILABLE': true 18|http:\\/\\/cdn.example\\/sd,a " + kFiller +
                             " 22|http:\\/\\/cdn.example\\/hd\\?x=1,b " + kFiller +
                             titled("Tom &amp; Jerry&#39;s Best");
    const Case cases[] = {
        {"high definition available and asked for",
         both,
         true,
         {"http://cdn.example/hd\\?x=1", "Tom & Jerry's Best", "22"}},
        {"standard asked for: the page address gets its suffix",
         both,
         false,
         {"http://cdn.example/sd", "Tom & Jerry's Best", "18"},
         {},
         "v=abc0.000000mt=18"},
        {"high definition asked for but not available",
         "'IS_HD_AVAILABLE': false 18|sd,22|hd," + kFiller + titled("T"),
         true,
         {"sd", "T", "18"}},
        {"entities decoded once each, in their order",
         "18|m," + kFiller + titled("&quot;Hi&quot; &amp;quot; &amp;#39;"),
         false,
         {"m", "\"Hi\" &quot; '", "18"},
         {},
         "v=abc0.000000mt=18"},
        {"marker absent: the cut starts at position 2",
         "..http:\\/\\/two,rest " + kFiller + titled("T"),
         true,
         {"http://two", "T", "18"}},
        {"title counted in UTF-16 units: an emoji is two",
         "18|m," + kFiller + kTitle + "\xF0\x9F\x98\x80\">" + std::string(496, 'x'),
         true,
         {"m", "\xF0\x9F\x98\x80", "18"}},
        {"title marker within the last 500 units",
         "18|m," + kFiller + kTitle + "T\">",
         true,
         {},
         "std::out_of_range"},
        {"no comma within the cut",
         "18|" + std::string(600, 'a') + "," + titled("T"),
         true,
         {},
         "std::out_of_range"},
        {"page shorter than a cut", "18|m,", true, {}, "std::out_of_range"},
        {"page not UTF-8",
         "18|m,\xff\xfe" + kFiller + titled("T"),
         true,
         {},
         "std::invalid_argument"},
    };
    for (const Case& c : cases) {
        FixtureServer server;
        server.on("GET", "/watch", FixtureServer::respond(200, c.page));
        QStringList result;
        QString thrown;
        try {
            result =
                YouTubeURLMaker::getYouTubeDownloadLink(server.baseUrl() + "/watch?v=abc", c.hd);
        } catch (const std::exception& e) {
            thrown = foundation::demangledTypeName(typeid(e));
        }
        EXPECT_EQ(result, c.result) << c.name;
        EXPECT_EQ(thrown, c.exception) << c.name;
        ASSERT_EQ(server.requests().size(), 1u) << c.name;
        EXPECT_EQ(server.requests()[0].query, c.query) << c.name;
    }
}

// The caller's thread only waits: work queued on it runs after the call, not in the middle.
TEST(YouTubeURLMakerTest, CallerThreadRunsNothingWhileItWaits) {
    FixtureServer server;
    server.on("GET", "/watch", FixtureServer::respond(200, "18|m," + kFiller + titled("T")));
    bool ran = false;
    QTimer::singleShot(0, [&] { ran = true; });
    EXPECT_EQ(YouTubeURLMaker::getYouTubeDownloadLink(server.baseUrl() + "/watch", true).size(), 3);
    EXPECT_FALSE(ran);
    QCoreApplication::processEvents();
    EXPECT_TRUE(ran);
}

TEST(YouTubeURLMakerTest, UnreachableLinkIsAnInvalidArgument) {
    const QString link =
        QStringLiteral("http://127.0.0.1:%1/watch?v=abc").arg(FixtureServer::closedPort());
    EXPECT_THROW(YouTubeURLMaker::getYouTubeDownloadLink(link, true), std::invalid_argument);
    EXPECT_THROW(YouTubeURLMaker::getYouTubeDownloadLink(link, false), std::invalid_argument);
}

}  // namespace
