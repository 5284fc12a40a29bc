// SPDX-License-Identifier: GPL-3.0-or-later
// ferrybox-notes: a small notes service speaking the notes web API (v1), with SQLite storage.
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QTextStream>
#include <QThread>
#include <QUrl>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <functional>
#include <iostream>
#include <optional>
#include <string>

#include "service/EventStreams.h"
#include "service/EventsApi.h"
#include "service/HttpServer.h"
#include "service/NotesApi.h"
#include "service/WebPage.h"

namespace {

const char kHelp[] = R"(NAME
    ferrybox-notes - a self-hostable notes service for Ferrybox

SYNOPSIS
    ferrybox-notes serve [--listen HOST:PORT] [--db FILE] [--tls-cert FILE --tls-key FILE]
                         [--trusted-proxy ADDRESS]... [LIMITS] [EVENTS]
    ferrybox-notes add-user EMAIL [--db FILE]
    ferrybox-notes remove-user EMAIL [--db FILE]
    ferrybox-notes passwd EMAIL [--db FILE]
    ferrybox-notes copy --from FILE --to FILE
    ferrybox-notes --help | --version

DESCRIPTION
    serve         answers the notes web API (v1) under /api: login, index, note, append,
                  delete, search, and events (a stream that tells of each change to the account's
                  notes as it happens, see EVENTS); at / it serves a web page for reading
                  and writing notes from a browser or phone (/?q=TEXT opens the newest note
                  holding TEXT). Plain HTTP is served only on loopback addresses; any other
                  address needs --tls-cert and --tls-key (PEM files). Default address
                  127.0.0.1:8080.
    add-user      creates an account; the password is read from standard input (first line),
                  or asked for without echo on a terminal.
    remove-user   deletes an account with all its notes and sessions.
    passwd        sets a new password for an account, read as add-user reads it, and ends
                  every API token and every signed-in device of the account, with their
                  event streams: every client signs in again, with the new password.
    copy          copies every account (address and password hash) and every note (key,
                  text, dates, deleted or not) from one database to another, which must be
                  empty; sessions and signed-in devices are not copied. Either side may be a
                  SQLite file or a PostgreSQL URL: the way from one to the other.

    --db FILE     the SQLite database (default $XDG_DATA_HOME/ferrybox-notes/notes.db, that is
                  ~/.local/share/ferrybox-notes/notes.db). Every answered write is on disk.
                  It is created readable by its owner only, and refused when other users
                  can read or write it.
    --db postgresql://USER@HOST:PORT/DATABASE
                  a PostgreSQL database instead (any libpq connection URI), which any
                  number of ferrybox-notes processes may serve at once behind one address.
                  The password comes from ~/.pgpass or PGPASSWORD, never from the command
                  line. The database needs the pg_trgm extension (in PostgreSQL's own
                  packages), which the service creates when it may. Every answered write
                  is committed; while the database cannot be reached, requests are
                  answered 503 at once, and the service recovers by itself.
    --trusted-proxy ADDRESS
                  a reverse proxy in front of the service (numeric IPv4 or IPv6 address; may
                  be given more than once). For its requests, the client is the address it
                  put last in X-Forwarded-For, and X-Forwarded-Proto: https counts as TLS;
                  the login slow-down and the per-address limit then apply to that client.
                  The proxy's own connections are not limited per address. These headers
                  from anyone else are ignored.
    --help        prints this text; --version prints the program's version.

LIMITS
    What anyone who can reach the port may make the service spend. The defaults suit a home
    server; a connection over a limit is closed, a request over one is answered 413 or 431.
    --max-connections N             connections open at once (default 1000)
    --max-connections-per-address N connections from one client address (default 128); when
                                    an address has them all open, the one that has waited
                                    longest for its next request is closed for the newcomer,
                                    which is refused only when none waits. Behind a trusted
                                    proxy: requests under way per client (status 429 past it)
    --idle-timeout SECONDS          a silent connection is closed (default 15); not a live
                                    event stream, which gets heartbeats instead
    --request-timeout SECONDS       time for the headers and body of one request
                                    (default 30)
    --connection-memory BYTES       buffers of one connection; the request line and headers
                                    must fit (default 32768)
    --max-body-bytes BYTES          a note's body, as sent in base64 (default 1048576); a
                                    login body is at most 4096
    --threads N                     threads serving connections (default: one per
                                    processor, at least 2; four per processor on PostgreSQL)

