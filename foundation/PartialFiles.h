// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

namespace foundation {

// The hidden files that transfers write before renaming them into place: ".NAME.PID-N.part"
// beside the destination NAME, from the process PID, N counting that process's transfers.
//
// A partial file is never left behind by a process that ends through exit(), whatever the
// reason (the event loop ends, the X connection is lost): the files being written are removed
// at exit. One that a killed or crashed process left is removed by the next agent that finds it
// (removeStale), and only when its process is gone.
class PartialFiles {
public:
    static QString nameFor(const QString& fileName, qint64 pid, int serial);

    // While a path is tracked it is removed at the process's exit.
    static void track(const QString& path);
    static void untrack(const QString& path);

    // Removes from folder (not its subfolders) the partial files whose writer is no longer
    // running; answers how many. Any other file, a partial file of another program included, is
    // left alone.
    static int removeStale(const QString& folder);
};

}  // namespace foundation
