// SPDX-License-Identifier: GPL-3.0-or-later
// Search through every kind of store, against the plain answer: the notes not deleted whose text
// contains the needle as QString::contains(Qt::CaseInsensitive) decides it, newest change first
// (the later written first on a tie), paged, with the count of every match. Checked for texts and
// needles where case folding is tricky, where an index's query language could get in the way,
// and again after the notes were changed, deleted, purged and their accounts removed.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <QFile>
#include <QTemporaryDir>
#include <algorithm>
#include <string_view>

#include "service/NotesStore.h"
#include "service/PgConnections.h"
#include "tests/service/ServiceFixture.h"
#include "tests/support/Wait.h"

namespace servicetest {
namespace {

using namespace std::literals;

// Where a store can live; each kind of store is one row.
struct StoreKind {
    const char* name;
    std::unique_ptr<notes::NotesStore> (*open)(const QTemporaryDir& dir);
};

// A SQLite file: made private first, as the service's umask makes it.
std::unique_ptr<notes::NotesStore> openSqlite(const QTemporaryDir& dir) {
    QFile file(dir.filePath(QStringLiteral("notes.db")));
    if (!file.open(QIODevice::ReadWrite) ||
        !file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner))
        return nullptr;
    file.close();
    return notes::openNotesStore(file.fileName());
}

// A new database of the test program's private PostgreSQL server.
std::unique_ptr<notes::NotesStore> openPostgres(const QTemporaryDir&) {
    const QString url = newDatabase(Backend::PostgreSQL);
    return url.isEmpty() ? nullptr : notes::openNotesStore(url);
}

const StoreKind kStores[] = {
    {"sqlite", &openSqlite},
    {"postgresql", &openPostgres},
};

QString text(std::u16string_view s) {
    return QString::fromUtf16(s.data(), static_cast<qsizetype>(s.size()));
}

// Note texts: case folding beyond ASCII, characters an index's query language gives meaning to,
// text an index could cut short or take for other text. (No note holds a NUL character: the
// service refuses such a body, and PostgreSQL's text could not keep one. Needles may.)
constexpr std::u16string_view kTexts[] = {
    u"Hello World"sv,
    u"hello world, again"sv,
    u"ab"sv,
    u""sv,
    u"aaaa"sv,
    u"Die Straße"sv,
    u"DIE STRASSE"sv,
    u"die straẞe"sv,  // LATIN CAPITAL LETTER SHARP S
    u"İstanbul"sv,
    u"ıstanbul"sv,
    u"ISTANBUL"sv,
    u"ΟΔΟΣ"sv,
    u"οδος"sv,                // final sigma
    u"cooled to 4 \u212A"sv,  // KELVIN SIGN
    u"ſtop"sv,                // LATIN SMALL LETTER LONG S
    u"Привет, МИР"sv,
    u"party 🎉 time"sv,
    u"𐐀𐐁𐐂"sv,         // DESERET CAPITAL LETTERS (supplementary plane, with case)
    u"cafe\u0301"sv,  // e and COMBINING ACUTE ACCENT
    u"café"sv,
    u"say \"hi\" now"sv,
    u"a*b wildcard"sv,
    u"^start of it"sv,
    u"key:value"sv,
    u"(paren) open"sv,
    u"this AND that"sv,
    u"NEAR(x y)"sv,
    u"OR NOT"sv,
    u"ab\uFFFDcd"sv,
    u"ab\uFFFEcd"sv,
    u"new\nline\ttab"sv,
    u"   "sv,
};

constexpr std::u16string_view kNeedles[] = {
    u""sv,
    u"a"sv,
    u"A"sv,
    u"ab"sv,
    u"aaa"sv,
    u"aaaa"sv,
    u"aaaaa"sv,
    u"hello"sv,
    u"WORLD"sv,
    u"o w"sv,
    u"straße"sv,
    u"STRASSE"sv,
    u"ß"sv,
    u"ẞe"sv,
    u"ss"sv,
    u"İstanbul"sv,
    u"istanbul"sv,
    u"ISTANBUL"sv,
    u"ıSTAN"sv,
    u"i̇st"sv,  // i and COMBINING DOT ABOVE
    u"οδος"sv,
    u"ΟΔΟΣ"sv,
    u"ς"sv,
    u"δος"sv,
    u"δοσ"sv,
    u"4 k"sv,
    u"4 \u212A"sv,
    u"stop"sv,
    u"ſTOP"sv,
    u"привет"sv,
    u"мир"sv,
    u"🎉"sv,
    u"🎉 t"sv,
    u"𐐨𐐩"sv,  // the small letters of the Deseret text
    u"𐐨𐐩𐐪"sv,
    u"e\u0301"sv,
    u"café"sv,
    u"CAFÉ"sv,
    u"\"hi\""sv,
    u"\""sv,
    u"\"\"\""sv,
    u"a*b"sv,
    u"*"sv,
    u"^start"sv,
    u"^"sv,
    u"key:value"sv,
    u"y:v"sv,
    u"(paren)"sv,
    u"("sv,
    u"AND"sv,
    u"this AND that"sv,
    u"NEAR"sv,
    u"NEAR(x"sv,
    u"OR NOT"sv,
    u"e\0a"sv,
    u"\0"sv,
    u"b\uFFFDc"sv,
    u"b\uFFFEc"sv,
    u"\nline\t"sv,
    u"   "sv,
    u"zzz"sv,
    u"page note"sv,
};

struct Written {
    QString key;
    QString text;
    qint64 modified;
    int order;  // creation order: the later written comes first on a tie
    bool deleted = false;
};

class SearchTest : public ::testing::TestWithParam<StoreKind> {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir_.isValid());
        store_ = GetParam().open(dir_);
        ASSERT_TRUE(store_);
        ASSERT_TRUE(store_->addUser(QStringLiteral("me@example.org"), QStringLiteral("x")));
        user_ = store_->userByEmail(QStringLiteral("me@example.org"))->id;
    }

    // Every text of the table, then pages' worth of one word with ties on the date.
    void writeTheTable() {
        for (const std::u16string_view t : kTexts)
            create(text(t));
        for (int i = 0; i < 30; ++i)
            create(QStringLiteral("Page note %1").arg(i), i % 3 == 0 ? clock_ : ++clock_);
    }

    Written& create(const QString& t, qint64 when = 0) {
        when = when ? when : ++clock_;
        written_.push_back({store_->createNote(user_, t, when), t, when, order_++});
        return written_.back();
    }

    Written& find(const QString& t) {
        auto it = std::find_if(written_.begin(), written_.end(),
                               [&](const Written& w) { return w.text == t; });
        EXPECT_NE(it, written_.end()) << t.toStdString();
        return *it;
    }

    void update(const QString& from, const QString& to) {
        Written& w = find(from);
        ASSERT_TRUE(store_->updateNote(user_, w.key, to, ++clock_, std::nullopt));
        w.text = to;
        w.modified = clock_;
    }

    void markDeleted(const QString& t) {
        Written& w = find(t);
        ASSERT_TRUE(store_->markDeleted(user_, w.key, ++clock_));
        w.deleted = true;
        w.modified = clock_;
    }

    void purge(const QString& t) {
        const QString key = find(t).key;
        ASSERT_TRUE(store_->purge(user_, key));
        std::erase_if(written_, [&](const Written& w) { return w.key == key; });
    }

    // The plain answer: every live note containing needle, newest change first.
    std::vector<const Written*> expected(const QString& needle) const {
        std::vector<const Written*> hits;
        for (const Written& w : written_) {
            if (!w.deleted && w.text.contains(needle, Qt::CaseInsensitive))
                hits.push_back(&w);
        }
        std::sort(hits.begin(), hits.end(), [](const Written* a, const Written* b) {
            return a->modified != b->modified ? a->modified > b->modified : a->order > b->order;
        });
        return hits;
    }

    // Every needle of the table, as a whole and page by page.
    template <std::size_t N = std::size(kNeedles)>
    void expectThePlainAnswer(const char* when,
                              const std::u16string_view (&needles)[N] = kNeedles) {
        struct Page {
            int limit;
            int offset;
        };
        const Page pages[] = {{1000, 0}, {10, 0}, {10, 10}, {7, 25}, {3, 40}, {1, 1}};
        for (const std::u16string_view n : needles) {
            const QString needle = text(n);
            const auto all = expected(needle);
            for (const Page& page : pages) {
                SCOPED_TRACE(::testing::Message() << when << ", needle \"" << needle.toStdString()
                                                  << "\" (" << needle.size() << " UTF-16), limit "
                                                  << page.limit << ", offset " << page.offset);
                qint64 total = -1;
                const auto found = store_->search(user_, needle, page.limit, page.offset, &total);
                EXPECT_EQ(total, qint64(all.size()));
                std::vector<QString> want, got;
                for (std::size_t i = std::size_t(page.offset);
                     i < all.size() && i < std::size_t(page.offset + page.limit); ++i)
                    want.push_back(all[i]->text);
                for (const notes::Note& note : found) {
                    got.push_back(note.text);
                    EXPECT_FALSE(note.deleted);
                    const auto it = std::find_if(all.begin(), all.end(), [&](const Written* w) {
                        return w->key == note.key;
                    });
                    ASSERT_NE(it, all.end()) << note.text.toStdString();
                    EXPECT_EQ(note.modifyMicros, (*it)->modified);
                }
                EXPECT_EQ(got, want);
            }
        }
    }

    QTemporaryDir dir_;
    std::unique_ptr<notes::NotesStore> store_;
    qint64 user_ = 0;
    std::vector<Written> written_;
    qint64 clock_ = 1'700'000'000'000'000;
    int order_ = 0;
};

