// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <QStringList>

namespace foundation {

// The hidden files that transfers write before renaming them into place: ".NAME.HOST-PID-N.part"
// beside the destination NAME. HOST is eight hexadecimal digits that tell this machine from the
// others that may write into the same folder (a home shared over NFS), PID is the writer's
// process and N counts that process's transfers. NAME is shortened when the whole would exceed
// the 255 bytes a file system allows a name; HOST, PID and N keep it unique. The older form
// ".NAME.PID-N.part" names no machine: such a file counts as this machine's.
//
// A partial file that no journal keeps is never left behind by a process that ends through
// exit(), whatever the reason (the event loop ends, the X connection is lost): the files being
// written are removed at exit. One that a killed or crashed process left is removed by the next
// agent that finds it (removeStale), and only when its process is gone and no journal names it:
// a journaled one is the next process's to go on with.
class PartialFiles {
public:
    static QString nameFor(const QString& fileName, qint64 pid, int serial);
    // The name the machine with this tag gives.
    static QString nameFor(const QString& fileName, qint64 pid, int serial, const QString& host);
    // This machine's HOST.
    static QString hostTag();
    // Whether a file name has the form of a partial file, of any machine or version. A finished
    // file is never given such a name (see HTTPURLResponse::suggestedFilename), so that
    // removeStale cannot take it.
    static bool isPartialName(const QString& fileName);

    // While a path is tracked it is removed at the process's exit.
    static void track(const QString& path);
    static void untrack(const QString& path);

    // Removes from folder (not its subfolders) the partial files of this machine whose writer is
    // no longer running, save those in keep (full paths); answers how many. Any other file, a
    // partial file of another machine or program included, is left alone.
    static int removeStale(const QString& folder, const QStringList& keep = {});
};

}  // namespace foundation
