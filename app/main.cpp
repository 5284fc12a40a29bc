// SPDX-License-Identifier: GPL-3.0-or-later
// The ferrybox executable: the tray agent, or with --headless the same agent without windows.
#include <QApplication>
#include <QIcon>
#include <QTextStream>

#include "agent/YouTubeURLMaker.h"
#include "app/Application.h"
#include "app/Options.h"
#include "foundation/TypeName.h"

namespace {

bool haveDisplay() {
    return !qEnvironmentVariableIsEmpty("DISPLAY") ||
           !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") ||
           !qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM");
}

// The watch-page resolver, which the agent itself never calls, for a user who wants it.
int resolveVideo(int argc, char** argv, const QString& link, bool hd) {
    QCoreApplication app(argc, argv);
    try {
        QTextStream out(stdout);
        for (const QString& line : YouTubeURLMaker::getYouTubeDownloadLink(link, hd))
            out << line << "\n";
        return 0;
    } catch (const std::exception& e) {
        QTextStream(stderr) << foundation::demangledTypeName(typeid(e)) << ": " << e.what() << "\n";
        return 1;
    }
}

}  // namespace

int main(int argc, char** argv) {
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    QString error;
    const auto options =
        parseOptions(arguments, qEnvironmentVariable("FERRYBOX_PASSWORD_FILE"), &error);
    QTextStream out(stdout);
    QTextStream err(stderr);
    if (!options) {
        err << "ferrybox: " << error << "\n\n" << usageText();
        return 2;
    }
    if (options->help) {
        out << usageText();
        return 0;
    }
    if (options->version) {
        out << "ferrybox " << FERRYBOX_VERSION << "\n";
        return 0;
    }
    if (!options->resolveVideo.isNull())
        return resolveVideo(argc, argv, options->resolveVideo, options->hd);
    if (options->headless) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    } else if (!haveDisplay()) {
        err << "ferrybox: no desktop session found (DISPLAY and WAYLAND_DISPLAY are unset).\n"
               "Run it inside a desktop session, or use --headless.\n";
        return 2;
    }

    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Ferrybox"));
    QApplication::setApplicationVersion(QStringLiteral(FERRYBOX_VERSION));
    QApplication::setQuitOnLastWindowClosed(false);
    // The installed icon of the desktop's theme; from the build tree, the tray's.
    QApplication::setWindowIcon(QIcon::fromTheme(QStringLiteral("ferrybox"),
                                                 QIcon(QStringLiteral(":/images/ntwrk_16.png"))));

    int status = 0;
    if (!options->headless && !Application::becomeTheSessionAgent(&status))
        return status;
    Application agent(*options);
    if (!agent.start())
        return agent.exitStatus();
    status = QApplication::exec();
    return status != 0 ? status : agent.exitStatus();
}
