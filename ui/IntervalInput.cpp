// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/IntervalInput.h"

#include <QKeyEvent>
#include <QLineEdit>
#include <QRegularExpressionValidator>

IntervalInput::IntervalInput(QLineEdit* field, std::function<QString()> intervalInForce)
    : QObject(field), field_(field), intervalInForce_(std::move(intervalInForce)) {
    // Up to nine digits: any such number of minutes fits the setting's integer.
    field_->setValidator(new QRegularExpressionValidator(
        QRegularExpression(QStringLiteral("[1-9][0-9]{0,8}")), field_));
    field_->installEventFilter(this);
}

// The field ends an edit on Return and when it loses the focus; with valid input it then tells
// the controller, with any other it stays silent, and that is when the interval in force goes
// back in (silently too: the interval has not changed).
bool IntervalInput::eventFilter(QObject* watched, QEvent* event) {
    if (watched != field_ || field_->hasAcceptableInput())
        return QObject::eventFilter(watched, event);
    if (event->type() == QEvent::KeyPress) {
        const int key = static_cast<QKeyEvent*>(event)->key();
        if (key == Qt::Key_Return || key == Qt::Key_Enter) {
            field_->setText(intervalInForce_());
            return true;
        }
    } else if (event->type() == QEvent::FocusOut) {
        // After the field has seen its focus go.
        QMetaObject::invokeMethod(
            field_,
            [this] {
                if (!field_->hasAcceptableInput())
                    field_->setText(intervalInForce_());
            },
            Qt::QueuedConnection);
    }
    return QObject::eventFilter(watched, event);
}
