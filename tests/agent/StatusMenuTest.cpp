// SPDX-License-Identifier: GPL-3.0-or-later
// The status menu as the user sees it in each state: the icon, the items in order, and the
// progress of each running download.
#include <QCoreApplication>
#include <QDesktopServices>
#include <QIcon>
#include <QMenu>
#include <QSystemTrayIcon>

#include "foundation/URLDownload.h"
#include "tests/agent/AgentFixture.h"
#include "tests/support/Wait.h"
#include "ui/TrayIcon.h"
#include "ui/TrayMenuMirror.h"

namespace agenttest {
namespace {

// The menu's items as lines: a title, "-" for a separator, "[title]" for a disabled item, and
// the items of a submenu indented under it.
QStringList lines(const QMenu* menu, const QString& indent = QString()) {
    QStringList out;
    for (const QAction* action : menu->actions()) {
        if (action->isSeparator()) {
            out << indent + "-";
            continue;
        }
        out << indent + (action->isEnabled() ? action->text() : "[" + action->text() + "]");
        if (action->menu())
            out << lines(action->menu(), indent + "  ");
    }
    return out;
}

struct Transfer {
    QString title;
    qint64 done;
    qint64 size;
    bool busy = false;  // the server says to come back in half a minute
};

struct MenuCase {
    const char* name;
    bool running;
    std::vector<Transfer> downloads;
    QString image;
    QString alternateImage;
    QStringList menu;  // "@" stands for the server's address
};

void PrintTo(const MenuCase& c, std::ostream* os) {
    *os << c.name;
}

class StatusMenuTest : public AgentTest, public ::testing::WithParamInterface<MenuCase> {
protected:
    foundation::URLDownloadDelegate ignoring;  // every event ignored
};

TEST_P(StatusMenuTest, IconAndItems) {
    const MenuCase& c = GetParam();
    controller().awakeFromNib();
    controller().setAppRunning(c.running);
    AppController::DownloadList list;
    for (std::size_t i = 0; i < c.downloads.size(); ++i) {
        // Real transfers that wait for the server, shown with the counts of the case.
        const std::string path = "/files/f" + std::to_string(i) + ".bin";
        server().on("GET", path,
                    c.downloads[i].busy
                        ? testsupport::FixtureServer::respond(503, "", {{"Retry-After", "30"}})
                        : server().stall());
        foundation::URLRequest request;
        request.url = QUrl(server().baseUrl() + QString::fromStdString(path));
        auto download = FXDownload::startWithRequest(request, &ignoring);
        if (c.downloads[i].busy) {
            ASSERT_TRUE(testsupport::waitUntil([&] { return download->waiting().has_value(); }));
        }
        download->setTitle(c.downloads[i].title);
        download->setDone(c.downloads[i].done);
        download->setSize(c.downloads[i].size);
        list.push_back(download);
    }
    controller().setDownloadList(list);
    controller().updateMenu();

    EXPECT_EQ(controller().statusItem()->image(), c.image);
    EXPECT_EQ(controller().statusItem()->alternateImage(), c.alternateImage);
    ASSERT_NE(controller().menu(), nullptr);
    EXPECT_EQ(controller().statusItem()->menu(), controller().menu());
    QStringList expected;
    for (const QString& line : c.menu)
        expected << QString(line).replace("@", server().baseUrl());
    EXPECT_EQ(lines(controller().menu()), expected);

    for (const auto& download : list)
        download->cancel();
    controller().setDownloadList({});
}

const QStringList kTail = {"About Ferrybox", "Preferences...", "Quit"};

INSTANTIATE_TEST_SUITE_P(
    Agent, StatusMenuTest,
    ::testing::Values(
        MenuCase{"Off",
                 false,
                 {},
                 "close_16.png",
                 "",
                 QStringList{"Open Downloads Folder", "Turn Ferrybox On", "-"} + kTail},
        MenuCase{"OnAndIdle",
                 true,
                 {},
                 "ntwrk_16.png",
                 "ntwrk_16_inverted.png",
                 QStringList{"Check For Downloads Now", "Go To Download Note",
                             "Open Downloads Folder", "Turn Ferrybox Off", "-"} +
                     kTail},
        MenuCase{
            "OneDownloadByItsLink",
            true,
            {{"", 5000000, 12000000}},
            "down_16.png",
            "",
            QStringList{"Check For Downloads Now", "Go To Download Note", "Open Downloads Folder",
                        "Turn Ferrybox Off", "-", "1 Download", "  [@/files/f0.bin (4 of 11 MB)]"} +
                kTail},
        MenuCase{"TwoDownloadsTitleAndUnknownSize",
                 true,
                 {{"/Users/me/Movies/b.zip", 1048576, -1}, {"", 100, 1000}},
                 "down_16.png",
                 "",
                 QStringList{"Check For Downloads Now", "Go To Download Note",
                             "Open Downloads Folder", "Turn Ferrybox Off", "-", "2 Downloads",
                             "  [b.zip (1 of 0 MB)]", "  [@/files/f1.bin (0 of 0 MB)]"} +
                     kTail},
        MenuCase{"ADownloadThatWaits",
                 true,
                 {{"", 0, 1, true}},
                 "down_16.png",
                 "",
                 QStringList{"Check For Downloads Now", "Go To Download Note",
                             "Open Downloads Folder", "Turn Ferrybox Off", "-", "1 Download",
                             "  [@/files/f0.bin (0 of 0 MB, retrying in 30 s)]"} +
                     kTail},
        MenuCase{"DownloadsOutliveTurningOff",
                 false,
                 {{"plain-title", 0, 1}},
                 "down_16.png",
                 "",
                 QStringList{"Open Downloads Folder", "Turn Ferrybox On", "-", "1 Download",
                             "  [plain-title (0 of 0 MB)]"} +
                     kTail}),
    [](const auto& info) { return std::string(info.param.name); });

// The tray keeps one menu of its own for its whole life (a desktop's tray holds on to the menu it
// was given) and copies the controller's newest menu into it, at most ten times a second.
TEST_F(AgentTest, TrayMirrorsTheNewestMenuAtMostTenTimesASecond) {
    ui::installTrayStatusBar();
    controller().awakeFromNib();
    StatusBar::systemStatusBar().setNewItemHook(nullptr);
    auto* tray = QCoreApplication::instance()->findChild<QSystemTrayIcon*>();
    ASSERT_NE(tray, nullptr);
    QMenu* trayMenu = tray->contextMenu();
    ASSERT_NE(trayMenu, nullptr);
    // A Qt menu shows "&&" as "&".
    const auto trayLines = [&] { return lines(trayMenu).replaceInStrings("&&", "&"); };
    const auto showsNewest = [&] { return trayLines() == lines(controller().menu()); };
    ASSERT_TRUE(testsupport::waitUntil(showsNewest, 1000));
    EXPECT_NE(trayMenu, controller().menu());

    controller().setAppRunning(true);
    for (int i = 0; i < 20; ++i)
        controller().updateMenu();
    EXPECT_FALSE(showsNewest()) << "held back";
    EXPECT_TRUE(testsupport::waitUntil(showsNewest, 1000));
    EXPECT_EQ(tray->contextMenu(), trayMenu);

    // While the menu is open: the alternate image, and checks and transfers wait. A click on the
    // icon ends it as closing the menu does.
    const auto showing = [tray](const QString& image) {
        return tray->icon().pixmap(16).toImage() == QIcon(":/images/" + image).pixmap(16).toImage();
    };
    Q_EMIT trayMenu->aboutToShow();
    EXPECT_TRUE(showing("ntwrk_16_inverted.png"));
    EXPECT_TRUE(foundation::RunLoop::main().isDefaultModeHeld());
    Q_EMIT trayMenu->aboutToHide();
    EXPECT_TRUE(showing("ntwrk_16.png"));
    EXPECT_FALSE(foundation::RunLoop::main().isDefaultModeHeld());
    Q_EMIT trayMenu->aboutToShow();
    Q_EMIT tray->activated(QSystemTrayIcon::Trigger);
    EXPECT_FALSE(foundation::RunLoop::main().isDefaultModeHeld());
}

// What the tray shows is the text the controller built: a Qt menu (an XEmbed tray) takes "&" as
// a mnemonic mark, a dbusmenu label (a StatusNotifier panel, after Qt has turned the first "&"
// into "_") takes "_".
TEST(TrayMenuMirror, LabelsShowTheTextAsBuilt) {
    struct Case {
        QString text;
        QString inQtMenu;
        QString overDBus;
    };
    const Case cases[] = {
        {"Quit", "Quit", "Quit"},
        {"http://h/a?x=1&y=2 (0 of 1 MB)", "http://h/a?x=1&&y=2 (0 of 1 MB)",
         "&http://h/a?x=1&y=2 (0 of 1 MB)"},
        {"http://h/my_file.zip", "http://h/my_file.zip", "http://h/my__file.zip"},
        {"a&b_c&", "a&&b_c&&", "&a&b__c&"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(ui::TrayMenuMirror::label(c.text, false), c.inQtMenu);
        EXPECT_EQ(ui::TrayMenuMirror::label(c.text, true), c.overDBus);
    }
}

// Where the desktop is asked to open a folder or a page.
class Opened : public QObject {
    Q_OBJECT
public:
    QStringList urls;
public Q_SLOTS:
    void open(const QUrl& url) { urls << url.toString(); }
};

// Each item sends its action; About and Quit go to the application.
TEST_F(AgentTest, MenuItemsSendTheirActions) {
    Opened opened;
    QDesktopServices::setUrlHandler("http", &opened, "open");
    QDesktopServices::setUrlHandler("file", &opened, "open");
    QStringList sent;
    controller().setApplicationActions([&] { sent << "about"; }, [&] { sent << "quit"; });
    controller().awakeFromNib();
    controller().setAppRunning(true);
    controller().setSearchTerm("Other_Term");
    controller().updateMenu();
    for (QAction* action : controller().menu()->actions()) {
        if (!action->menu() && action->text() != "Turn Ferrybox Off" &&
            action->text() != "Check For Downloads Now") {
            action->trigger();
        }
    }
    QDesktopServices::unsetUrlHandler("http");
    QDesktopServices::unsetUrlHandler("file");
    EXPECT_EQ(sent, (QStringList{"about", "quit"}));
    EXPECT_TRUE(controller().prefsWindow()->isVisible());
    // The web page of the notes service in use, asked for the default term whatever is set.
    EXPECT_EQ(opened.urls, (QStringList{server().baseUrl() + "?q=Ferrybox_Downloads",
                                        "file://" + home_->path() + "/Downloads/Ferrybox"}));
}

}  // namespace
}  // namespace agenttest

#include "StatusMenuTest.moc"
