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

namespace ui {
namespace {

QIcon imageNamed(const QString& name) {
    return name.isEmpty() ? QIcon() : QIcon(QStringLiteral(":/images/") + name);
}

// The tray publishes its icon and menu to the desktop over D-Bus, while the item changes with
// every piece of a running download: the tray shows the item's newest state at most ten times
// a second.
constexpr qint64 kShortestUpdateMs = 100;

class TrayBinding {
public:
    // The application holds the icon among its children, where tests can find it.
    TrayBinding() : tray_(std::make_unique<QSystemTrayIcon>(QCoreApplication::instance())) {}

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
        if (item_->menu() != menu_) {
            menu_ = item_->menu();
            tray_->setContextMenu(menu_);
            if (menu_)
                watchMenu(menu_);
        }
    }

    void watchMenu(QMenu* menu) {
        QObject::connect(menu, &QMenu::aboutToShow, menu, [this] {
            menuOpen_ = true;
            hold_.emplace();
            showCurrentImage();
        });
        QObject::connect(menu, &QMenu::aboutToHide, menu, [this] {
            menuOpen_ = false;
            hold_.reset();
            showCurrentImage();
        });
    }

    void showCurrentImage() {
        const bool alternate = menuOpen_ && !alternateImage_.isEmpty();
        tray_->setIcon(imageNamed(alternate ? alternateImage_ : image_));
    }

    std::unique_ptr<QSystemTrayIcon> tray_;
    StatusItem* item_ = nullptr;  // the item owns this binding
    QObject context_;
    QElapsedTimer lastUpdate_;
    bool updatePending_ = false;
    QString image_;
    QString alternateImage_;
    QPointer<QMenu> menu_;  // null once the controller has let it go
    bool menuOpen_ = false;
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
