// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <functional>

namespace foundation {

struct Alert {
    QString title;
    QString message;
    QString defaultButton;
    QString alternateButton;  // empty: none
    QString otherButton;      // empty: none
};

// A modal alert. While it is open the default run-loop mode is held: timers, transport events
// and download callbacks wait until it closes.
class AlertPanel {
public:
    enum Response { DefaultReturn, AlternateReturn, OtherReturn };
    using Presenter = std::function<Response(const Alert&)>;

    static Response runModal(const Alert& alert);

    // Who shows alerts: the desktop build installs a dialog, headless mode keeps the default
    // (log "alert: TITLE: MESSAGE" and answer with the default button), tests answer as a user
    // would. Returns the previous presenter.
    static Presenter setPresenter(Presenter presenter);
    static Response logAndAnswerDefault(const Alert& alert);
};

}  // namespace foundation
