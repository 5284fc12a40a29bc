// SPDX-License-Identifier: GPL-3.0-or-later
// How a transfer shares its file among connections: a connection that is done makes way for
// another on what is left, a large file from a server that serves ranges gets more connections,
// each taking half of what the busiest one still has to bring, and an answer that cannot be
// trusted starts the file over.
#include <algorithm>
#include <limits>

#include "foundation/URLDownloadPrivate.h"

namespace foundation {

namespace {

// Files from this size on come over several connections when the server serves ranges; never
// more than this many of ours to one server, and a range is split only while both halves are
// worth a connection.
constexpr qint64 kSegmentedFrom = 16 * 1024 * 1024;
constexpr int kMostConnectionsPerHost = 8;
constexpr qint64 kSmallestHalf = 1024 * 1024;

}  // namespace

void URLDownload::Private::connectionDone(DownloadConnection* c) {
    const bool toTheEnd = endOf(c) < 0;
    close(c);
    if (stage != Stage::Receiving)
        return;
    if ((length >= 0 && onDisk.covers(length)) || (toTheEnd && length < 0)) {
        complete();
        return;
    }
    takeMoreConnections();
}

void URLDownload::Private::connectionFailed(DownloadConnection* c, const Error& error,
                                            std::optional<double> retryAfter) {
    close(c);
    lastError = error;
    if (stage == Stage::Over)
        return;
    if (!connections.empty()) {
        // The others go on; a server that turns one away may want fewer of ours, and what this
        // one left is taken once one of the others is done.
        connectionLimit = std::max(1, static_cast<int>(connections.size()));
        return;
    }
    attemptFailed(error, retryAfter);
}

// From the first byte again: with keep (an answer that brings the whole file) or a new connection.
void URLDownload::Private::startOver(DownloadConnection* keep) {
    for (DownloadConnection* c : openConnections()) {
        if (c != keep)
            close(c);
    }
    onDisk.clear();
    if (part.isOpen())
        part.resize(0);
    if (reported > 0)
        journal(true);
    if (keep) {
        keep->offset = 0;
        keep->end = -1;
        keep->ranged = false;
    } else if (stage != Stage::Over) {
        open(0, -1);
    }
}

// The server answered a range with the wrong bytes: nothing it sent in ranges is trusted, and
// the file comes whole over one connection.
void URLDownload::Private::useOneConnection() {
    rangesBroken = true;
    acceptsRanges = false;
    startOver(nullptr);
}

void URLDownload::Private::takeMoreConnections() {
    if (stage != Stage::Receiving)
        return;
    if (rangesBroken && onDisk.total() > 0 && connections.empty()) {
        startOver(nullptr);
        return;
    }
    const auto unclaimed = [this] {
        ByteRanges claimed = onDisk;
        for (const auto& c : connections)
            claimed.add(c->offset,
                        endOf(c.get()) >= 0 ? endOf(c.get()) : std::numeric_limits<qint64>::max());
        return claimed.firstGap(0, length);
    };
    if (connections.empty()) {
        const auto gap = unclaimed();
        if (!gap) {
            complete();
            return;
        }
        open(gap->first, gap->second);
    }
    if (rangesBroken || !acceptsRanges || length < kSegmentedFrom)
        return;
    const QString host = connections.front()->host;
    while (static_cast<int>(connections.size()) < connectionLimit &&
           connectionsTo(host) < kMostConnectionsPerHost) {
        if (const auto gap = unclaimed()) {
            open(gap->first, gap->second);
            continue;
        }
        DownloadConnection* busiest = nullptr;
        for (const auto& c : connections) {
            if (!busiest || endOf(c.get()) - c->offset > endOf(busiest) - busiest->offset)
                busiest = c.get();
        }
        const qint64 end = endOf(busiest);
        if (end < 0 || end - busiest->offset < 2 * kSmallestHalf)
            break;
        const qint64 half = busiest->offset + (end - busiest->offset) / 2;
        busiest->end = half;
        open(half, end);
    }
}

}  // namespace foundation
