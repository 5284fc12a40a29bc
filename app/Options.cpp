// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/Options.h"

std::optional<Options> parseOptions(const QStringList& arguments, const QString& passwordFileEnv,
                                    QString* error) {
    Options options;
    if (!passwordFileEnv.isEmpty())
        options.passwordFile = passwordFileEnv;
    for (int i = 0; i < arguments.size(); ++i) {
        const QString& arg = arguments[i];
        auto valueOf = [&](const QString& name) -> std::optional<QString> {
            if (arg.startsWith(name + QLatin1Char('=')))
                return arg.mid(name.size() + 1);
            if (arg != name)
                return std::nullopt;
            if (i + 1 >= arguments.size()) {
                *error = QStringLiteral("%1 needs a value").arg(name);
                return QString();
            }
            return arguments[++i];
        };
        if (arg == QLatin1String("--headless")) {
            options.headless = true;
        } else if (arg == QLatin1String("--once")) {
            options.once = true;
        } else if (arg == QLatin1String("--help") || arg == QLatin1String("-h")) {
            options.help = true;
        } else if (arg == QLatin1String("--version")) {
            options.version = true;
        } else if (auto email = valueOf(QStringLiteral("--email"))) {
            options.email = *email;
        } else if (auto file = valueOf(QStringLiteral("--password-file"))) {
            options.passwordFile = *file;
        } else if (auto link = valueOf(QStringLiteral("--resolve-video"))) {
            options.resolveVideo = *link;
        } else if (arg == QLatin1String("--hd")) {
            options.hd = true;
        } else {
            *error = QStringLiteral("unknown argument: %1").arg(arg);
            return std::nullopt;
        }
        if (!error->isEmpty())
            return std::nullopt;
    }
    if (options.once && !options.headless) {
        *error = QStringLiteral("--once needs --headless");
        return std::nullopt;
    }
    if (options.hd && options.resolveVideo.isNull()) {
        *error = QStringLiteral("--hd needs --resolve-video");
        return std::nullopt;
    }
    return options;
}

QString usageText() {
    return QStringLiteral(
        "Usage: ferrybox [--headless [--once]] [--email ADDRESS] [--password-file FILE]\n"
        "       ferrybox --resolve-video LINK [--hd]\n"
        "\n"
        "Ferrybox watches the note \"Ferrybox_Downloads\" of your notes account and downloads\n"
        "every link written in it into your download folder.\n"
        "\n"
        "  --headless            run without tray icon or windows (servers, scripts)\n"
        "  --once                with --headless: log in, run one check, wait for its\n"
        "                        downloads, then quit (exit status 1 if anything failed)\n"
        "  --email ADDRESS       the account's e-mail address, instead of the stored one\n"
        "  --password-file FILE  read the password from the first line of FILE, which\n"
        "                        must not be readable by other users\n"
        "                        (also FERRYBOX_PASSWORD_FILE)\n"
        "  --resolve-video LINK  print the direct media address, the title and the format\n"
        "                        code (18, or 22 for high definition) of a YouTube watch\n"
        "                        page, one a line, and quit; with --hd, ask for high\n"
        "                        definition. A page that cannot be read or cut is told\n"
        "                        on standard error (exit status 1)\n"
        "  --version             print the version\n"
        "  --help                print this text\n"
        "\n"
        "Environment: FERRYBOX_API_URL sets the notes service's API address;\n"
        "settings live in $XDG_CONFIG_HOME/Ferrybox/Ferrybox.conf.\n");
}
