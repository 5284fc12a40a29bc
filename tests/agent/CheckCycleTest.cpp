// SPDX-License-Identifier: GPL-3.0-or-later
// One check against the scripted service, note shape by note shape: what is downloaded, what
// the note becomes, what the log note is handed, what the user is told.
#include <QCheckBox>
#include <QDir>
#include <QFile>
#include <QLabel>

#include "client/LWSimplenoteSearch.h"
#include "foundation/Log.h"
#include "foundation/URLDownload.h"
#include "tests/agent/AgentFixture.h"
#include "tests/support/Wait.h"

namespace agenttest {
namespace {

using testsupport::FixtureServer;
using testsupport::waitUntil;

struct CheckCase {
    const char* name;
    QString note;         // "@" stands for the file server's address; null: no note found
    QString pushed;       // the note's text sent back; null: nothing pushed
    QStringList files;    // NAME=CONTENT in the download folder afterwards
    QStringList notices;  // the notification texts after "Checking for new downloads"
    bool stillOn = true;
    QString logLine = QString();  // the start of a line the check logs
    bool keepLog = false;
    QString logPushed = QString();  // the log note the check makes (none exists yet)
    QString searchTerm = QString();
};

void PrintTo(const CheckCase& c, std::ostream* os) {
    *os << c.name;
}

class CheckCycleTest : public AgentTest, public ::testing::WithParamInterface<CheckCase> {
protected:
    void SetUp() override {
        AgentTest::SetUp();
        server().on("GET", "/files/a.zip", FixtureServer::respond(200, "A"));
        server().on("GET", "/files/b.pdf", FixtureServer::respond(200, "B"));
        server().on("GET", "/files/videoplayback.mp4", FixtureServer::respond(200, "V"));
    }
    QString withServer(QString text) const { return text.replace("@", server().baseUrl()); }

