// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/MessageBoxPresenter.h"

#include <QMessageBox>
#include <QPushButton>

#include "foundation/AlertPanel.h"

namespace ui {

void installMessageBoxPresenter() {
    foundation::AlertPanel::setPresenter([](const foundation::Alert& alert) {
        QMessageBox box;
        box.setWindowTitle(alert.title);
        box.setText(alert.title);
        box.setInformativeText(alert.message);
        QPushButton* defaultButton = box.addButton(alert.defaultButton, QMessageBox::AcceptRole);
        QPushButton* alternate =
            alert.alternateButton.isEmpty()
                ? nullptr
                : box.addButton(alert.alternateButton, QMessageBox::RejectRole);
        QPushButton* other = alert.otherButton.isEmpty()
                                 ? nullptr
                                 : box.addButton(alert.otherButton, QMessageBox::DestructiveRole);
        box.setDefaultButton(defaultButton);
        box.exec();
        const auto* clicked = box.clickedButton();
        if (alternate && clicked == alternate)
            return foundation::AlertPanel::AlternateReturn;
        if (other && clicked == other)
            return foundation::AlertPanel::OtherReturn;
        if (!clicked && alternate)
            return foundation::AlertPanel::AlternateReturn;  // Escape
        return foundation::AlertPanel::DefaultReturn;
    });
}

}  // namespace ui
