// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/TrayIcon.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QIcon>
#include <QMenu>
#include <QPointer>
#include <QSystemTrayIcon>
#include <QTimer>
#include <memory>
#include <optional>

#include "agent/StatusItem.h"
#include "foundation/RunLoop.h"
#include "ui/TrayMenuMirror.h"

namespace ui {
namespace {

QIcon imageNamed(const QString& name) {
    return name.isEmpty() ? QIcon() : QIcon(QStringLiteral(":/images/") + name);
}

// The tray publishes its icon and menu to the desktop over D-Bus, while the item changes with
// every piece of a running download: the tray shows the item's newest state at most ten times
// a second.
constexpr qint64 kShortestUpdateMs = 100;
// Some panels tell that the menu opened and never that it closed. Without a sign of life from
// the menu for this long, it counts as closed, so that nothing waits on it for ever.
constexpr int kLongestIdleMenuMs = 10000;

class TrayBinding {
public:
    // The application holds the icon among its children, where tests can find it. The tray keeps
    // one menu, ours, for its whole life.
    TrayBinding()
        : mirror_([this] { return item_ ? item_->menu() : nullptr; }),
          tray_(std::make_unique<QSystemTrayIcon>(QCoreApplication::instance())) {
        tray_->setContextMenu(mirror_.menu());
        mirror_.onChosen = [this] { menuClosed(); };
        mirror_.onActivity = [this] {
            if (hold_)
                idle_.start();
        };
        QObject::connect(mirror_.menu(), &QMenu::aboutToShow, &context_, [this] { menuOpened(); });
        QObject::connect(mirror_.menu(), &QMenu::aboutToHide, &context_, [this] { menuClosed(); });
        // A click on the icon itself ends the menu's tracking; the context click is the one that
        // opens it.
        QObject::connect(tray_.get(), &QSystemTrayIcon::activated, &context_,
                         [this](QSystemTrayIcon::ActivationReason reason) {
                             if (reason != QSystemTrayIcon::Context)
                                 menuClosed();
                         });
        idle_.setSingleShot(true);
        idle_.setInterval(kLongestIdleMenuMs);
        QObject::connect(&idle_, &QTimer::timeout, &context_, [this] { menuClosed(); });
    }

    void sync(StatusItem& item) {
        item_ = &item;
        if (updatePending_)
            return;
        const qint64 since = lastUpdate_.isValid() ? lastUpdate_.elapsed() : kShortestUpdateMs;
        if (since >= kShortestUpdateMs) {
            update();
            return;
        }
        updatePending_ = true;
        QTimer::singleShot(kShortestUpdateMs - since, &context_, [this] {
            updatePending_ = false;
            update();
        });
    }

private:
    void update() {
        lastUpdate_.start();
        if (item_->image() != image_ || item_->alternateImage() != alternateImage_) {
            image_ = item_->image();
            alternateImage_ = item_->alternateImage();
            showCurrentImage();
        }
        tray_->setVisible(item_->isEnabled());
        mirror_.mirror(item_->menu());
    }

    // While the menu is open the default run-loop mode is held: a check never starts under the
    // person's pointer.
    void menuOpened() {
        menuOpen_ = true;
        if (!hold_)
            hold_.emplace();
        idle_.start();
        showCurrentImage();
    }

    void menuClosed() {
        idle_.stop();
        if (!menuOpen_)
            return;
        menuOpen_ = false;
        hold_.reset();
        showCurrentImage();
    }

    void showCurrentImage() {
        const bool alternate = menuOpen_ && !alternateImage_.isEmpty();
        tray_->setIcon(imageNamed(alternate ? alternateImage_ : image_));
    }

    TrayMenuMirror mirror_;  // outlives the tray that shows it
    std::unique_ptr<QSystemTrayIcon> tray_;
    StatusItem* item_ = nullptr;  // the item owns this binding
    QObject context_;
    QElapsedTimer lastUpdate_;
    bool updatePending_ = false;
    QString image_;
    QString alternateImage_;
    bool menuOpen_ = false;
    QTimer idle_;
    std::optional<foundation::RunLoop::DefaultModeHold> hold_;
};

}  // namespace

void installTrayStatusBar() {
    StatusBar::systemStatusBar().setNewItemHook([](const std::shared_ptr<StatusItem>& item) {
        auto binding = std::make_shared<TrayBinding>();
        item->setChangeHandler([binding](StatusItem& changed) { binding->sync(changed); });
    });
}

}  // namespace ui
