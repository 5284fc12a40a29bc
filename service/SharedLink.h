// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <QUrl>
#include <string>

namespace notes {

// The first http or https address in text, as apps put it in what they share: alone, or with
// words, quotes, brackets or a full stop around it. An empty QUrl when there is none.
QUrl firstWebAddress(const QString& text);

// The link that what was shared (the form fields url and text, as in the share target's query
// or the page's request) would queue: the first web address in url, else in text.
QUrl sharedLink(const std::string& form);

// What a download of link would be called: its last path segment, decoded, else its host.
QString linkName(const QUrl& link);

}  // namespace notes
