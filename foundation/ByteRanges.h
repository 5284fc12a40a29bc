// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QtGlobal>
#include <map>
#include <optional>
#include <utility>

namespace foundation {

// The parts of a file that are on disk, as half-open byte ranges [start, end) kept merged.
class ByteRanges {
public:
    void add(qint64 start, qint64 end);
    void clear() { ranges_.clear(); }
    qint64 total() const;
    // Whether [0, length) is all there.
    bool covers(qint64 length) const;
    // The first stretch missing from [from, length), or none. With length -1 (unknown) the
    // stretch after the first range that holds `from` is open-ended (its end is -1).
    std::optional<std::pair<qint64, qint64>> firstGap(qint64 from, qint64 length) const;
    // Where the range that begins at 0 ends: how much of the file's start is whole.
    qint64 prefix() const;
    // Where the last range ends; 0 when there is none.
    qint64 extent() const;

    // "0-1048576,2097152-4194304" and back; a text that does not parse gives nothing.
    QByteArray toText() const;
    static ByteRanges fromText(const QByteArray& text);

private:
    std::map<qint64, qint64> ranges_;  // start -> end
};

}  // namespace foundation
