// The ferrybox executable: the tray agent, or with --headless the same agent without windows.
#include <QApplication>
#include <QTextStream>

#include "app/Application.h"
#include "app/Options.h"

namespace {

bool haveDisplay() {
    return !qEnvironmentVariableIsEmpty("DISPLAY") ||
           !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") ||
           !qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM");
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

    Application agent(*options);
    if (!agent.start())
        return agent.exitStatus();
    const int status = QApplication::exec();
    return status != 0 ? status : agent.exitStatus();
}
