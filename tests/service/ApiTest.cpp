// SPDX-License-Identifier: GPL-3.0-or-later
// Every endpoint of the API, driven over loopback HTTP against the real binary.
#include <QRegularExpression>

#include "Classes/TWJSON/TWJSON.h"
#include "service/NotesStore.h"
#include "tests/service/ServiceFixture.h"

namespace servicetest {
namespace {

const QRegularExpression kDate(R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{6}$)");

TWJsonValue json(const httplib::Result& res) {
    EXPECT_TRUE(res && res->status == 200);
    TWJSON parser;
    auto value = parser.fragmentWithString(res ? QString::fromStdString(res->body) : QString());
    EXPECT_TRUE(value.has_value());
    return value.value_or(TWJsonValue());
}

std::string post(httplib::Client& c, const std::string& path, const std::string& body) {
    auto res = c.Post(path.c_str(), body, "application/x-www-form-urlencoded");
    return res ? std::to_string(res->status) + " " + res->body : "no answer";
}

std::string get(httplib::Client& c, const std::string& path) {
    auto res = c.Get(path.c_str());
    return res ? std::to_string(res->status) + " " + res->body : "no answer";
}

class ApiTest : public ServiceTest {};

INSTANTIATE_TEST_SUITE_P(Backends, ApiTest, kBackends, backendName);

TEST_P(ApiTest, LoginAnswersATokenOrAnEmptyRefusal) {
    auto ok = login(kEmail, kPassword);
    ASSERT_TRUE(ok);
    EXPECT_EQ(ok->status, 200);
    EXPECT_TRUE(
        QRegularExpression("^[0-9a-f]{32}$").match(QString::fromStdString(ok->body)).hasMatch())
        << ok->body;
    EXPECT_EQ(
        post(*client_, "/api/login", base64(std::string("email=") + kEmail + "&password=wrong")),
        "401 ");
    EXPECT_EQ(post(*client_, "/api/login", base64("email=nobody@example.org&password=x")), "401 ");
    EXPECT_EQ(post(*client_, "/api/login", "***not base64***"), "400 ");
    EXPECT_EQ(post(*client_, "/api/login", base64("user=me&pass=x")), "400 ");
}

TEST_P(ApiTest, EveryOtherCallNeedsALiveTokenOfThatAccount) {
    ASSERT_TRUE(server_->addUser("other@example.org", "secret"));
    const std::string key = createNote("mine");
    const std::string otherToken = login("other@example.org", "secret")->body;
    const std::string queries[] = {"?", "?auth=" + token(), "?email=" + std::string(kEmail),
                                   "?auth=" + otherToken + "&email=" + kEmail,
                                   "?auth=00&email=" + std::string(kEmail)};
    for (const std::string& q : queries) {
        EXPECT_EQ(get(*client_, "/api/index" + q), "401 ") << q;
        EXPECT_EQ(get(*client_, "/api/note" + q + "&key=" + key), "401 ") << q;
        EXPECT_EQ(post(*client_, "/api/note" + q, base64("x")), "401 ") << q;
        EXPECT_EQ(get(*client_, "/api/delete" + q + "&key=" + key), "401 ") << q;
        EXPECT_EQ(get(*client_, "/api/search" + q + "&query=x"), "401 ") << q;
        EXPECT_EQ(post(*client_, "/api/append" + q + "&header=mine", base64("x")), "401 ") << q;
    }
    // The other account does not see this one's note, nor append to it.
    const std::string other = "?auth=" + otherToken + "&email=other@example.org";
    EXPECT_EQ(get(*client_, "/api/note" + other + "&key=" + key), "404 ");
    const std::string theirs = post(*client_, "/api/append" + other + "&header=mine", base64("x"));
    EXPECT_EQ(theirs.substr(0, 4), "200 ");
    EXPECT_NE(theirs, "200 " + key);
    EXPECT_EQ(get(*client_, "/api/note" + auth("&key=" + key)), "200 mine");
}

TEST_P(ApiTest, NoteLifecycleWithHeadersAndDates) {
    const std::string text = "Ferrybox_Downloads\n# keep\nhttps://example.org/ü";
    const std::string key = createNote(text);
    EXPECT_TRUE(
        QRegularExpression("^[A-Za-z0-9_-]+$").match(QString::fromStdString(key)).hasMatch());

    auto res = client_->Get(("/api/note" + auth("&key=" + key)).c_str());
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 200);
    EXPECT_EQ(res->body, text);
    EXPECT_EQ(res->get_header_value("Note-Key"), key);
    EXPECT_EQ(res->get_header_value("Note-Deleted"), "false");
    const std::string created = res->get_header_value("Note-Createdate");
    EXPECT_TRUE(kDate.match(QString::fromStdString(created)).hasMatch()) << created;

