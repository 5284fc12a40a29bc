// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>
#include <memory>
#include <vector>

#include "foundation/ByteRanges.h"

struct sqlite3;

namespace foundation {

// What a transfer needs to go on in a later process: kept in an SQLite file from the moment the
// transfer starts until it ends, so that quitting, a crash or a power cut loses no more than the
// last seconds of it. Every row belongs to the process that runs its transfer; a row whose process
// is gone is an orphan, which the next agent claims and goes on with.
class DownloadJournal {
public:
    struct Entry {
        qint64 id = 0;
        QUrl url;
        double timeoutInterval = 60.0;
        QString destination;  // empty until decided
        bool allowOverwrite = true;
        QString part;          // the partial file, empty until made
        QByteArray validator;  // the ETag, else the Last-Modified text
        qint64 length = -1;
        // What was written: after a crash it is in the file while the machine has not started
        // again since; after a power cut only what was synced (recordSynced) is sure to be.
        ByteRanges onDisk;
        bool rangesBroken = false;  // the server answers ranges wrongly
    };

    // The process's journal, null until open() succeeded.
    static DownloadJournal* shared();
    // Opens (making it and its folder when needed) the journal at path for this process; a
    // journal that cannot be opened is logged and the transfers go on without one.
    static bool open(const QString& path);
    static void close();
    // $XDG_DATA_HOME/Ferrybox/transfers.sqlite
    static QString standardPath();

    ~DownloadJournal();
    DownloadJournal(const DownloadJournal&) = delete;
    DownloadJournal& operator=(const DownloadJournal&) = delete;

    // A new row for a transfer of url, owned by this process; 0 when it could not be written.
    // Written through to the disk before it returns: a row added before the note is stored
    // must outlive a power cut that follows.
    qint64 add(const QUrl& url, double timeoutInterval);
    // Outlives the process at once, and the machine within a moment.
    void update(const Entry& entry);
    // Of the entry's partial file, these bytes are on the disk itself (the file was synced).
    void recordSynced(qint64 id, const ByteRanges& onDisk);
    void remove(qint64 id);
    // The rows whose process is gone, made this process's.
    std::vector<Entry> claimOrphans();
    // The partial file of every row, whoever owns it: files no sweep may take.
    std::vector<QString> partialFiles();

private:
    explicit DownloadJournal(sqlite3* db);
    bool exec(const char* sql);

    sqlite3* db_;
};

}  // namespace foundation