TEST_P(SearchTest, FindsWhatContainsTheNeedleIgnoringCase) {
    writeTheTable();
    markDeleted(QStringLiteral("hello world, again"));
    markDeleted(text(u"ab\uFFFDcd"sv));
    expectThePlainAnswer("as written");
}

TEST_P(SearchTest, FollowsEveryChangeToTheNotes) {
    writeTheTable();
    expectThePlainAnswer("before the changes");

    update(QStringLiteral("Hello World"), QStringLiteral("goodbye"));
    update(QStringLiteral("goodbye"), QStringLiteral("HELLO AGAIN, world"));
    update(QStringLiteral("OR NOT"), text(u"Straße NEAR(x"sv));
    update(QStringLiteral("Page note 7"), QStringLiteral("not on a page any more"));
    markDeleted(QStringLiteral("Page note 3"));
    markDeleted(QStringLiteral("aaaa"));
    // A deleted note stays deleted when it is written.
    update(QStringLiteral("aaaa"), QStringLiteral("aaaaaa"));
    purge(QStringLiteral("Page note 29"));  // the latest written
    purge(text(u"die straẞe"sv));
    // The purged note's place is taken by a new one.
    create(QStringLiteral("zzz sleeping"));
    // A line appended to the download note, made first and then extended.
    const QString header = QStringLiteral("Ferrybox_Downloads");
    const notes::Appended made =
        store_->appendLine(user_, header, QStringLiteral("https://example.org/a.zip"), ++clock_,
                           std::nullopt, 1 << 20);
    written_.push_back(
        {made.key, header + QStringLiteral("\nhttps://example.org/a.zip"), clock_, order_++});
    store_->appendLine(user_, header, QStringLiteral("https://example.org/Straße.zip"), ++clock_,
                       std::nullopt, 1 << 20);
    written_.back().text += text(u"\nhttps://example.org/Straße.zip"sv);
    written_.back().modified = clock_;
    expectThePlainAnswer("after the changes");
    qint64 total = 0;
    EXPECT_EQ(store_->search(user_, QStringLiteral("EXAMPLE.ORG/a.zip"), 10, 0, &total).size(), 1u);

    // Another account's notes, brought in and then removed with it, are never this account's.
    notes::User other{0, QStringLiteral("other@example.org"), QStringLiteral("x")};
    std::vector<notes::Note> theirs;
    for (int i = 0; i < 5; ++i) {
        theirs.push_back({QStringLiteral("%1").arg(i, 32, 16, QLatin1Char('0')),
                          QStringLiteral("Hello from elsewhere %1").arg(i), clock_ - i, clock_ - i,
                          i == 4});
    }
    ASSERT_TRUE(store_->importAccount(other, theirs));
    const qint64 otherId = store_->userByEmail(other.email)->id;
    const auto found = store_->search(otherId, QStringLiteral("HELLO FROM"), 10, 0, &total);
    EXPECT_EQ(total, 4);
    ASSERT_EQ(found.size(), 4u);
    EXPECT_EQ(found[0].key, theirs[0].key);
    expectThePlainAnswer("beside another account");
    ASSERT_TRUE(store_->removeUser(other.email));
    EXPECT_TRUE(store_->search(otherId, QStringLiteral("HELLO FROM"), 10, 0, &total).empty());
    // New notes may take the places of the removed account's.
    for (int i = 0; i < 6; ++i)
        create(QStringLiteral("page note after %1").arg(i));
    expectThePlainAnswer("after another account was removed");
}

