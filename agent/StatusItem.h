// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <functional>
#include <memory>

class QMenu;

// The agent's item in the desktop's status area: an image, an alternate image shown while its
// menu is open, and the menu. The item only holds this state; whoever shows it (the tray icon of
// the desktop build) listens for changes. Headless runs keep an item that nobody shows.
class StatusItem {
public:
    static constexpr double VariableLength = -1;

    const QString& image() const { return image_; }
    void setImage(const QString& name);
    const QString& alternateImage() const { return alternateImage_; }
    void setAlternateImage(const QString& name);
    bool highlightMode() const { return highlightMode_; }
    void setHighlightMode(bool on);
    bool isEnabled() const { return enabled_; }
    void setEnabled(bool on);
    QMenu* menu() const { return menu_; }
    // The item does not own the menu; the controller keeps the menu it built last.
    void setMenu(QMenu* menu);
    double length() const { return length_; }

    // Called after every change.
    void setChangeHandler(std::function<void(StatusItem&)> handler);

private:
    friend class StatusBar;
    explicit StatusItem(double length) : length_(length) {}
    void changed();

    double length_;
    QString image_;
    QString alternateImage_;
    bool highlightMode_ = false;
    bool enabled_ = false;
    QMenu* menu_ = nullptr;
    std::function<void(StatusItem&)> changeHandler_;
};

// The desktop's status area. The desktop build installs a hook that gives every new item a tray
// icon; without one, items exist but show nowhere.
class StatusBar {
public:
    static StatusBar& systemStatusBar();
    std::shared_ptr<StatusItem> statusItemWithLength(double length);

    using ItemHook = std::function<void(const std::shared_ptr<StatusItem>&)>;
    void setNewItemHook(ItemHook hook) { hook_ = std::move(hook); }

private:
    ItemHook hook_;
};
