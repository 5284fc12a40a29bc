// ferrybox-screenshots: pictures of the real agent for the documentation. It runs the agent as
// `ferrybox` does (same options, same FERRYBOX_API_URL), waits until two downloads are running
// and have made some progress, and saves the tray menu and the preferences window as PNG files.
// scripts/screenshots sets up the notes service, the download note and a slow file server.
//
// Usage: ferrybox-screenshots OUTPUT_DIR [ferrybox options]
#include <QApplication>
#include <QDir>
#include <QMainWindow>
#include <QMenu>
#include <QPainter>
#include <QPixmap>
#include <QTextStream>
#include <QTimer>

#include "agent/FXDownload.h"
#include "app/Application.h"
#include "app/Options.h"
#include "ui/MainInterface.h"

namespace {

QPixmap picture(QWidget& widget) {
    widget.ensurePolished();
    widget.adjustSize();
    return widget.grab();
}

// The menu with its downloads submenu open beside the item that leads to it, as a user sees it.
QPixmap menuWithDownloads(QMenu& menu) {
    const QPixmap main = picture(menu);
    for (QAction* action : menu.actions()) {
        if (!action->menu())
            continue;
        const QPixmap sub = picture(*action->menu());
        const int top = menu.actionGeometry(action).top();
        QPixmap both(main.width() + sub.width(), std::max(main.height(), top + sub.height()));
        both.fill(Qt::white);
        QPainter painter(&both);
        painter.drawPixmap(0, 0, main);
        painter.drawPixmap(main.width(), top, sub);
        return both;
    }
    return main;
}

// Two downloads under way, each past a few percent, so that the menu shows real progress.
bool twoDownloadsRunning(const AppController& controller) {
    const auto& list = controller.downloadList();
    return list.size() == 2 && std::all_of(list.begin(), list.end(), [](const auto& d) {
               return d->size() > 1 && d->done() * 20 > d->size();
           });
}

}  // namespace

int main(int argc, char** argv) {
    QTextStream err(stderr);
    if (argc < 2) {
        err << "usage: ferrybox-screenshots OUTPUT_DIR [ferrybox options]\n";
        return 2;
    }
    const QString output = QString::fromLocal8Bit(argv[1]);
    QStringList arguments;
    for (int i = 2; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    QString error;
    const auto options =
        parseOptions(arguments, qEnvironmentVariable("FERRYBOX_PASSWORD_FILE"), &error);
    if (!options) {
        err << "ferrybox-screenshots: " << error << "\n";
        return 2;
    }
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Ferrybox"));
    QApplication::setQuitOnLastWindowClosed(false);
    QDir().mkpath(output);

    Application agent(*options);
    if (!agent.start())
        return agent.exitStatus();
    MainInterface& interface = agent.interface();
    int status = 1;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, [&] {
        AppController& controller = interface.controller();
        if (!twoDownloadsRunning(controller) || !controller.menu())
            return;
        poll.stop();
        controller.updateMenu();
        const bool saved =
            menuWithDownloads(*controller.menu()).save(output + QStringLiteral("/tray-menu.png")) &&
            picture(interface.window()).save(output + QStringLiteral("/preferences.png"));
        status = saved ? 0 : 1;
        if (!saved)
            err << "ferrybox-screenshots: cannot write into " << output << "\n";
        QApplication::exit(status);
    });
    poll.start(100);
    QTimer::singleShot(60000, [&] {
        err << "ferrybox-screenshots: no two downloads running after a minute\n";
        QApplication::exit(1);
    });
    QApplication::exec();
    return status;
}