TEST_P(SearchTest, FindsAWordOfMostNotesAsOneOfFew) {
    // An account of 3,000 notes brought in at once, a tenth of them deleted, with ties on the
    // date; beside the table's notes of another account.
    writeTheTable();
    notes::User many{0, QStringLiteral("many@example.org"), QStringLiteral("x")};
    std::vector<notes::Note> theirs;
    for (int i = 0; i < 3000; ++i) {
        const qint64 when = clock_ - i / 3;
        theirs.push_back({QStringLiteral("%1").arg(i, 32, 16, QLatin1Char('0')),
                          QStringLiteral("Common word %1%2").arg(i).arg(i % 97 ? "" : " Rare"),
                          when, when, i % 10 == 3});
    }
    ASSERT_TRUE(store_->importAccount(many, theirs));
    user_ = store_->userByEmail(many.email)->id;
    written_.clear();
    for (std::size_t i = 0; i < theirs.size(); ++i) {
        const notes::Note& n = theirs[i];
        written_.push_back({n.key, n.text, n.modifyMicros, int(theirs.size() - i), n.deleted});
    }
    static constexpr std::u16string_view kWords[] = {
        u"common"sv, u"COMMON WORD 1"sv, u"word 29"sv, u"rare"sv, u"ARE"sv, u"Hello"sv, u"o"sv,
    };
    expectThePlainAnswer("an account of 3,000 notes", kWords);
}

