// SPDX-License-Identifier: GPL-3.0-or-later
// Actions by name, as the controls and menu items send them: the one place that knows which
// operation a name stands for.
#include <QHash>
#include <functional>

#include "agent/AppController.h"

bool AppController::tryToPerform(const QString& action, QObject* sender) {
    using Action = std::function<void(AppController&, QObject*)>;
    static const QHash<QString, Action> actions = {
        {QStringLiteral("turnFerryboxOn:"), &AppController::turnFerryboxOn},
        {QStringLiteral("turnFerryboxOff:"), &AppController::turnFerryboxOff},
        {QStringLiteral("searchForNote"), [](AppController& c, QObject*) { c.searchForNote(); }},
        {QStringLiteral("goToDownloadNote"),
         [](AppController& c, QObject*) { c.goToDownloadNote(); }},
        {QStringLiteral("openDownloadsFolder:"), &AppController::openDownloadsFolder},
        {QStringLiteral("showPreferences:"), &AppController::showPreferences},
        {QStringLiteral("toggleLogNote:"), &AppController::toggleLogNote},
        {QStringLiteral("clearLogNote:"), &AppController::clearLogNote},
        {QStringLiteral("togglePutFailedLinksBack:"), &AppController::togglePutFailedLinksBack},
        {QStringLiteral("changeVideoPageTool:"), &AppController::changeVideoPageTool},
        {QStringLiteral("chooseVideoPageTool:"), &AppController::chooseVideoPageTool},
        {QStringLiteral("toggleRememberInKeychain:"), &AppController::toggleRememberInKeychain},
        {QStringLiteral("changeDownloadDirectory:"), &AppController::changeDownloadDirectory},
        {QStringLiteral("toggleGrowl:"), &AppController::toggleGrowl},
        {QStringLiteral("showIntervalHelp:"), &AppController::showIntervalHelp},
        {QStringLiteral("controlTextDidEndEditing:"), &AppController::controlTextDidEndEditing},
        // The application object's own: the about panel and quitting through the quit guard.
        {QStringLiteral("orderFrontStandardAboutPanel:"),
         [](AppController& c, QObject*) {
             if (c.orderFrontStandardAboutPanel_)
                 c.orderFrontStandardAboutPanel_();
         }},
        {QStringLiteral("terminate:"),
         [](AppController& c, QObject*) {
             if (c.terminate_)
                 c.terminate_();
         }},
    };
    const auto it = actions.constFind(action);
    if (it == actions.constEnd())
        return false;
    (*it)(*this, sender);
    return true;
}
