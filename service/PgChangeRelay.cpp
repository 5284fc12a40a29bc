// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/PgChangeRelay.h"

#include <fcntl.h>
#include <libpq-fe.h>
#include <poll.h>
#include <unistd.h>

#include <QString>
#include <algorithm>
#include <cstring>

#include "foundation/Log.h"
#include "service/NotesStore.h"
#include "service/PgConnections.h"

namespace notes {

namespace {

constexpr const char* kChannel = "ferrybox_note_changes";

}  // namespace

PgChangeRelay::PgChangeRelay(PgConnections& connections, NoteEvents& local)
    : connections_(connections), local_(local) {
    if (::pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0)
        throw StoreError("cannot make a pipe for the change relay");
    thread_ = std::thread([this] { listen(); });
}

PgChangeRelay::~PgChangeRelay() {
    stopping_ = true;
    const char byte = 0;
    [[maybe_unused]] const auto written = ::write(wake_[1], &byte, 1);
    thread_.join();
    ::close(wake_[0]);
    ::close(wake_[1]);
}

void PgChangeRelay::noteChanged(qint64 userId, const QString& key) {
    // The change itself is written and answered for; a database that went away just now costs
    // its announcement, not the answer.
    try {
        auto lease = connections_.take();
        lease.run("SELECT pg_notify($1, $2)",
                  PgParams()
                      .add(QString::fromLatin1(kChannel))
                      .add(QString::number(userId) + QLatin1Char(' ') + key));
    } catch (const std::exception& e) {
        foundation::log(
            QStringLiteral("change not announced: %1").arg(QString::fromUtf8(e.what())));
    }
}

void PgChangeRelay::accessEnded(qint64 userId) {
    local_.accessEnded(userId);
}

bool PgChangeRelay::stoppedWithin(int ms) {
    pollfd wake{wake_[0], POLLIN, 0};
    ::poll(&wake, 1, ms);
    return stopping_;
}

void PgChangeRelay::listen() {
    int wait = 250;
    while (!stopping_) {
        PGconn* connection = nullptr;
        try {
            connection = connections_.connect();
        } catch (const std::exception&) {
            if (stoppedWithin(wait))
                return;
            wait = std::min(wait * 2, 5000);
            continue;
        }
        PGresult* listening =
            PQexec(connection,
                   (std::string("LISTEN ") + kChannel + "; LISTEN " + kAccessEndedChannel).c_str());
        const bool ok = PQresultStatus(listening) == PGRES_COMMAND_OK;
        PQclear(listening);
        if (ok) {
            wait = 250;
            relay(connection);
        }
        PQfinish(connection);
        if (!stopping_ && stoppedWithin(wait))
            return;
    }
}

void PgChangeRelay::relay(PGconn* connection) {
    while (!stopping_) {
        pollfd watched[2] = {{PQsocket(connection), POLLIN, 0}, {wake_[0], POLLIN, 0}};
        if (::poll(watched, 2, -1) < 0 && errno != EINTR)
            return;
        if (stopping_ || !PQconsumeInput(connection))
            return;
        while (PGnotify* notice = PQnotifies(connection)) {
            const bool ended = std::strcmp(notice->relname, kAccessEndedChannel) == 0;
            const QString payload = QString::fromUtf8(notice->extra);
            PQfreemem(notice);
            bool ok = false;
            if (ended) {
                const qint64 userId = payload.toLongLong(&ok);
                if (ok)
                    local_.accessEnded(userId);
                continue;
            }
            const qsizetype space = payload.indexOf(QLatin1Char(' '));
            const qint64 userId = payload.left(space).toLongLong(&ok);
            if (space > 0 && ok)
                local_.noteChanged(userId, payload.mid(space + 1));
        }
    }
}

}  // namespace notes