// What only a database in a file has: older schemas and foreign programs' traces in it.
class SqliteSearchTest : public SearchTest {};

TEST_P(SqliteSearchTest, AnOlderIndexOrNoneIsMadeRightOnOpening) {
    struct Older {
        const char* what;
        const char* sql;  // run on the closed database
    };
    const Older olders[] = {
        {"a database of the third schema, before search had an index",
         "DROP TRIGGER note_search_insert; DROP TRIGGER note_search_update;"
         "DROP TRIGGER note_search_delete; DROP TABLE note_search;"
         "DROP TABLE note_search_folding; DROP TABLE note_versions;"
         "CREATE TABLE old_notes (key TEXT PRIMARY KEY, user_id INTEGER NOT NULL"
         "  REFERENCES users(id) ON DELETE CASCADE, text TEXT NOT NULL, created INTEGER NOT NULL,"
         "  modified INTEGER NOT NULL, deleted INTEGER NOT NULL DEFAULT 0);"
         "INSERT INTO old_notes (rowid, key, user_id, text, created, modified, deleted)"
         "  SELECT rowid, key, user_id, text, created, modified, deleted FROM notes;"
         "DROP TABLE notes; ALTER TABLE old_notes RENAME TO notes;"
         "CREATE INDEX notes_by_change ON notes(user_id, modified);"
         "PRAGMA user_version=3;"},
        {"an index folded by other Unicode tables",
         "UPDATE note_search SET folded = upper(folded) || 'x';"
         "UPDATE note_search_folding SET unicode_version = 0;"},
        // The notes after a purged one keep their places (and so their index entries and their
        // order on a tied date).
        {"a database vacuumed by hand", "VACUUM;"},
    };
    writeTheTable();
    purge(QStringLiteral("ab"));
    purge(QStringLiteral("Page note 4"));
    for (const Older& older : olders) {
        store_.reset();
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(dir_.filePath(QStringLiteral("notes.db")).toUtf8().constData(), &db),
                  SQLITE_OK);
        char* error = nullptr;
        const int status = sqlite3_exec(db, older.sql, nullptr, nullptr, &error);
        const std::string why = error ? error : "";
        sqlite3_free(error);
        sqlite3_close(db);
        ASSERT_EQ(status, SQLITE_OK) << why;
        store_ = GetParam().open(dir_);
        ASSERT_TRUE(store_);
        expectThePlainAnswer(older.what);
        create(QStringLiteral("Hello after %1").arg(QLatin1String(older.what)));
        expectThePlainAnswer(older.what);
    }
}

