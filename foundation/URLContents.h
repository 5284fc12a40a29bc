// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QUrl>
#include <optional>

namespace foundation {

// The whole resource at url, read synchronously. The calling thread simply waits while a thread
// of the read's own fetches it: no event loop runs on the caller's thread meanwhile, so no timer,
// network answer or other queued work of the caller can run in the middle of the call. Redirects
// are followed (never from https to http); the read gives up after 60 s without a byte. An HTTP
// answer of any status is read as the resource; nullopt only when nothing could be read (no
// network, no such host, a refused connection, a scheme that cannot be fetched).
std::optional<QByteArray> contentsOfURL(const QUrl& url);

}  // namespace foundation
