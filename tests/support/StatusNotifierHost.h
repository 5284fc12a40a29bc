// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QDBusMessage>
#include <QObject>
#include <QString>
#include <QStringList>

#include "tests/support/QtPrinters.h"

namespace testsupport {

// A desktop panel's tray as the tests see it: the StatusNotifierWatcher of the session bus (the
// test process's private one), with a host registered, on a connection of its own. Items that
// register are read over D-Bus as a panel reads them: the icon from the item's IconPixmap, the
// menu over dbusmenu (GetLayout), and clicks go back as dbusmenu events.
class StatusNotifierHost : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ registeredItems)
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ isHostRegistered)
    Q_PROPERTY(int ProtocolVersion READ protocolVersion)

public:
    struct MenuNode;  // one item of a dbusmenu layout, with its submenu

    // imageFolder holds the agent's tray images, by which the shown icon is named.
    explicit StatusNotifierHost(const QString& imageFolder);
    ~StatusNotifierHost() override;

    bool isRegistered() const { return registered_; }
    bool hasItem() const { return !itemService_.isEmpty(); }
    // Gives up the watcher's name, as a panel that is closed does.
    void unregister();

    // The file name of the agent image the item shows at 16 pixels ("down_16.png"); empty when
    // there is no item, "?" when it shows something else.
    QString iconName();
    // The item's menu as a panel would draw it, one line per item: the label with dbusmenu's
    // mnemonic marks taken out, "-" for a separator, "[label]" for a disabled item, and the items
    // of a submenu indented by two blanks under it. Empty when it cannot be read.
    QStringList menuLines();
    // Clicks the item of this label (as menuLines() shows it, without brackets or indentation),
    // without waiting for the agent to act; false when there is no such item.
    bool click(const QString& label);
    // The panel opens the menu (AboutToShow and the "opened" event) or closes it.
    void openMenu();
    void closeMenu();
    // A left click on the icon itself.
    void activate();

    QStringList registeredItems() const;
    bool isHostRegistered() const { return registered_; }
    int protocolVersion() const { return 0; }

public Q_SLOTS:
    void RegisterStatusNotifierItem(const QString& service, const QDBusMessage& message);
    void RegisterStatusNotifierHost(const QString& service);

Q_SIGNALS:
    void StatusNotifierItemRegistered(const QString& item);
    void StatusNotifierItemUnregistered(const QString& item);
    void StatusNotifierHostRegistered();
    void StatusNotifierHostUnregistered();

private:
    QVariant itemProperty(const QString& name) const;
    QDBusMessage menuMessage(const QString& method, const QVariantList& arguments) const;
    QDBusMessage menuCall(const QString& method, const QVariantList& arguments) const;
    bool readLayout(MenuNode& root) const;

    QString connectionName_;
    QString imageFolder_;
    bool registered_ = false;
    QString itemService_;
    QString itemPath_;
};

}  // namespace testsupport
