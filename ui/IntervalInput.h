// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>
#include <functional>

class QLineEdit;

// The interval field's input: whole minutes, one at least, written in digits only (a group
// separator such as "1,440" would otherwise be taken for its first group). An edit that ends
// without a valid number, an empty field say, is refused and the field shows the interval in
// force again.
class IntervalInput : public QObject {
public:
    IntervalInput(QLineEdit* field, std::function<QString()> intervalInForce);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    QLineEdit* field_;
    std::function<QString()> intervalInForce_;
};