    Passwords are stored as salted PBKDF2-HMAC-SHA256 hashes; session tokens last 24 hours
    and are stored hashed. Five failed logins of one account from one client address within
    a minute make further attempts from that address wait (status 429). The log shows method,
    path, status and time of each request, never addresses, passwords, tokens or note text.
    The web page's device cookie is __Host-ferrybox_device over HTTPS (TLS, or a trusted
    proxy that says https) and ferrybox_device over plain HTTP; each counts only in its own
    setting. A link queued from the page that would make the download note longer than
    --max-body-bytes allows a note body is refused with 413, and the note stays as it was.

EVENTS
    GET /api/events?auth=TOKEN&email=EMAIL answers server-sent events: "retry: 2000" and
    ": ready" at once, "event: change" with data {"key":"KEY"} on every change to a note of
    the account, and a ": heartbeat" comment at a steady pace. A stream ends (properly, its
    place freed) with the token or device session it was opened with: when the token expires,
    when the device signs out or is ended, at "Sign out everywhere", passwd or remove-user.
    What another process ends is announced to every node on PostgreSQL; with a SQLite file
    the serving process finds it at the stream's next heartbeat.
    --event-heartbeat SECONDS       time between heartbeats (default 15)
    --max-event-streams-per-account N
                                    streams one account may have open (default 8); one
                                    more is answered 429

EXIT STATUS
    0 success, 1 failure (unusable database, address in use, unknown account), 2 bad usage
)";

struct Arguments {
    QString command;
    QString email;
    QString listen = QStringLiteral("127.0.0.1:8080");
    QString db;
    QString from;
    QString to;
    QString tlsCert;
    QString tlsKey;
    notes::HttpLimits limits;
    unsigned threads = 0;  // none given: as suits the database
    qsizetype maxBodyBytes = notes::ApiSettings().maxBodyBytes;
    notes::EventStreams::Settings events;
};

// A whole number in [1, max], else nullopt.
std::optional<qint64> positive(const QString& text, qint64 max) {
    bool ok = false;
    const qint64 n = text.toLongLong(&ok);
    return ok && n >= 1 && n <= max ? std::optional(n) : std::nullopt;
}

// Options that take a positive number, each with its ceiling and where it goes.
struct LimitOption {
    const char* name;
    qint64 max;
    std::function<void(Arguments&, qint64)> set;
};

const LimitOption kLimitOptions[] = {
    {"--max-connections", 1000000,
     [](Arguments& a, qint64 n) { a.limits.maxConnections = static_cast<unsigned>(n); }},
    {"--max-connections-per-address", 1000000,
     [](Arguments& a, qint64 n) { a.limits.maxConnectionsPerAddress = static_cast<unsigned>(n); }},
    {"--idle-timeout", 86400,
     [](Arguments& a, qint64 n) { a.limits.idleTimeout = std::chrono::seconds(n); }},
    {"--request-timeout", 86400,
     [](Arguments& a, qint64 n) { a.limits.requestTimeout = std::chrono::seconds(n); }},
    {"--connection-memory", 1 << 30,
     [](Arguments& a, qint64 n) { a.limits.connectionMemory = static_cast<std::size_t>(n); }},
    {"--max-body-bytes", qint64(1) << 32, [](Arguments& a, qint64 n) { a.maxBodyBytes = n; }},
    {"--threads", 256, [](Arguments& a, qint64 n) { a.threads = static_cast<unsigned>(n); }},
    {"--event-heartbeat", 86400,
     [](Arguments& a, qint64 n) { a.events.heartbeat = std::chrono::seconds(n); }},
    {"--max-event-streams-per-account", 1000000,
     [](Arguments& a, qint64 n) { a.events.perAccount = static_cast<unsigned>(n); }},
};

