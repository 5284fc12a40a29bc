// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/NoteMerge.h"

#include <dtl/dtl.hpp>

#include <QSet>
#include <QStringList>
#include <map>
#include <vector>

namespace notes {

namespace {

using Lines = std::vector<QString>;

Lines linesOf(const QString& text) {
    const QStringList split = text.split(QLatin1Char('\n'));
    return Lines(split.begin(), split.end());
}

// The edit script from a to b: each element a line with its 1-based place in a (beforeIdx) and
// in b (afterIdx), and whether it is common to both, only in a, or only in b.
auto editScript(const Lines& a, const Lines& b) {
    dtl::Diff<QString, Lines> diff(a, b);
    diff.compose();
    return diff.getSes().getSequence();
}

}  // namespace

QString mergeNoteText(const QString& base, const QString& writer, const QString& current) {
    const Lines was = linesOf(base);
    const Lines mine = linesOf(writer);
    const std::size_t n = was.size();

    // What the others did to the base: the base lines they removed, and the lines they added,
    // each filed under the base line it came before (n: after the last).
    std::vector<bool> removedByOthers(n, false);
    std::map<std::size_t, Lines> addedBefore;
    {
        Lines pending;
        for (const auto& [line, where] : editScript(was, linesOf(current))) {
            if (where.type == dtl::SES_ADD) {
                pending.push_back(line);
                continue;
            }
            const auto at = static_cast<std::size_t>(where.beforeIdx - 1);
            if (where.type == dtl::SES_DELETE)
                removedByOthers[at] = true;
            if (!pending.empty()) {
                auto& list = addedBefore[at];
                list.insert(list.end(), pending.begin(), pending.end());
                pending.clear();
            }
        }
        if (!pending.empty())
            addedBefore[n] = pending;
    }

    // Where the writer has each base line it kept, and which base line (if any) each of its
    // lines is.
    std::vector<long long> keptAt(n, -1);
    std::vector<long long> baseOf(mine.size(), -1);
    for (const auto& [line, where] : editScript(was, mine)) {
        if (where.type == dtl::SES_COMMON) {
            keptAt[static_cast<std::size_t>(where.beforeIdx - 1)] = where.afterIdx - 1;
            baseOf[static_cast<std::size_t>(where.afterIdx - 1)] = where.beforeIdx - 1;
        }
    }

    // The others' lines go before the writer's line of the first base line from their place on
    // that the writer kept; failing one, at the end. A line the writer has already is not added.
    const QSet<QString> writerHas(mine.begin(), mine.end());
    std::map<long long, Lines> insertBefore;  // writer's line index, or mine.size() for the end
    for (const auto& [at, lines] : addedBefore) {
        std::size_t kept = at;
        while (kept < n && keptAt[kept] < 0)
            ++kept;
        const long long target = kept < n ? keptAt[kept] : static_cast<long long>(mine.size());
        auto& list = insertBefore[target];
        for (const QString& line : lines) {
            if (!writerHas.contains(line))
                list.push_back(line);
        }
    }

    QStringList merged;
    for (std::size_t j = 0; j <= mine.size(); ++j) {
        if (const auto it = insertBefore.find(static_cast<long long>(j)); it != insertBefore.end())
            merged.append(QStringList(it->second.begin(), it->second.end()));
        if (j == mine.size())
            break;
        const long long from = baseOf[j];
        if (from >= 0 && removedByOthers[static_cast<std::size_t>(from)])
            continue;
        merged.append(mine[j]);
    }
    return merged.join(QLatin1Char('\n'));
}

bool appendAdds(const QString& line, const QString& current, const QString& seen) {
    const auto has = [&line](const QString& text) {
        return !text.isNull() && text.split(QLatin1Char('\n')).contains(line);
    };
    return !has(current) && !has(seen);
}

QString appendedText(const QString& current, const QString& line) {
    return current.endsWith(QLatin1Char('\n')) ? current + line
                                               : current + QLatin1Char('\n') + line;
}

}  // namespace notes
