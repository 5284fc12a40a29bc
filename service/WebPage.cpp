// SPDX-License-Identifier: GPL-3.0-or-later
// Serves the static files of the notes web page from the resource compiled into the binary.
#include "service/WebPage.h"

#include <QFile>
#include <memory>
#include <string>

#include "service/HttpServer.h"

namespace notes {

namespace {

// The page may run, style and fetch with its own files and this origin only; nothing inline,
// nothing foreign, no form posting anywhere and no framing. A note that holds markup can then
// do no harm even if it ever reached the page as markup by mistake. The manifest and the service
// worker that make the page an installable app come from this origin too.
constexpr char kPolicy[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
    "img-src 'self'; manifest-src 'self'; worker-src 'self'; base-uri 'none'; "
    "form-action 'none'; frame-ancestors 'none'";

struct Asset {
    const char* path;
    const char* resource;
    const char* contentType;
};

// The PNG icons are drawn from icon.svg once, in service/web, and kept in the repository:
//   rsvg-convert -w 192 -h 192 icon.svg -o icon-192.png
//   rsvg-convert -w 512 -h 512 icon.svg -o icon-512.png
//   sed -e 's/ rx="7"//' -e 's|<path|<path transform="translate(1.6 1.6) scale(.9)"|' icon.svg |
//       rsvg-convert -w 512 -h 512 -o icon-maskable-512.png
// The maskable one fills the whole square (the launcher cuts its own shape) and keeps the drawing
// well inside the central circle of 80% that every shape leaves whole.
constexpr Asset kAssets[] = {
    {"/", ":/web/index.html", "text/html; charset=utf-8"},
    // What a phone's share sheet opens; the script sees the path and queues what was shared.
    {"/share", ":/web/index.html", "text/html; charset=utf-8"},
    {"/app.js", ":/web/app.js", "text/javascript; charset=utf-8"},
    {"/app.css", ":/web/app.css", "text/css; charset=utf-8"},
    {"/sw.js", ":/web/sw.js", "text/javascript; charset=utf-8"},
    {"/manifest.webmanifest", ":/web/manifest.webmanifest", "application/manifest+json"},
    {"/icon.svg", ":/web/icon.svg", "image/svg+xml"},
    {"/icon-192.png", ":/web/icon-192.png", "image/png"},
    {"/icon-512.png", ":/web/icon-512.png", "image/png"},
    {"/icon-maskable-512.png", ":/web/icon-maskable-512.png", "image/png"},
};

}  // namespace

void installWebPage(HttpServer& server) {
    for (const Asset& asset : kAssets) {
        QFile file(QString::fromLatin1(asset.resource));
        // Missing only in a broken build: better no start than a page without its script.
        if (!file.open(QIODevice::ReadOnly))
            qFatal("ferrybox-notes: %s is missing from the build", asset.resource);
        auto body = std::make_shared<const std::string>(file.readAll().toStdString());
        server.addRoute({"GET",
                         asset.path,
                         0,
                         {},
                         [body, type = asset.contentType](const HttpRequest&, HttpResponse& res) {
                             res.body = *body;
                             res.contentType = type;
                             // The files change with the binary: always ask whether they did
                             // (the service worker too, so a new one is found at once).
                             res.headers = {{"Content-Security-Policy", kPolicy},
                                            {"Referrer-Policy", "no-referrer"},
                                            {"Cache-Control", "no-cache"}};
                         }});
    }
}

}  // namespace notes