int fail(const QString& message, int status = 1) {
    QTextStream(stderr) << "ferrybox-notes: " << message << "\n";
    return status;
}

QString defaultDatabase() {
    QString data = qEnvironmentVariable("XDG_DATA_HOME");
    if (data.isEmpty())
        data = QDir::homePath() + QStringLiteral("/.local/share");
    return data + QStringLiteral("/ferrybox-notes/notes.db");
}

// A database's location for messages: the file, or the URL without any password.
QString shown(const QString& location) {
    return notes::isDatabaseUrl(location) ? QUrl(location).toDisplayString(QUrl::RemovePassword)
                                          : location;
}

// Returns an exit status when the arguments end the run, else -1.
int parse(const QStringList& args, Arguments& a) {
    if (args.size() < 2 || args[1] == QLatin1String("--help") || args[1] == QLatin1String("-h")) {
        std::fputs(kHelp, args.size() < 2 ? stderr : stdout);
        return args.size() < 2 ? 2 : 0;
    }
    if (args[1] == QLatin1String("--version")) {
        std::printf("ferrybox-notes %s\n", FERRYBOX_VERSION);
        return 0;
    }
    a.command = args[1];
    for (qsizetype i = 2; i < args.size(); ++i) {
        const QString& arg = args[i];
        auto next = [&](QString& into) {
            if (i + 1 >= args.size())
                return false;
            into = args[++i];
            return true;
        };
        if (arg == QLatin1String("--help")) {
            std::fputs(kHelp, stdout);
            return 0;
        }
        bool ok = true;
        if (arg == QLatin1String("--listen")) {
            ok = next(a.listen);
        } else if (arg == QLatin1String("--db")) {
            ok = next(a.db);
        } else if (arg == QLatin1String("--from")) {
            ok = next(a.from);
        } else if (arg == QLatin1String("--to")) {
            ok = next(a.to);
        } else if (arg == QLatin1String("--tls-cert")) {
            ok = next(a.tlsCert);
        } else if (arg == QLatin1String("--tls-key")) {
            ok = next(a.tlsKey);
        } else if (arg == QLatin1String("--trusted-proxy")) {
            QString proxy;
            if (!next(proxy))
                return fail(QStringLiteral("%1 needs a value").arg(arg), 2);
            const std::string address = notes::canonicalAddress(proxy.toStdString());
            if (address.empty()) {
                return fail(QStringLiteral("%1 wants a numeric IPv4 or IPv6 address, got %2")
                                .arg(arg, proxy),
                            2);
            }
            a.limits.trustedProxies.push_back(address);
        } else if (auto option = std::find_if(
                       std::begin(kLimitOptions), std::end(kLimitOptions),
                       [&](const LimitOption& o) { return arg == QLatin1String(o.name); });
                   option != std::end(kLimitOptions)) {
            QString text;
            if (!next(text))
                return fail(QStringLiteral("%1 needs a value").arg(arg), 2);
            const auto n = positive(text, option->max);
            if (!n) {
                return fail(
                    QStringLiteral("%1 wants a number from 1 to %2").arg(arg).arg(option->max), 2);
            }
            option->set(a, *n);
        } else if (!arg.startsWith(QLatin1String("--")) && a.email.isNull()) {
            a.email = arg;
        } else {
            return fail(QStringLiteral("unexpected argument %1 (see --help)").arg(arg), 2);
        }
        if (!ok)
            return fail(QStringLiteral("%1 needs a value").arg(arg), 2);
    }
    if (a.db.isEmpty())
        a.db = defaultDatabase();
    for (const QString& location : {a.db, a.from, a.to}) {
        if (notes::isDatabaseUrl(location) && QUrl(location).password() != QString()) {
            return fail(QStringLiteral("put the database password in ~/.pgpass or PGPASSWORD, "
                                       "not on the command line, where every user of the "
                                       "machine can read it"),
                        2);
        }
    }
    return -1;
}

