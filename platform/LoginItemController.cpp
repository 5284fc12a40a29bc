// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/LoginItemController.h"

#include <QCheckBox>
#include <QCoreApplication>

#include "foundation/UserDefaults.h"
#include "platform/LoginItemsList.h"

// Taking Ferrybox off goes through an insertion on purpose: it answers the item whether or not
// Ferrybox was listed, so the list need not be searched. Nothing is checked or reported.
void LoginItemController::addToLoginItems(QObject*) {
    LoginItemsList& list = LoginItemsList::sessionLoginItems();
    const QString application = QCoreApplication::applicationFilePath();
    auto& defaults = foundation::UserDefaults::standardUserDefaults();
    if (openAtLoginButton_->checkState() == Qt::Checked) {
        list.insertItemURL(application);
        defaults.setObject(QStringLiteral("yes"), QStringLiteral("openAtLogin"));
    } else {
        list.removeItem(list.insertItemURL(application));
        defaults.setObject(QStringLiteral("no"), QStringLiteral("openAtLogin"));
    }
    defaults.synchronize();
}
