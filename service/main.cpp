// ferrybox-notes: a small notes service speaking the notes web API (v1), with SQLite storage.
#include <httplib.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QHostAddress>
#include <QTextStream>
#include <csignal>
#include <iostream>
#include <string>

#include "service/NotesApi.h"

namespace {

const char kHelp[] = R"(NAME
    ferrybox-notes - a self-hostable notes service for Ferrybox

SYNOPSIS
    ferrybox-notes serve [--listen HOST:PORT] [--db FILE] [--tls-cert FILE --tls-key FILE]
    ferrybox-notes add-user EMAIL [--db FILE]
    ferrybox-notes remove-user EMAIL [--db FILE]

DESCRIPTION
    serve         answers the notes web API (v1) under /api: login, index, note, delete and
                  search. Plain HTTP is served only on loopback addresses; any other address
                  needs --tls-cert and --tls-key (PEM files). Default address 127.0.0.1:8080.
    add-user      creates an account; the password is read from standard input (first line),
                  or asked for without echo on a terminal.
    remove-user   deletes an account with all its notes and sessions.

    --db FILE     the SQLite database (default $XDG_DATA_HOME/ferrybox-notes/notes.db, that is
                  ~/.local/share/ferrybox-notes/notes.db). Every answered write is on disk.

    Passwords are stored as salted PBKDF2-HMAC-SHA256 hashes; session tokens last 24 hours
    and are stored hashed. Five failed logins of one account within a minute make further
    attempts wait (status 429). The log shows method, path, status and time of each request,
    never addresses, passwords, tokens or note text.

EXIT STATUS
    0 success, 1 failure (unusable database, address in use, unknown account), 2 bad usage
)";

struct Arguments {
    QString command;
    QString email;
    QString listen = QStringLiteral("127.0.0.1:8080");
    QString db;
    QString tlsCert;
    QString tlsKey;
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

// Returns an exit status when the arguments end the run, else -1.
int parse(const QStringList& args, Arguments& a) {
    if (args.size() < 2 || args[1] == QLatin1String("--help") || args[1] == QLatin1String("-h")) {
        std::fputs(kHelp, args.size() < 2 ? stderr : stdout);
        return args.size() < 2 ? 2 : 0;
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
        } else if (arg == QLatin1String("--tls-cert")) {
            ok = next(a.tlsCert);
        } else if (arg == QLatin1String("--tls-key")) {
            ok = next(a.tlsKey);
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

httplib::Server* gServer = nullptr;

void stopServer(int) {
    if (gServer)
        gServer->stop();
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
    std::unique_ptr<httplib::Server> server;
    if (tls) {
        auto secure = std::make_unique<httplib::SSLServer>(a.tlsCert.toUtf8().constData(),
                                                           a.tlsKey.toUtf8().constData());
        if (!secure->is_valid()) {
            return fail(QStringLiteral("cannot use the TLS certificate or key (%1, %2)")
                            .arg(a.tlsCert, a.tlsKey));
        }
        server = std::move(secure);
    } else {
        server = std::make_unique<httplib::Server>();
    }
    notes::LoginThrottle throttle;
    notes::ApiSettings settings;
    bool ok = false;
    const int lifetime = qEnvironmentVariableIntValue("FERRYBOX_NOTES_TOKEN_SECONDS", &ok);
    if (ok && lifetime > 0)
        settings.tokenLifetime = std::chrono::seconds(lifetime);
    notes::installApi(*server, store, throttle, settings);
    server->set_payload_max_length(static_cast<std::size_t>(settings.maxBodyBytes) * 2);

    // The HTTP library listens with a backlog of 5, which turns a burst of clients away; the
    // listening socket gets the system's full backlog once it is bound.
    // Headers and body leave in separate writes; without this each answer waits for the
    // client's delayed acknowledgement.
    server->set_tcp_nodelay(true);
    int listening = -1;
    server->set_socket_options([&listening](int socket) {
        listening = socket;
        int yes = 1;
        ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    if (!server->bind_to_port(host.toUtf8().constData(), port)) {
        return fail(QStringLiteral("cannot listen on %1").arg(a.listen));
    }
    if (listening >= 0)
        ::listen(listening, SOMAXCONN);
    gServer = server.get();
    std::signal(SIGINT, stopServer);
    std::signal(SIGTERM, stopServer);
    QTextStream(stderr) << "ferrybox-notes: serving " << (tls ? "https" : "http") << "://"
                        << a.listen << "/api from " << a.db << Qt::endl;
    server->listen_after_bind();
    gServer = nullptr;
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    Arguments a;
    if (const int status = parse(app.arguments(), a); status >= 0)
        return status;
    const bool needsEmail =
        a.command == QLatin1String("add-user") || a.command == QLatin1String("remove-user");
    if (a.command != QLatin1String("serve") && !needsEmail) {
        return fail(QStringLiteral("unknown command %1 (see --help)").arg(a.command), 2);
    }
    if (needsEmail && a.email.isEmpty())
        return fail(a.command + QStringLiteral(" needs EMAIL"), 2);

    QDir().mkpath(QFileInfo(a.db).absolutePath());
    try {
        notes::NotesStore store(a.db);
        if (a.command == QLatin1String("serve"))
            return serve(a, store);
        if (a.command == QLatin1String("remove-user")) {
            return store.removeUser(a.email) ? 0
                                             : fail(QStringLiteral("no account %1").arg(a.email));
        }
        const QString password = readPassword();
        if (password.isEmpty())
            return fail(QStringLiteral("the password must not be empty"), 2);
        if (!store.addUser(a.email, notes::hashPassword(password))) {
            return fail(QStringLiteral("account %1 exists already").arg(a.email));
        }
        return 0;
    } catch (const std::exception& e) {
        return fail(QString::fromUtf8(e.what()));
    }
}