QString readPassword() {
    const bool terminal = ::isatty(STDIN_FILENO);
    termios saved{};
    if (terminal) {
        std::cerr << "Password: " << std::flush;
        tcgetattr(STDIN_FILENO, &saved);
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
    }
    std::string line;
    std::getline(std::cin, line);
    if (terminal) {
        tcsetattr(STDIN_FILENO, TCSANOW, &saved);
        std::cerr << "\n";
    }
    return QString::fromStdString(line);
}

std::string readWhole(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll().toStdString() : std::string();
}

// Threads serving connections when --threads is not given. With a file a request keeps a
// processor busy from start to end, so more threads than processors only take turns, and a
// request whose thread lost its turn waits for several others. On PostgreSQL a thread spends
// much of each request waiting for the database server, more so when that is on another machine.
unsigned defaultThreads(const QString& db) {
    const unsigned processors = static_cast<unsigned>(std::max(1, QThread::idealThreadCount()));
    return notes::isDatabaseUrl(db) ? 4 * processors : std::max(2u, processors);
}

int serve(const Arguments& a, notes::NotesStore& store) {
    const qsizetype colon = a.listen.lastIndexOf(QLatin1Char(':'));
    bool portOk = false;
    const int port = colon < 0 ? 0 : a.listen.mid(colon + 1).toInt(&portOk);
    QString host = colon < 0 ? QString() : a.listen.left(colon);
    if (host.startsWith(QLatin1Char('[')) && host.endsWith(QLatin1Char(']'))) {
        host = host.mid(1, host.size() - 2);
    }
    if (!portOk || host.isEmpty() || port < 0 || port > 65535) {
        return fail(QStringLiteral("--listen wants HOST:PORT, got %1").arg(a.listen), 2);
    }
    const bool tls = !a.tlsCert.isEmpty() || !a.tlsKey.isEmpty();
    if (tls && (a.tlsCert.isEmpty() || a.tlsKey.isEmpty())) {
        return fail(QStringLiteral("TLS needs both --tls-cert and --tls-key"), 2);
    }
    const bool loopback = host == QLatin1String("localhost") || QHostAddress(host).isLoopback();
    if (!tls && !loopback) {
        return fail(QStringLiteral("refusing plain HTTP on %1: passwords would cross the network "
                                   "in the clear; listen on a loopback address or give "
                                   "--tls-cert and --tls-key")
                        .arg(host),
                    2);
    }
    std::string certificate, key;
    if (tls) {
        certificate = readWhole(a.tlsCert);
        key = readWhole(a.tlsKey);
        if (certificate.empty() || key.empty()) {
            return fail(QStringLiteral("cannot read the TLS certificate or key (%1, %2)")
                            .arg(a.tlsCert, a.tlsKey));
        }
    }
    notes::ApiSettings settings;
    settings.maxBodyBytes = a.maxBodyBytes;
    bool ok = false;
    const int lifetime = qEnvironmentVariableIntValue("FERRYBOX_NOTES_TOKEN_SECONDS", &ok);
    if (ok && lifetime > 0)
        settings.tokenLifetime = std::chrono::seconds(lifetime);

    // The signals are taken by this thread alone, through sigwait below; the server's threads,
    // started after this, inherit the blocked set.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    // Outlives the server, whose stop ends every stream.
    notes::EventStreams streams(a.events, [&store](const notes::Access& access) {
        return store.stillGranted(access, notes::nowMicros());
    });
    const std::unique_ptr<notes::NoteEvents> changes = store.changeRelay(streams);
    notes::HttpLimits limits = a.limits;
    limits.threads = a.threads ? a.threads : defaultThreads(a.db);
    notes::HttpServer server(limits);
    // Its jobs use what the API installs into the server: it is made after the server, and so
    // stops before it. One thread for every two processors checks passwords; at most 32 logins
    // wait for one.
    notes::HashPool hashing(notes::HashPool::defaultThreads(), 32);
    notes::installApi(server, store, store.logins(), hashing, *changes, settings);
    notes::installEvents(server, store, streams);
    notes::installWebPage(server);
    if (const std::string error = server.start(host.toStdString(), port, certificate, key);
        !error.empty()) {
        return fail(
            QStringLiteral("cannot listen on %1: %2").arg(a.listen, QString::fromStdString(error)));
    }
    QTextStream(stderr) << "ferrybox-notes: serving " << (tls ? "https" : "http") << "://"
                        << a.listen << "/api from " << shown(a.db) << Qt::endl;
    int signal = 0;
    sigwait(&stopSignals, &signal);
    server.stop();
    return 0;
}

