// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/SharedLink.h"

#include <QRegularExpression>

#include "service/RequestQuery.h"

namespace notes {

namespace {

// Punctuation that ends a sentence belongs to the prose around an address, and so does a
// closing bracket the address did not open ("(see https://x.org/a_(b))").
void trimProse(QString& address) {
    static const QString sentenceEnds = QStringLiteral(".,;:!?");
    static const std::pair<QChar, QChar> brackets[] = {{u'(', u')'}, {u'[', u']'}, {u'{', u'}'}};
    while (!address.isEmpty()) {
        const QChar last = address.back();
        bool unopened = false;
        for (const auto& [open, close] : brackets) {
            if (last == close && address.count(open) < address.count(close))
                unopened = true;
        }
        if (!sentenceEnds.contains(last) && !unopened)
            return;
        address.chop(1);
    }
}

}  // namespace

QUrl firstWebAddress(const QString& text) {
    // An address runs to the next blank or to a character that cannot stand unescaped in one
    // and commonly wraps it in prose: quotes and angle brackets.
    static const QRegularExpression candidate(QStringLiteral(R"(https?://[^\s"'<>]+)"),
                                              QRegularExpression::CaseInsensitiveOption);
    auto matches = candidate.globalMatch(text);
    while (matches.hasNext()) {
        QString address = matches.next().captured();
        trimProse(address);
        const QUrl url(address, QUrl::StrictMode);
        if (url.isValid() && !url.host().isEmpty())
            return url;
    }
    return QUrl();
}

QUrl sharedLink(const std::string& form) {
    const QUrl link = firstWebAddress(formValue(form, "url"));
    return link.isEmpty() ? firstWebAddress(formValue(form, "text")) : link;
}

QString linkName(const QUrl& link) {
    const QString name = link.fileName(QUrl::FullyDecoded);
    return name.isEmpty() ? link.host() : name;
}

}  // namespace notes
