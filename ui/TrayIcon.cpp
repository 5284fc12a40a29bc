#include "ui/TrayIcon.h"

#include <QIcon>
#include <QMenu>
#include <QSystemTrayIcon>
#include <memory>
#include <optional>

#include "agent/StatusItem.h"
#include "foundation/RunLoop.h"

namespace ui {
namespace {

QIcon imageNamed(const QString& name) {
    return name.isEmpty() ? QIcon() : QIcon(QStringLiteral(":/images/") + name);
}

class TrayBinding {
public:
    TrayBinding() : tray_(std::make_unique<QSystemTrayIcon>()) {}

    void sync(StatusItem& item) {
        image_ = item.image();
        alternateImage_ = item.alternateImage();
        showCurrentImage();
        tray_->setVisible(item.isEnabled());
        if (item.menu() != menu_) {
            menu_ = item.menu();
            tray_->setContextMenu(menu_);
            if (menu_)
                watchMenu(menu_);
        }
    }

private:
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
    QString image_;
    QString alternateImage_;
    QMenu* menu_ = nullptr;
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
