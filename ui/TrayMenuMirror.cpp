// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/TrayMenuMirror.h"

#include "foundation/RunLoop.h"

namespace ui {

namespace {

enum class Kind { Separator, Submenu, Command, Line };

// A disabled item without a submenu only shows something (a download's progress).
Kind kindOf(const QAction* item) {
    if (item->isSeparator())
        return Kind::Separator;
    if (item->menu())
        return Kind::Submenu;
    return item->isEnabled() ? Kind::Command : Kind::Line;
}

QAction* findCommand(const QMenu* menu, const QString& text) {
    if (!menu)
        return nullptr;
    for (QAction* item : menu->actions()) {
        if (kindOf(item) == Kind::Command && item->text() == text)
            return item;
    }
    return nullptr;
}

}  // namespace

TrayMenuMirror::TrayMenuMirror(std::function<const QMenu*()> currentSource)
    : currentSource_(std::move(currentSource)) {
    watch(&menu_);
}

TrayMenuMirror::~TrayMenuMirror() = default;

QString TrayMenuMirror::label(const QString& text, bool exportedOverDBus) {
    if (!exportedOverDBus)
        return QString(text).replace(QLatin1Char('&'), QStringLiteral("&&"));
    const QString escaped = QString(text).replace(QLatin1Char('_'), QStringLiteral("__"));
    // Qt turns the first "&" of a text into dbusmenu's "_" and passes the others as they are. A
    // text holding an "&" of its own gets a leading one to spend there; it only makes the first
    // letter the access key.
    return text.contains(QLatin1Char('&')) ? QLatin1Char('&') + escaped : escaped;
}

void TrayMenuMirror::mirror(const QMenu* source) {
    mirrorInto(&menu_, source, menu_.platformMenu() != nullptr);
}

// Items are kept as long as they match in order: same kind, and a command also of the same text,
// so that one item never changes from one command to another under a panel that shows it. From
// the first that does not match on, the copies are made anew.
void TrayMenuMirror::mirrorInto(QMenu* target, const QMenu* source, bool exportedOverDBus) {
    const QList<QAction*> items = source ? source->actions() : QList<QAction*>();
    const QList<QAction*> copies = target->actions();
    qsizetype kept = 0;
    for (; kept < items.size() && kept < copies.size(); ++kept) {
        QAction* copy = copies[kept];
        QAction* item = items[kept];
        if (kindOf(copy) != kindOf(item) ||
            (kindOf(item) == Kind::Command && copy->data().toString() != item->text())) {
            break;
        }
        update(copy, item, exportedOverDBus);
    }
    for (qsizetype i = kept; i < copies.size(); ++i) {
        QAction* copy = copies[i];
        if (QMenu* submenu = copy->menu()) {
            delete submenu;  // and with it its item
        } else {
            delete copy;
        }
    }
    for (qsizetype i = kept; i < items.size(); ++i)
        copyOf(target, items[i], exportedOverDBus);
}

QAction* TrayMenuMirror::copyOf(QMenu* target, QAction* item, bool exportedOverDBus) {
    QAction* copy = nullptr;
    if (item->isSeparator()) {
        copy = target->addSeparator();
    } else if (item->menu()) {
        auto* submenu = new QMenu(target);
        watch(submenu);
        copy = target->addMenu(submenu);
    } else {
        copy = new QAction(target);
        target->addAction(copy);
        QObject::connect(copy, &QAction::triggered, target, [this, copy] { choose(copy); });
        QObject::connect(copy, &QAction::hovered, target, [this] {
            if (onActivity)
                onActivity();
        });
    }
    update(copy, item, exportedOverDBus);
    return copy;
}

void TrayMenuMirror::update(QAction* copy, QAction* item, bool exportedOverDBus) {
    if (item->isSeparator())
        return;
    copy->setData(item->text());
    copy->setText(label(item->text(), exportedOverDBus));
    copy->setEnabled(item->isEnabled());
    copy->setVisible(item->isVisible());
    if (copy->menu())
        mirrorInto(copy->menu(), item->menu(), exportedOverDBus);
}

void TrayMenuMirror::choose(QAction* copy) {
    if (onChosen)
        onChosen();
    const QString text = copy->data().toString();
    foundation::RunLoop::main().performInDefaultMode(
        [this, text] {
            if (QAction* chosen = findCommand(currentSource_(), text))
                chosen->trigger();
        },
        &menu_);
}

void TrayMenuMirror::watch(QMenu* menu) {
    QObject::connect(menu, &QMenu::aboutToShow, menu, [this] {
        if (onActivity)
            onActivity();
    });
}

}  // namespace ui
