// SPDX-License-Identifier: GPL-3.0-or-later
// The status menu: the icon and the menu, built anew from the agent's state on every change (a
// running download changes it with every piece of data).
#include <QDesktopServices>
#include <QMenu>
#include <QUrl>

#include "agent/AppController.h"
#include "client/LWSNObject.h"
#include "foundation/Paths.h"

namespace {

constexpr qint64 kMebibyte = 1048576;

// " (4 of 11 MB)": whole mebibytes, cut toward zero, under the name "MB"; a transfer between
// two attempts says what it waits for: " (4 of 11 MB, retrying in 8 s)".
QString progressText(const FXDownload& download) {
    const QString wait = download.waitText();
    return QStringLiteral(" (%1 of %2 MB%3)")
        .arg(download.done() / kMebibyte)
        .arg(download.size() / kMebibyte)
        .arg(wait.isEmpty() ? QString() : QStringLiteral(", ") + wait);
}

}  // namespace

void AppController::updateMenu() {
    if (!downloadList_.empty()) {
        statusItem_->setImage(QStringLiteral("down_16.png"));
        statusItem_->setAlternateImage(QString());
    } else if (appRunning_) {
        statusItem_->setAlternateImage(QStringLiteral("ntwrk_16_inverted.png"));
        statusItem_->setImage(QStringLiteral("ntwrk_16.png"));
    } else {
        statusItem_->setImage(QStringLiteral("close_16.png"));
    }

    // The tray may still hold the menu being replaced until the event loop runs.
    std::shared_ptr<QMenu> menu(new QMenu(), [](QMenu* m) { m->deleteLater(); });
    const auto add = [this, &menu](const QString& title, const QString& action) {
        QAction* item = menu->addAction(title);
        QObject::connect(item, &QAction::triggered, this,
                         [this, action, item] { tryToPerform(action, item); });
    };
    if (appRunning_) {
        add(QStringLiteral("Check For Downloads Now"), QStringLiteral("searchForNote"));
        add(QStringLiteral("Go To Download Note"), QStringLiteral("goToDownloadNote"));
    }
    add(QStringLiteral("Open Downloads Folder"), QStringLiteral("openDownloadsFolder:"));
    if (appRunning_) {
        add(QStringLiteral("Turn Ferrybox Off"), QStringLiteral("turnFerryboxOff:"));
    } else {
        add(QStringLiteral("Turn Ferrybox On"), QStringLiteral("turnFerryboxOn:"));
    }
    menu->addSeparator();
    if (!downloadList_.empty()) {
        const auto count = static_cast<int>(downloadList_.size());
        QString title = QStringLiteral("%1 Download").arg(count);
        if (count > 1)
            title += QLatin1Char('s');
        QMenu* downloads = menu->addMenu(title);
        for (const auto& download : downloadList_) {
            // No action: shown, not chosen.
            downloads->addAction(download->displayName() + progressText(*download))
                ->setEnabled(false);
        }
    }
    add(QStringLiteral("About Ferrybox"), QStringLiteral("orderFrontStandardAboutPanel:"));
    add(QStringLiteral("Preferences..."), QStringLiteral("showPreferences:"));
    add(QStringLiteral("Quit"), QStringLiteral("terminate:"));

    menu_ = std::move(menu);
    statusItem_->setMenu(menu_.get());
}

void AppController::openDownloadsFolder(QObject*) {
    QDesktopServices::openUrl(
        QUrl::fromLocalFile(foundation::expandingTildeInPath(downloadDirectory_)));
}

// The notes service's web page, searching for the default term whatever term is set.
void AppController::goToDownloadNote() {
    const QUrl api(LWSNObject::baseURLString());
    QUrl page;
    page.setScheme(api.scheme());
    page.setHost(api.host());
    page.setPort(api.port());
    page.setQuery(QStringLiteral("q=Ferrybox_Downloads"));
    QDesktopServices::openUrl(page);
}

void AppController::setApplicationActions(std::function<void()> orderFrontStandardAboutPanel,
                                          std::function<void()> terminate) {
    orderFrontStandardAboutPanel_ = std::move(orderFrontStandardAboutPanel);
    terminate_ = std::move(terminate);
}
