// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <functional>

namespace foundation {

// A modal panel that lets the user choose a folder, or a program. While it is open the default
// run-loop mode is held, as for an alert.
class OpenPanel {
public:
    // The chosen folder's (or file's) absolute path, or null when the user cancels.
    using Presenter = std::function<QString(const QString& start)>;

    static QString chooseDirectory(const QString& startFolder);
    // Starts at this file, or in this folder.
    static QString chooseProgram(const QString& start);

    // Who shows the panel: the desktop build installs its file dialogs; without them (headless)
    // every choice is cancelled; tests choose as a user would. Each returns the previous presenter.
    static Presenter setPresenter(Presenter presenter);
    static Presenter setProgramPresenter(Presenter presenter);
};

}  // namespace foundation
