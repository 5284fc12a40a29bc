// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/SettingsFormat.h"

#include <QIODevice>
#include <QRegularExpression>

namespace foundation {

namespace {

QByteArray quoted(const QString& text) {
    QByteArray out = "\"";
    for (const QChar c : text) {
        switch (c.unicode()) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                out += QString(c).toUtf8();
        }
    }
    return out + "\"";
}

QString unquoted(const QByteArray& raw) {
    QString out;
    const QString text = QString::fromUtf8(raw.mid(1, raw.size() - 2));
    for (qsizetype i = 0; i < text.size(); ++i) {
        QChar c = text[i];
        if (c == '\\' && i + 1 < text.size()) {
            const QChar next = text[++i];
            c = next == 'n'   ? QChar('\n')
                : next == 'r' ? QChar('\r')
                : next == 't' ? QChar('\t')
                              : next;
        }
        out += c;
    }
    return out;
}

QByteArray encodeValue(const QVariant& value) {
    switch (value.typeId()) {
        case QMetaType::Bool:
            return value.toBool() ? "true" : "false";
        case QMetaType::Int:
        case QMetaType::UInt:
        case QMetaType::Long:
        case QMetaType::LongLong:
        case QMetaType::ULongLong:
            return QByteArray::number(value.toLongLong());
        case QMetaType::Double:
        case QMetaType::Float: {
            QByteArray text = QByteArray::number(value.toDouble(), 'g', 17);
            // Keep a double a double when it has no fraction.
            if (!text.contains('.') && !text.contains('e') && !text.contains('n'))
                text += ".0";
            return text;
        }
        default:
            return quoted(value.toString());
    }
}

QVariant decodeValue(const QByteArray& raw) {
    if (raw.size() >= 2 && raw.startsWith('"') && raw.endsWith('"'))
        return unquoted(raw);
    if (raw == "true")
        return true;
    if (raw == "false")
        return false;
    bool ok = false;
    const qlonglong integer = raw.toLongLong(&ok);
    if (ok)
        return integer;
    const double real = raw.toDouble(&ok);
    if (ok)
        return real;
    // A hand-edited value without quotes is still a string.
    return QString::fromUtf8(raw);
}

bool readTyped(QIODevice& device, QSettings::SettingsMap& map) {
    while (!device.atEnd()) {
        const QByteArray line = device.readLine().trimmed();
        if (line.isEmpty() || line.startsWith('#') || line.startsWith(';') ||
            line.startsWith('[')) {
            continue;
        }
        const qsizetype eq = line.indexOf('=');
        if (eq <= 0)
            continue;
        map.insert(QString::fromUtf8(line.left(eq).trimmed()),
                   decodeValue(line.mid(eq + 1).trimmed()));
    }
    return true;
}

bool writeTyped(QIODevice& device, const QSettings::SettingsMap& map) {
    for (auto it = map.cbegin(); it != map.cend(); ++it) {
        const QByteArray line = it.key().toUtf8() + '=' + encodeValue(it.value()) + '\n';
        if (device.write(line) != line.size())
            return false;
    }
    return true;
}

}  // namespace

QSettings::Format typedIniFormat() {
    static const QSettings::Format format =
        QSettings::registerFormat(QStringLiteral("conf"), readTyped, writeTyped);
    return format;
}

}  // namespace foundation
