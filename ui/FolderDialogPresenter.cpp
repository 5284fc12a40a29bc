// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/FolderDialogPresenter.h"

#include <QFileDialog>

#include "foundation/OpenPanel.h"

namespace ui {

void installFolderDialogPresenter() {
    foundation::OpenPanel::setPresenter([](const QString& startFolder) {
        const QString chosen = QFileDialog::getExistingDirectory(
            nullptr, QStringLiteral("Download Folder"), startFolder);
        return chosen.isEmpty() ? QString() : chosen;  // cancelled
    });
}

}  // namespace ui
