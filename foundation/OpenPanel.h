// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <functional>

namespace foundation {

// A modal panel that lets the user choose a folder. While it is open the default run-loop mode is
// held, as for an alert.
class OpenPanel {
public:
    // The chosen folder's absolute path, or null when the user cancels.
    using Presenter = std::function<QString(const QString& startFolder)>;

    static QString chooseDirectory(const QString& startFolder);

    // Who shows the panel: the desktop build installs a folder dialog; without one (headless)
    // every choice is cancelled; tests choose as a user would. Returns the previous presenter.
    static Presenter setPresenter(Presenter presenter);
};

}  // namespace foundation
