// SPDX-License-Identifier: GPL-3.0-or-later
// Search through every kind of store, against the plain answer: the notes not deleted whose text
// contains the needle without regard to case, newest change first.
#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>
#include <algorithm>

#include "service/NotesStore.h"

namespace servicetest {
namespace {

// Where a store can live; each kind of store is one row.
struct StoreKind {
    const char* name;
    std::unique_ptr<notes::NotesStore> (*open)(const QTemporaryDir& dir);
};

// A SQLite file: made private first, as the service's umask makes it.
std::unique_ptr<notes::NotesStore> openSqlite(const QTemporaryDir& dir) {
    QFile file(dir.filePath(QStringLiteral("notes.db")));
    if (!file.open(QIODevice::WriteOnly) ||
        !file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner))
        return nullptr;
    file.close();
    return notes::openNotesStore(file.fileName());
}

const StoreKind kStores[] = {
    {"sqlite", &openSqlite},
};

class SearchTest : public ::testing::TestWithParam<StoreKind> {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir_.isValid());
        store_ = GetParam().open(dir_);
        ASSERT_TRUE(store_);
        ASSERT_TRUE(store_->addUser("me@example.org", "x"));
        user_ = store_->userByEmail("me@example.org")->id;
    }

    QTemporaryDir dir_;
    std::unique_ptr<notes::NotesStore> store_;
    qint64 user_ = 0;
};

TEST_P(SearchTest, FindsTextWithoutRegardToCase) {
    const QString key = store_->createNote(user_, QStringLiteral("Hello World"), 1);
    qint64 total = 0;
    const auto found = store_->search(user_, QStringLiteral("WORLD"), 10, 0, &total);
    EXPECT_EQ(total, 1);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].key, key);
}

INSTANTIATE_TEST_SUITE_P(Stores, SearchTest, ::testing::ValuesIn(kStores),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace servicetest