int copy(const Arguments& a) {
    if (a.from.isEmpty() || a.to.isEmpty())
        return fail(QStringLiteral("copy needs --from and --to"), 2);
    const std::unique_ptr<notes::NotesStore> source = notes::openNotesStore(a.from);
    if (!notes::isDatabaseUrl(a.to))
        QDir().mkpath(QFileInfo(a.to).absolutePath());
    const std::unique_ptr<notes::NotesStore> target = notes::openNotesStore(a.to);
    if (!target->users().empty()) {
        return fail(QStringLiteral("%1 holds accounts already; copy only into an empty database")
                        .arg(shown(a.to)));
    }
    qsizetype accounts = 0, notesCopied = 0;
    for (const notes::User& user : source->users()) {
        const std::vector<notes::Note> notes = source->notes(user.id);
        if (!target->importAccount(user, notes))
            return fail(
                QStringLiteral("account %1 appeared in %2 meanwhile").arg(user.email, shown(a.to)));
        ++accounts;
        notesCopied += qsizetype(notes.size());
    }
    target->importsDone();
    QTextStream(stdout) << "copied " << accounts << " accounts and " << notesCopied
                        << " notes from " << shown(a.from) << " to " << shown(a.to) << Qt::endl;
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    Arguments a;
    if (const int status = parse(app.arguments(), a); status >= 0)
        return status;
    const bool needsEmail = a.command == QLatin1String("add-user") ||
                            a.command == QLatin1String("remove-user") ||
                            a.command == QLatin1String("passwd");
    if (a.command != QLatin1String("serve") && a.command != QLatin1String("copy") && !needsEmail) {
        return fail(QStringLiteral("unknown command %1 (see --help)").arg(a.command), 2);
    }
    if (needsEmail && a.email.isEmpty())
        return fail(a.command + QStringLiteral(" needs EMAIL"), 2);

    // The database holds every note and password hash: what this program creates is its
    // owner's alone.
    ::umask(077);
    if (!notes::isDatabaseUrl(a.db))
        QDir().mkpath(QFileInfo(a.db).absolutePath());
    try {
        if (a.command == QLatin1String("copy"))
            return copy(a);
        const std::unique_ptr<notes::NotesStore> opened = notes::openNotesStore(a.db);
        notes::NotesStore& store = *opened;
        if (a.command == QLatin1String("serve"))
            return serve(a, store);
        if (a.command == QLatin1String("remove-user")) {
            return store.removeUser(a.email) ? 0
                                             : fail(QStringLiteral("no account %1").arg(a.email));
        }
        // Nobody is asked for a password that could not be set.
        const bool changing = a.command == QLatin1String("passwd");
        if (changing && !store.userByEmail(a.email))
            return fail(QStringLiteral("no account %1").arg(a.email));
        const QString password = readPassword();
        if (password.isEmpty())
            return fail(QStringLiteral("the password must not be empty"), 2);
        if (changing) {
            return store.changePassword(a.email, notes::hashPassword(password))
                       ? 0
                       : fail(QStringLiteral("no account %1").arg(a.email));
        }
        if (!store.addUser(a.email, notes::hashPassword(password))) {
            return fail(QStringLiteral("account %1 exists already").arg(a.email));
        }
        return 0;
    } catch (const std::exception& e) {
        return fail(QString::fromUtf8(e.what()));
    }
}
