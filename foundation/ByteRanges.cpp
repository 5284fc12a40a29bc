// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/ByteRanges.h"

#include <QList>
#include <algorithm>

namespace foundation {

void ByteRanges::add(qint64 start, qint64 end) {
    if (start < 0 || end <= start)
        return;
    // Swallow every range that touches or overlaps [start, end).
    auto it = ranges_.upper_bound(start);
    if (it != ranges_.begin()) {
        auto before = std::prev(it);
        if (before->second >= start) {
            start = before->first;
            end = std::max(end, before->second);
            it = ranges_.erase(before);
        }
    }
    while (it != ranges_.end() && it->first <= end) {
        end = std::max(end, it->second);
        it = ranges_.erase(it);
    }
    ranges_.emplace(start, end);
}

qint64 ByteRanges::total() const {
    qint64 sum = 0;
    for (const auto& [start, end] : ranges_)
        sum += end - start;
    return sum;
}

bool ByteRanges::covers(qint64 length) const {
    return length == 0 || prefix() >= length;
}

qint64 ByteRanges::prefix() const {
    const auto first = ranges_.find(0);
    return first == ranges_.end() ? 0 : first->second;
}

qint64 ByteRanges::extent() const {
    return ranges_.empty() ? 0 : ranges_.rbegin()->second;
}

std::optional<std::pair<qint64, qint64>> ByteRanges::firstGap(qint64 from, qint64 length) const {
    qint64 at = from;
    for (const auto& [start, end] : ranges_) {
        if (end <= at)
            continue;
        if (start > at)
            return std::pair(at, length >= 0 ? std::min(start, length) : start);
        at = end;
    }
    if (length < 0)
        return std::pair(at, qint64(-1));
    if (at < length)
        return std::pair(at, length);
    return std::nullopt;
}

QByteArray ByteRanges::toText() const {
    QByteArray text;
    for (const auto& [start, end] : ranges_) {
        if (!text.isEmpty())
            text += ',';
        text += QByteArray::number(start) + '-' + QByteArray::number(end);
    }
    return text;
}

ByteRanges ByteRanges::fromText(const QByteArray& text) {
    ByteRanges ranges;
    if (text.isEmpty())
        return ranges;
    for (const QByteArray& part : text.split(',')) {
        const QList<QByteArray> bounds = part.split('-');
        bool startOk = false;
        bool endOk = false;
        const qint64 start = bounds.value(0).toLongLong(&startOk);
        const qint64 end = bounds.value(1).toLongLong(&endOk);
        if (bounds.size() != 2 || !startOk || !endOk || start < 0 || end <= start)
            return ByteRanges();
        ranges.add(start, end);
    }
    return ranges;
}

}  // namespace foundation