// The trigram index is what makes a search of a large account quick, but PostgreSQL's planner
// decides whether to use it from its estimates; a search that reads the whole table is slower
// the more notes there are. The database's own counters show which it did.
TEST(PostgresSearchTest, AWordOfFewNotesIsLookedUpNotReadFromEveryNote) {
    const QString url = newDatabase(Backend::PostgreSQL);
    ASSERT_FALSE(url.isEmpty());
    auto store = notes::openNotesStore(url);
    notes::PgConnections statistics(url);
    // Notes as long as a few links with their comments; one in a hundred holds the word.
    notes::User many{0, QStringLiteral("many@example.org"), QStringLiteral("x")};
    std::vector<notes::Note> theirs;
    const QString filler = QStringLiteral("lorem ipsum ").repeated(30);
    for (int i = 0; i < 3000; ++i) {
        theirs.push_back(
            {QStringLiteral("%1").arg(i, 32, 16, QLatin1Char('0')),
             QStringLiteral("note %1\n%2%3").arg(i).arg(filler, i % 100 ? "" : "needle"),
             1'700'000'000'000'000 + i, 1'700'000'000'000'000 + i, false});
    }
    ASSERT_TRUE(store->importAccount(many, theirs));
    store->importsDone();
    const qint64 user = store->userByEmail(many.email)->id;

    struct Scans {
        qint64 whole = 0, indexed = 0;
    };
    const auto scans = [&] {
        const notes::PgResult r = statistics.take().run(
            "SELECT seq_scan, coalesce(idx_scan, 0) FROM pg_stat_user_tables "
            "WHERE relname = 'notes'");
        return Scans{r.integer(0, 0), r.integer(0, 1)};
    };
    const auto expectLookedUp = [&](const char* when) {
        SCOPED_TRACE(when);
        const Scans before = scans();
        // On connections of their own, which report their counters when they close.
        auto searcher = notes::openNotesStore(url);
        qint64 total = 0;
        searcher->search(user, QStringLiteral("NEEDLE"), 100, 0, &total);
        ASSERT_EQ(total, 30);
        searcher.reset();
        Scans after;
        ASSERT_TRUE(testsupport::waitUntil([&] {
            after = scans();
            return after.whole + after.indexed > before.whole + before.indexed;
        }));
        EXPECT_EQ(after.whole, before.whole);
    };
    expectLookedUp("right after the account was moved over");
    for (int i = 0; i < 500; ++i)
        ASSERT_TRUE(store->updateNote(user, theirs[std::size_t(i)].key,
                                      theirs[std::size_t(i)].text + QStringLiteral(" changed"),
                                      1'800'000'000'000'000 + i, std::nullopt));
    expectLookedUp("after 500 changes");
}

INSTANTIATE_TEST_SUITE_P(Stores, SearchTest, ::testing::ValuesIn(kStores),
                         [](const auto& info) { return std::string(info.param.name); });
INSTANTIATE_TEST_SUITE_P(File, SqliteSearchTest, ::testing::Values(kStores[0]),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace servicetest