    // The texts pushed to the note of this key ("dl" the download note), or to new notes.
    QStringList pushes(const std::string& key = "dl") const {
        QStringList texts;
        for (const auto& r : server().requests()) {
            const bool keyed = r.query.find("&key=") != std::string::npos;
            if (r.method == "POST" && r.path == "/api/note" &&
                (key.empty() ? !keyed : r.query.find("&key=" + key) != std::string::npos)) {
                texts << QString::fromUtf8(
                    QByteArray::fromBase64(QByteArray::fromStdString(r.body)));
            }
        }
        return texts;
    }
    QStringList folder() const {
        QStringList files;
        const QDir dir(home_->path() + "/Downloads/Ferrybox");
        for (const QString& name : dir.entryList(QDir::Files | QDir::Hidden)) {
            QFile file(dir.filePath(name));
            file.open(QIODevice::ReadOnly);
            files << name + "=" + QString::fromUtf8(file.readAll());
        }
        return files;
    }
};

TEST_P(CheckCycleTest, OneCheck) {
    const CheckCase& c = GetParam();
    answerLogin("token");
    answerSearch(c.note.isNull() ? QString() : withServer(c.note));
    setDefault("keepLog", c.keepLog ? "yes" : "no");
    if (!c.searchTerm.isNull())
        setDefault("searchTerm", c.searchTerm);
    foundation::LogCapture log;
    startWithAccount("me@example.org", "secret");

    // The check is over when its note is pushed, the agent turns off, or it raises; then its
    // downloads end.
    ASSERT_TRUE(waitUntil([&] {
        return !pushes().isEmpty() || !controller().errorLabel()->text().isEmpty() ||
               !log.lines().isEmpty();
    }));
    ASSERT_TRUE(waitUntil([] { return foundation::URLDownload::inFlightCount() == 0; }));
    testsupport::settle(50);

    EXPECT_EQ(pushes(), c.pushed.isNull() ? QStringList() : QStringList{c.pushed});
    EXPECT_EQ(folder(), c.files);
    // Transfers run side by side: their notices come in any order after the check's own.
    QStringList notices;
    for (const auto& n : notifications->notifications())
        notices << n.body;
    QStringList expected;
    for (const QString& notice : c.notices)
        expected << withServer(notice);
    ASSERT_FALSE(notices.isEmpty());
    EXPECT_EQ(notices.takeFirst(), "Checking for new downloads");
    notices.sort();
    expected.sort();
    EXPECT_EQ(notices, expected);
    EXPECT_EQ(controller().appRunning(), c.stillOn);
    EXPECT_TRUE(controller().downloadList().empty());
    if (!c.logLine.isNull()) {
        ASSERT_FALSE(log.lines().isEmpty());
        EXPECT_TRUE(log.lines().first().startsWith(c.logLine)) << log.lines().first().toStdString();
    }
    if (c.keepLog) {
        EXPECT_TRUE(waitUntil([&] { return !pushes("").isEmpty(); }));
    }
    EXPECT_EQ(pushes(""),
              c.logPushed.isNull() ? QStringList() : QStringList{withServer(c.logPushed)});
}

INSTANTIATE_TEST_SUITE_P(
    Agent, CheckCycleTest,
    ::testing::Values(
        CheckCase{"LinkEmptyLineAndComment",
                  "Ferrybox_Downloads\n@/files/a.zip\n\n# later",
                  "Ferrybox_Downloads\n\n# later",
                  {"a.zip=A"},
                  {"Downloading: @/files/a.zip", "Download complete: @/files/a.zip"}},
        CheckCase{"HeaderOnly", "Ferrybox_Downloads", "Ferrybox_Downloads", {}, {}},
        CheckCase{"HeaderAndLineFeedGoToTheLog",
                  "Ferrybox_Downloads\n",
                  "Ferrybox_Downloads",
                  {},
                  {},
                  true,
                  QString(),
                  true,
                  "Ferrybox_Download_Log"},
        CheckCase{"EveryLineGoesToTheLog",
                  "Ferrybox_Downloads\n# a\n@/files/a.zip\n\n@/files/b.pdf",
                  "Ferrybox_Downloads\n\n# a",
                  {"a.zip=A", "b.pdf=B"},
                  {"Downloading: @/files/a.zip", "Download complete: @/files/a.zip",
                   "Downloading: @/files/b.pdf", "Download complete: @/files/b.pdf"},
                  true,
                  QString(),
                  true,
                  "Ferrybox_Download_Log\n@/files/a.zip\n@/files/b.pdf"},
        CheckCase{"HeadersAnywhereCommentsInOrder",
                  "Ferrybox_Downloads\n# one\nFerrybox_Downloads\n@/files/b.pdf\n# two",
                  "Ferrybox_Downloads\n\n# one\n# two",
                  {"b.pdf=B"},
                  {"Downloading: @/files/b.pdf", "Download complete: @/files/b.pdf"}},
        CheckCase{"WrongHeaderTurnsOffAndLeavesTheNote",
                  "Shopping list\n@/files/a.zip",
                  QString(),
                  {},
                  {"Error: Couldn't retrieve download note"},
                  false,
                  "Note doesn't start with \"Ferrybox_Downloads\" -- aborting note check"},
        CheckCase{"ShortTextEscapesTheHeaderTest",
                  "# just a comment",
                  "Ferrybox_Downloads\n\n# just a comment",
                  {},
                  {}},
        CheckCase{"CarriageReturnsStayInTheirLines",
                  "Ferrybox_Downloads\r\n@/files/a.zip\r\n",
                  "Ferrybox_Downloads",
                  {},
                  {"Error: Couldn't download (null)", "Error: Couldn't download (null)"},
                  true,
                  "download <FXDownload: 0x"},
        CheckCase{"VideoStreamWithoutTitleFails",
                  "Ferrybox_Downloads\n@/files/videoplayback.mp4",
                  "Ferrybox_Downloads",
                  {},
                  {"Downloading: @/files/videoplayback.mp4",
                   "Error: Couldn't download @/files/videoplayback.mp4"},
                  true,
                  "download <FXDownload: 0x"},
        CheckCase{"TermLongerThanTheTextRaises",
                  "Ferrybox_Downloads\n#",
                  QString(),
                  {},
                  {},
                  true,
                  "An uncaught exception was raised: std::out_of_range: ",
                  false,
                  {},
                  "A_Search_Term_Of_Twenty_Eight"},
        CheckCase{"LineThatOnlyBeginsWithTheTermIsALink",
                  "Ferrybox_Downloads_2\n@/files/a.zip",
                  "Ferrybox_Downloads",
                  {"a.zip=A"},
                  {"Error: Couldn't download Ferrybox_Downloads_2", "Downloading: @/files/a.zip",
                   "Download complete: @/files/a.zip"}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(AgentTest, NoNoteFoundCreatesOneAndSaysSo) {
    answerLogin("token");
    answerSearch(QString());
    startWithAccount("me@example.org", "secret");
    ASSERT_TRUE(waitUntil([this] { return !alerts.empty(); }));
    EXPECT_EQ(alerts[0].title, "Note Created");
    EXPECT_EQ(alerts[0].message,
              "I've just created a new note called \"Ferrybox_Downloads\" using your Simplenote "
              "account.\n\nUse Simplenote for your iPhone, iPod Touch, iPad, or Simplenote's "
              "webapp to add URLs to the note and they'll be downloaded to this computer (at "
              "~/Downloads/Ferrybox/).");
    EXPECT_EQ(alerts[0].defaultButton, "OK");
    EXPECT_TRUE(alerts[0].alternateButton.isEmpty());
    ASSERT_TRUE(waitUntil([] {
        for (const auto& r : server().requests()) {
            if (r.method == "POST" && r.path == "/api/note")
                return r.query.find("key=") == std::string::npos;
        }
        return false;
    })) << "created without a key";
}

// A search that keeps every result: the first note that begins with the term is processed, and
// the agent turns off all the same. A note shorter than the term ends the walk.
TEST_F(AgentTest, MultipleNotesTurnOffButTheFirstMatchIsProcessed) {
    answerLogin("token");
    startWithAccount("me@example.org", "secret");
    ASSERT_TRUE(waitForRunning());
    ASSERT_TRUE(waitUntil([] { return server().requests().size() >= 3; }));  // the first check
    server().clearRequests();

    const auto found = [this](const QStringList& texts) {
        auto search = LWSimplenoteSearch::createWithQuery("Ferrybox_Downloads");
        std::vector<std::shared_ptr<LWSimplenote>> notes;
        for (const QString& text : texts) {
            notes.push_back(LWSNObject::create<LWSimplenote>());
            notes.back()->setText(text);
        }
        search->setContents(notes);
        controller().downloadFiles(
            {"LWSimplenoteSearchPullFromRemoteSuccessNotification",
             search.get(),
             {{"LWSimplenoteSearch", std::static_pointer_cast<LWSNObject>(search)}}});
    };
    found({"Another note, long enough", "Ferrybox_Downloads\n# mine",
           "Ferrybox_Downloads\n# second"});
    EXPECT_EQ(controller().errorLabel()->text(),
              "Multiple notes found containing \"Ferrybox_Downloads\"");
    EXPECT_FALSE(controller().appRunning());
    ASSERT_TRUE(server().waitForRequests(1));
    EXPECT_EQ(QByteArray::fromBase64(QByteArray::fromStdString(server().requests()[0].body)),
              "Ferrybox_Downloads\n\n# mine");

    EXPECT_THROW(found({"Short", "Ferrybox_Downloads"}), std::out_of_range);
}

}  // namespace
}  // namespace agenttest
