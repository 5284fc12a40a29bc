// SPDX-License-Identifier: GPL-3.0-or-later
// The file name a response suggests, made safe to put into a folder: whatever a server answers,
// the name cannot lead out of the folder it is saved in, nor pass for a partial file that the
// next start would delete.
#include <QMap>
#include <QStringDecoder>
#include <QUrl>

#include "foundation/PartialFiles.h"
#include "foundation/URLConnection.h"
#include "foundation/Utf8.h"

namespace foundation {

namespace {

constexpr qsizetype kMaxNameBytes = 255;

// The parameters of a header such as Content-Disposition, by lower-case name. A quoted value
// loses its quotes and backslash escapes; a ";" inside quotes belongs to the value.
QMap<QString, QString> headerParameters(const QString& header) {
    QMap<QString, QString> parameters;
    qsizetype i = header.indexOf(QLatin1Char(';'));
    while (i >= 0 && i < header.size()) {
        ++i;
        const qsizetype eq = header.indexOf(QLatin1Char('='), i);
        if (eq < 0)
            break;
        const QString name = header.mid(i, eq - i).trimmed().toLower();
        QString value;
        qsizetype at = eq + 1;
        while (at < header.size() && header[at].isSpace())
            ++at;
        if (at < header.size() && header[at] == QLatin1Char('"')) {
            for (++at; at < header.size() && header[at] != QLatin1Char('"'); ++at) {
                if (header[at] == QLatin1Char('\\') && at + 1 < header.size())
                    ++at;
                value += header[at];
            }
            at = header.indexOf(QLatin1Char(';'), at);
        } else {
            const qsizetype end = header.indexOf(QLatin1Char(';'), at);
            value = header.mid(at, end < 0 ? -1 : end - at).trimmed();
            at = end;
        }
        if (!parameters.contains(name))
            parameters.insert(name, value);
        i = at;
    }
    return parameters;
}

// RFC 5987: charset'language'percent-encoded bytes. UTF-8 and ISO-8859-1 are understood.
QString extendedValue(const QString& value) {
    const qsizetype first = value.indexOf(QLatin1Char('\''));
    const qsizetype second = first < 0 ? -1 : value.indexOf(QLatin1Char('\''), first + 1);
    if (second < 0)
        return QString();
    const QString charset = value.left(first).toLower();
    const QByteArray bytes = QByteArray::fromPercentEncoding(value.mid(second + 1).toLatin1());
    if (charset == QLatin1String("utf-8")) {
        QStringDecoder decoder(QStringDecoder::Utf8, QStringConverter::Flag::Stateless);
        const QString text = decoder(bytes);
        return decoder.hasError() ? QString() : text;
    }
    return charset == QLatin1String("iso-8859-1") ? QString::fromLatin1(bytes) : QString();
}

// The last component of a name that may hold a path, without control characters, at most 255
// bytes and never of a partial file's form; empty when nothing usable is left.
QString safeName(const QString& suggested) {
    QString name = suggested;
    name.replace(QLatin1Char('\\'), QLatin1Char('/'));
    name = name.section(QLatin1Char('/'), -1);
    name.removeIf([](QChar c) { return c.unicode() < 0x20 || c.unicode() == 0x7f; });
    name = name.trimmed();
    if (name == QLatin1String(".") || name == QLatin1String(".."))
        return QString();
    name = leadingUtf8Bytes(name, kMaxNameBytes);
    // Every partial file's name begins with "."; the finished file's then does not.
    if (PartialFiles::isPartialName(name))
        name[0] = QLatin1Char('_');
    return name;
}

}  // namespace

QString HTTPURLResponse::suggestedFilename() const {
    const QString disposition = valueForHeader("Content-Disposition");
    if (!disposition.isEmpty()) {
        const auto parameters = headerParameters(disposition);
        for (const QString& name : {extendedValue(parameters.value(QStringLiteral("filename*"))),
                                    parameters.value(QStringLiteral("filename"))}) {
            const QString safe = safeName(name);
            if (!safe.isEmpty())
                return safe;
        }
    }
    const QString last = url.path(QUrl::FullyEncoded).section(QLatin1Char('/'), -1);
    const QString fromUrl = safeName(QUrl::fromPercentEncoding(last.toLatin1()));
    return fromUrl.isEmpty() ? QStringLiteral("index.html") : fromUrl;
}

}  // namespace foundation
