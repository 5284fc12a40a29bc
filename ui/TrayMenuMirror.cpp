#include "ui/TrayMenuMirror.h"

#include <QTimer>

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

TrayMenuMirror::TrayMenuMirror() {
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
    source_ = source;
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
            (kindOf(item) == Kind::Command && texts_.value(copy) != item->text())) {
            break;
        }
        update(copy, item, exportedOverDBus);
    }
    for (qsizetype i = kept; i < copies.size(); ++i) {
        QAction* copy = copies[i];
        items_.remove(copy);
        texts_.remove(copy);
        if (QMenu* submenu = copy->menu()) {
            mirrorInto(submenu, nullptr, exportedOverDBus);
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
    items_.insert(copy, item);
    if (item->isSeparator())
        return;
    texts_.insert(copy, item->text());
    copy->setText(label(item->text(), exportedOverDBus));
    copy->setEnabled(item->isEnabled());
    copy->setVisible(item->isVisible());
    if (copy->menu())
        mirrorInto(copy->menu(), item->menu(), exportedOverDBus);
}

void TrayMenuMirror::choose(QAction* copy) {
    if (onChosen)
        onChosen();
    // The controller may have rebuilt its menu since this copy was made: then its command of
    // the same text is the one meant.
    QPointer<QAction> item = items_.value(copy);
    QPointer<const QMenu> source = source_;
    const QString text = texts_.value(copy);
    QTimer::singleShot(0, &menu_, [item, source, text] {
        if (QAction* chosen = item ? item.data() : findCommand(source, text))
            chosen->trigger();
    });
}

void TrayMenuMirror::watch(QMenu* menu) {
    QObject::connect(menu, &QMenu::aboutToShow, menu, [this] {
        if (onActivity)
            onActivity();
    });
}

}  // namespace ui
