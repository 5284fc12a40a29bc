// SPDX-License-Identifier: GPL-3.0-or-later
// The journal's side of a transfer: what it writes while the bytes come in, how the next process
// takes it up, and how it stops when this process ends.
#include <unistd.h>
#include <QCoreApplication>
#include <QThreadPool>

#include "foundation/URLDownloadPrivate.h"

namespace foundation {

namespace {

// The journal's progress is written after this much progress or this long, whichever comes
// first; the partial file is synced at most this often.
constexpr qint64 kJournalEveryBytes = 1024 * 1024;
constexpr int kJournalEveryMs = 500;
constexpr int kSyncEveryMs = 2000;

}  // namespace

// Writes what the next process needs: often enough that a process killed at any moment leaves
// little to fetch twice. Bytes count as being on the disk itself only once the partial file is
// synced, which another thread does every few seconds; until then they survive the process but
// not the machine, and the journal tells the two apart.
void URLDownload::Private::journal(bool now) {
    DownloadJournal* journal = DownloadJournal::shared();
    if (!journalId || !journal)
        return;
    const qint64 total = onDisk.total();
    if (!now && sinceJournal.isValid() &&
        (total == journaledBytes || (total - journaledBytes < kJournalEveryBytes &&
                                     sinceJournal.elapsed() < kJournalEveryMs))) {
        return;
    }
    sinceJournal.start();
    journaledBytes = total;
    DownloadJournal::Entry entry;
    entry.id = journalId;
    entry.url = q->request_.url;
    entry.timeoutInterval = q->request_.timeoutInterval;
    entry.destination = destination;
    entry.allowOverwrite = allowOverwrite;
    entry.part = part.fileName();
    entry.validator = validator;
    entry.length = length;
    entry.onDisk = onDisk;
    entry.rangesBroken = rangesBroken;
    if (part.isOpen())
        part.flush();
    journal->update(entry);
    if (part.isOpen() && !syncing && (!sinceSync.isValid() || sinceSync.elapsed() >= kSyncEveryMs))
        syncInBackground();
}

void URLDownload::Private::syncInBackground() {
    const int fd = ::dup(part.handle());
    if (fd < 0)
        return;
    syncing = true;
    sinceSync.start();
    QThreadPool::globalInstance()->start(
        [this, fd, ranges = onDisk, alive = std::weak_ptr<int>(lifetime)] {
            const bool synced = ::fdatasync(fd) == 0;
            ::close(fd);
            QMetaObject::invokeMethod(
                QCoreApplication::instance(),
                [this, synced, ranges, alive] {
                    if (alive.expired())
                        return;
                    syncing = false;
                    if (synced && journalId && DownloadJournal::shared())
                        DownloadJournal::shared()->recordSynced(journalId, ranges);
                },
                Qt::QueuedConnection);
        });
}

// At once and on the disk itself: the process is about to end.
void URLDownload::Private::journalAndSync() {
    journal(true);
    if (part.isOpen() && ::fdatasync(part.handle()) == 0 && journalId && DownloadJournal::shared())
        DownloadJournal::shared()->recordSynced(journalId, onDisk);
}

void URLDownload::Private::forgetJournal() {
    if (journalId && DownloadJournal::shared())
        DownloadJournal::shared()->remove(journalId);
    journalId = 0;
}

void URLDownload::resumeTransfer(const DownloadJournal::Entry& entry,
                                 URLDownloadDelegate* delegate) {
    d_->journalId = entry.id;
    URLRequest request;
    request.url = entry.url;
    request.timeoutInterval = entry.timeoutInterval;
    if (!adopt(request, delegate))
        return;
    d_->journaledPart = entry.part;
    d_->validator = entry.validator;
    d_->length = entry.length;
    d_->onDisk = entry.part.isEmpty() ? ByteRanges() : entry.onDisk;
    d_->rangesBroken = entry.rangesBroken;
    if (d_->rangesBroken || d_->validator.isEmpty())
        d_->onDisk.clear();
    // A file that was whole but not yet in place: its last byte is asked for again, so that the
    // server's answer gives the response and the name as for any other.
    if (d_->length > 0 && d_->onDisk.covers(d_->length)) {
        d_->onDisk.clear();
        d_->onDisk.add(0, d_->length - 1);
    }
    d_->begin();
}

// Like cancel, but what the journal keeps stays for the next process.
void URLDownload::suspend() {
    if (d_->cancelled || !d_->self)
        return;
    if (!d_->journalId || !DownloadJournal::shared()) {
        cancel();
        return;
    }
    d_->stage = Private::Stage::Over;
    d_->retryTimer.stop();
    d_->readDelay.stop();
    d_->closeAll();
    d_->dropVideoRun();  // its own partial files stay, for the next run to go on with
    d_->journalAndSync();
    if (d_->part.isOpen())
        d_->part.close();
    d_->part.setFileName(QString());  // kept
    d_->cancelled = true;
    --downloadsInFlight();
    runningDownloads().remove(this);
    std::shared_ptr<URLDownload> keep = std::move(d_->self);
}

void URLDownload::suspendAll() {
    const QSet<URLDownload*> all = runningDownloads();
    for (URLDownload* download : all)
        download->suspend();
}

}  // namespace foundation
