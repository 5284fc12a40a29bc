// SPDX-License-Identifier: GPL-3.0-or-later
// Partial files left by an agent that was killed: which ones the next agent removes.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include "foundation/PartialFiles.h"
#include "tests/support/QtPrinters.h"

namespace {

using foundation::PartialFiles;

// The id of a process that has ended.
qint64 endedProcess() {
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(0);
    ::waitpid(child, nullptr, 0);
    return child;
}

struct File {
    QString name;
    bool removed;
    bool writtenLongAgo = false;  // before this process started: a process of the id since
};

TEST(PartialFilesTest, OnlyThoseOfEndedWritersOnThisMachineGo) {
    QTemporaryDir dir;
    const qint64 ended = endedProcess();
    const qint64 running = ::getpid();
    const QString elsewhere = PartialFiles::hostTag() == "00000000" ? "00000001" : "00000000";
    // As long as a file system allows a name, in characters of two bytes and more.
    const QString longest = QString("ü").repeated(101) + QString("€").repeated(16) + "x.txt";
    ASSERT_EQ(longest.toUtf8().size(), 255);
    const File files[] = {
        {PartialFiles::nameFor("film.mkv", ended, 3), true},
        {PartialFiles::nameFor("report 2.pdf", ended, 1), true},
        {PartialFiles::nameFor(longest, ended, 1), true},
        {PartialFiles::nameFor("film.mkv", running, 1), false},
        // The id now belongs to a process that started after the file was last written.
        {PartialFiles::nameFor("old.iso", running, 2), true, true},
        // Another machine's, in a shared home: its process ids mean nothing here.
        {PartialFiles::nameFor("film.mkv", ended, 4, elsewhere), false},
        // Of an older Ferrybox here, whose names tell no machine.
        {QString(".film.mkv.%1-5.part").arg(ended), true},
        {QString(".film.mkv.%1-6.part").arg(running), false},
        // Not ours: a person's own files, other programs' partial files.
        {".notes.part", false},
        {".film.mkv.part", false},
        {QString(".x.%1.part").arg(ended), false},
        {QString("film.mkv.%1-1.part").arg(ended), false},
        {QString(".film.mkv.%1-1.part.bak").arg(ended), false},
        {"film.mkv", false},
    };
    for (const File& f : files) {
        EXPECT_LE(f.name.toUtf8().size(), 255) << f.name.toStdString();
        QFile file(dir.filePath(f.name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << f.name.toStdString();
        if (f.writtenLongAgo) {
            ASSERT_TRUE(file.setFileTime(QDateTime::fromSecsSinceEpoch(1000000000),
                                         QFileDevice::FileModificationTime));
        }
    }
    // A folder and a link of the pattern are no files of ours either.
    const QString folder = PartialFiles::nameFor("folder", ended, 1);
    const QString link = PartialFiles::nameFor("link", ended, 1);
    ASSERT_TRUE(QDir(dir.path()).mkdir(folder));
    ASSERT_TRUE(QFile::link(dir.filePath("film.mkv"), dir.filePath(link)));

    int expectedRemovals = 0;
    for (const File& f : files)
        expectedRemovals += f.removed ? 1 : 0;
    EXPECT_EQ(PartialFiles::removeStale(dir.path()), expectedRemovals);
    for (const File& f : files)
        EXPECT_EQ(QFile::exists(dir.filePath(f.name)), !f.removed) << f.name.toStdString();
    EXPECT_TRUE(QFileInfo(dir.filePath(folder)).isDir());
    EXPECT_TRUE(QFileInfo(dir.filePath(link)).isSymLink());
}

}  // namespace
