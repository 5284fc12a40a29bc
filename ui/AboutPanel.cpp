// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/AboutPanel.h"

#include <QApplication>
#include <QIcon>
#include <QMessageBox>
#include <QPointer>

namespace ui {

void orderFrontStandardAboutPanel() {
    static QPointer<QMessageBox> panel;
    if (!panel) {
        panel = new QMessageBox(QMessageBox::NoIcon, QStringLiteral("About Ferrybox"),
                                QStringLiteral("<b>Ferrybox</b><br>Version %1<br><br>Downloads "
                                               "every link you write into your download note.")
                                    .arg(QApplication::applicationVersion()),
                                QMessageBox::Ok);
        panel->setIconPixmap(QApplication::windowIcon().pixmap(64, 64));
        panel->setAttribute(Qt::WA_DeleteOnClose);
        panel->setModal(false);
    }
    panel->show();
    panel->raise();
    panel->activateWindow();
}

}  // namespace ui
