// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/FileDialogPresenters.h"

#include <QFileDialog>

#include "foundation/OpenPanel.h"

namespace ui {

void installFileDialogPresenters() {
    foundation::OpenPanel::setPresenter([](const QString& startFolder) {
        const QString chosen = QFileDialog::getExistingDirectory(
            nullptr, QStringLiteral("Download Folder"), startFolder);
        return chosen.isEmpty() ? QString() : chosen;  // cancelled
    });
    foundation::OpenPanel::setProgramPresenter([](const QString& start) {
        const QString chosen =
            QFileDialog::getOpenFileName(nullptr, QStringLiteral("yt-dlp Program"), start);
        return chosen.isEmpty() ? QString() : chosen;  // cancelled
    });
}

}  // namespace ui