    EXPECT_EQ(post(*client_, "/api/note" + auth("&key=" + key), base64("changed")), "200 " + key);
    res = client_->Get(("/api/note" + auth("&key=" + key)).c_str());
    EXPECT_EQ(res->body, "changed");
    EXPECT_EQ(res->get_header_value("Note-Createdate"), created);
    EXPECT_GT(res->get_header_value("Note-Modifydate"), created);

    EXPECT_EQ(post(*client_, "/api/note" + auth("&key=nosuchkey"), base64("x")), "404 ");
    EXPECT_EQ(get(*client_, "/api/note" + auth("&key=nosuchkey")), "404 ");
    EXPECT_EQ(get(*client_, "/api/note" + auth()), "404 ");
    EXPECT_EQ(post(*client_, "/api/note" + auth(), "%%%"), "400 ");
    EXPECT_EQ(post(*client_, "/api/note" + auth(), std::string(1024 * 1024 + 4, 'A')), "413 ");
}

TEST_P(ApiTest, SoftDeleteKeepsTheNoteInTheIndexPermanentDeleteDoesNot) {
    const std::string soft = createNote("first findme");
    const std::string dead = createNote("second findme");
    EXPECT_EQ(get(*client_, "/api/delete" + auth("&key=" + soft)), "200 " + soft);
    EXPECT_EQ(get(*client_, "/api/delete" + auth("&key=" + dead + "&dead=1")), "200 " + dead);
    EXPECT_EQ(get(*client_, "/api/delete" + auth("&key=" + dead)), "404 ");

    const TWJsonValue index = json(client_->Get(("/api/index" + auth()).c_str()));
    ASSERT_EQ(index.count(), 1);
    EXPECT_EQ(index.at(0).valueForKey("key")->stringValue(), QString::fromStdString(soft));
    EXPECT_TRUE(index.at(0).valueForKey("deleted")->boolValue());
    EXPECT_TRUE(kDate.match(index.at(0).valueForKey("modify")->stringValue()).hasMatch());

    // An update leaves the deleted flag alone; search never shows a deleted note.
    EXPECT_EQ(post(*client_, "/api/note" + auth("&key=" + soft), base64("still findme")),
              "200 " + soft);
    EXPECT_EQ(client_->Get(("/api/note" + auth("&key=" + soft)).c_str())
                  ->get_header_value("Note-Deleted"),
              "true");
    const TWJsonValue found = json(client_->Get(("/api/search" + auth("&query=findme")).c_str()));
    EXPECT_EQ(found.valueForKey("Response")->valueForKey("totalRecords")->numberText(), "0");
}

TEST_P(ApiTest, SearchPagesNewestFirstAndCountsEveryMatch) {
    for (int i = 0; i < 25; ++i)
        createNote((i % 2 ? "ALPHA note " : "alpha note ") + std::to_string(i));
    createNote("beta only");
    createNote("caaaB");
    createNote("Schöne Grüße");
    createNote("cooled to 4 \u212A");  // KELVIN SIGN, which folds to an ASCII "k"
    struct Page {
        std::string query;
        int results;
        const char* total;
        QString firstContent;
    };
    const Page pages[] = {
        {"&query=Alpha", 10, "25", "alpha note 24"},
        {"&query=alpha&offset=20", 5, "25", "alpha note 4"},
        {"&query=alpha&results=200", 25, "25", "alpha note 24"},
        {"&query=alpha&results=3&offset=1", 3, "25", "ALPHA note 23"},
        {"&query=gamma", 0, "0", QString()},
        {"&query=AAB", 1, "1", "caaaB"},
        {"&query=%C3%9C", 1, "1", QString::fromUtf8("Schöne Grüße")},
        {"&query=SCH", 1, "1", QString::fromUtf8("Schöne Grüße")},
        {"&query=4%20k", 1, "1", QString::fromUtf8("cooled to 4 \u212A")},
    };
    for (const Page& p : pages) {
        const TWJsonValue v = json(client_->Get(("/api/search" + auth(p.query)).c_str()));
        const auto response = v.valueForKey("Response");
        ASSERT_TRUE(response.has_value()) << p.query;
        EXPECT_EQ(response->valueForKey("totalRecords")->numberText(), p.total) << p.query;
        const auto results = response->valueForKey("Results");
        ASSERT_EQ(results->count(), p.results) << p.query;
        if (p.results > 0) {
            EXPECT_EQ(results->at(0).valueForKey("content")->stringValue(), p.firstContent)
                << p.query;
        }
    }
}

// A write of a note's text, based on a version when one is given; the stored version, or the
// failure as "STATUS BODY".
std::string write(httplib::Client& c, const std::string& path, const std::string& text,
                  const std::string& base = "") {
    httplib::Headers headers;
    if (!base.empty())
        headers.emplace("Note-Base-Version", base);
    auto res = c.Post(path.c_str(), headers, base64(text), "application/x-www-form-urlencoded");
    if (!res || res->status != 200)
        return res ? std::to_string(res->status) + " " + res->body : "no answer";
    return res->get_header_value("Note-Version");
}

// Every write counts; a note GET, the index and search answer the count.
TEST_P(ApiTest, EveryWriteMakesANewVersion) {
    const std::string key = createNote("Ferrybox_Downloads\nhttps://example.org/a");
    const std::string note = "/api/note" + auth("&key=" + key);
    EXPECT_EQ(client_->Get(note.c_str())->get_header_value("Note-Version"), "1");
    EXPECT_EQ(write(*client_, note, "Ferrybox_Downloads"), "2");
    EXPECT_EQ(write(*client_, note, "Ferrybox_Downloads\n# kept", "2"), "3");
    EXPECT_EQ(client_->Get(note.c_str())->get_header_value("Note-Version"), "3");
    const TWJsonValue found =
        json(client_->Get(("/api/search" + auth("&query=Ferrybox_Downloads")).c_str()));
    EXPECT_EQ(found.valueForKey("Response")
                  ->valueForKey("Results")
                  ->at(0)
                  .valueForKey("version")
                  ->numberText(),
              "3");
    EXPECT_EQ(get(*client_, "/api/delete" + auth("&key=" + key)), "200 " + key);
    const TWJsonValue index = json(client_->Get(("/api/index" + auth()).c_str()));
    EXPECT_EQ(index.at(0).valueForKey("version")->numberText(), "4");
    for (const char* bad : {"x", "0", "-1", "1.5", ""})
        EXPECT_EQ(write(*client_, note, "text", std::string(" ") + bad), "400 ") << bad;
    EXPECT_EQ(client_->Get(note.c_str())->body, "Ferrybox_Downloads\n# kept");
}

// A writer whose text was based on an older version keeps its own text, gets the lines the
// others added since, and does not bring back the lines they removed since.
TEST_P(ApiTest, WritesBasedOnAnOlderVersionAreMerged) {
    struct Row {
        const char* name;
        const char* base;
        const char* writer;
        const char* others;
        const char* merged;
    };
    const Row rows[] = {
        {"the agent took A while B was shared", "H\nA", "H", "H\nA\nB", "H\nB"},
        {"both added a line", "H", "H\nX", "H\nY", "H\nX\nY"},
        {"both added the same line", "H", "H\nX", "H\nX", "H\nX"},
        {"both removed the same line", "H\nA", "H", "H", "H"},
        {"the others changed a line the writer removed", "H\nL", "H", "H\nL'", "H\nL'"},
        {"a page opened before the agent took A saves", "H\nA", "H\nA\nC", "H", "H\nC"},
        {"added before a line the writer kept", "H\nA\nZ", "H\nZ", "H\nA\nB\nZ", "H\nB\nZ"},
    };
    for (const Row& row : rows) {
        const std::string note = "/api/note" + auth("&key=" + createNote(row.base));
        ASSERT_EQ(write(*client_, note, row.others), "2") << row.name;
        EXPECT_EQ(write(*client_, note, row.writer, "1"), "3") << row.name;
        EXPECT_EQ(client_->Get(note.c_str())->body, row.merged) << row.name;
    }
}

// An append's answer as "STATUS KEY vVERSION" ("STATUS " when refused).
std::string append(httplib::Client& c, const std::string& query, const std::string& body) {
    auto res = c.Post(("/api/append" + query).c_str(), body, "application/x-www-form-urlencoded");
    if (!res)
        return "no answer";
    std::string answer = std::to_string(res->status) + " " + res->body;
    if (res->has_header("Note-Version"))
        answer += " v" + res->get_header_value("Note-Version");
    return answer;
}

// One line goes at the end of the newest note that begins with the header, in one write: what
// the agent uses to put a failed link back as a comment, whatever the note's length and
// whatever others write into it meanwhile.
TEST_P(ApiTest, AppendAddsOneLineAtTheEndOfTheNoteWithTheHeader) {
    // A limit that a few lines reach.
    startServer({"--max-body-bytes", "200"});
    const std::string key = createNote("Ferrybox_Downloads\nhttps://example.org/a");
    const std::string note = "/api/note" + auth("&key=" + key);
    const std::string failed = "# failed: not found: https://example.org/a";
    const std::string appended = "Ferrybox_Downloads\nhttps://example.org/a\n" + failed;
    const std::string header = "&header=Ferrybox_Downloads";
    const struct {
        const char* name;
        std::string query;
        std::string body;
        std::string answer;
        std::string text;  // the note's, after the append
    } rows[] = {
        {"lands at the end", header, base64(failed), "200 " + key + " v2", appended},
        {"already a line: nothing changes", header, base64(failed), "200 " + key + " v2", appended},
        {"not base64", header, "%%%", "400 ", appended},
        {"empty line", header, "", "400 ", appended},
        {"line feed in the line", header, base64("a\nb"), "400 ", appended},
        {"carriage return in the line", header, base64("a\rb"), "400 ", appended},
        {"NUL in the line", header, base64(std::string("a\0b", 3)), "400 ", appended},
        {"not UTF-8", header, base64("\xff"), "400 ", appended},
        {"no header", "", base64("x"), "400 ", appended},
        {"empty header", "&header=", base64("x"), "400 ", appended},
        {"line feed in the header", header + "%0A", base64("x"), "400 ", appended},
        {"carriage return in the header", header + "%0D", base64("x"), "400 ", appended},
        // 83 bytes, a line feed and 71 more: 208 characters in base64.
        {"past the body limit", header, base64("# " + std::string(69, 'x')), "413 ", appended},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(append(*client_, auth(row.query), row.body), row.answer) << row.name;
        EXPECT_EQ(client_->Get(note.c_str())->body, row.text) << row.name;
    }

    // The agent, which read version 1 and took the link, writes the note back: the comment that
    // was appended meanwhile stays.
    EXPECT_EQ(write(*client_, note, "Ferrybox_Downloads", "1"), "3");
    EXPECT_EQ(client_->Get(note.c_str())->body, "Ferrybox_Downloads\n" + failed);

    // No note begins with the header: one is made of the header and the line.
    const std::string made =
        append(*client_, auth("&header=My%20log%20%26%20more"), base64("https://example.org/b"));
    ASSERT_EQ(made.substr(0, 4), "200 ");
    ASSERT_EQ(made.substr(made.size() - 3), " v1");
    const std::string madeKey = made.substr(4, made.size() - 7);
    EXPECT_NE(madeKey, key);
    EXPECT_EQ(get(*client_, "/api/note" + auth("&key=" + madeKey)),
              "200 My log & more\nhttps://example.org/b");
}

// A base older than the versions kept is merged against the oldest kept, never refused; a base
// the note has not reached, or none, overwrites.
TEST_P(ApiTest, BasesOutsideTheVersionsKept) {
    const std::string note = "/api/note" + auth("&key=" + createNote("H"));
    ASSERT_EQ(write(*client_, note, "H\nB"), "2");
    for (int i = 0; i < notes::NotesStore::kVersionsKept; ++i)
        ASSERT_EQ(write(*client_, note, "H\nB"), std::to_string(3 + i));
    const std::string last = std::to_string(3 + notes::NotesStore::kVersionsKept);
    ASSERT_EQ(write(*client_, note, "H\nB\nC"), last);
    // Only C was added within what is kept; B came before it.
    EXPECT_EQ(write(*client_, note, "H\nX", "1"), std::to_string(std::stoi(last) + 1));
    EXPECT_EQ(client_->Get(note.c_str())->body, "H\nX\nC");
    EXPECT_NE(write(*client_, note, "H\nY", "999"), "");
    EXPECT_EQ(client_->Get(note.c_str())->body, "H\nY");
}

}  // namespace
}  // namespace servicetest
