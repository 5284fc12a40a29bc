// SPDX-License-Identifier: GPL-3.0-or-later
// Serves the static files of the notes web page from the resource compiled into the binary.
#include "service/WebPage.h"

#include <QFile>
#include <QUrl>
#include <memory>
#include <string>
#include <utility>

#include "service/HttpServer.h"
#include "service/SharedLink.h"

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
    {"/app.js", ":/web/app.js", "text/javascript; charset=utf-8"},
    {"/app.css", ":/web/app.css", "text/css; charset=utf-8"},
    {"/sw.js", ":/web/sw.js", "text/javascript; charset=utf-8"},
    {"/manifest.webmanifest", ":/web/manifest.webmanifest", "application/manifest+json"},
    {"/icon.svg", ":/web/icon.svg", "image/svg+xml"},
    {"/icon-192.png", ":/web/icon-192.png", "image/png"},
    {"/icon-512.png", ":/web/icon-512.png", "image/png"},
    {"/icon-maskable-512.png", ":/web/icon-maskable-512.png", "image/png"},
};

std::string resource(const char* name) {
    QFile file(QString::fromLatin1(name));
    // Missing only in a broken build: better no start than a page without its script.
    if (!file.open(QIODevice::ReadOnly))
        qFatal("ferrybox-notes: %s is missing from the build", name);
    return file.readAll().toStdString();
}

void answerFile(HttpResponse& res, std::string body, const char* contentType) {
    res.body = std::move(body);
    res.contentType = contentType;
    // The files change with the binary: always ask whether they did (the service worker too,
    // so a new one is found at once).
    res.headers = {{"Content-Security-Policy", kPolicy},
                   {"Referrer-Policy", "no-referrer"},
                   {"Cache-Control", "no-cache"}};
}

// Whether the browser says no page made this navigation (the share sheet, an address typed or
// a bookmark: "none") or this service's own page did. Only then is what it carries the
// person's own share. A page of any other site can send the browser to /share too, and a
// browser that does not say where a navigation came from is treated like one.
bool ownNavigation(const HttpRequest& req) {
    const std::string* site = req.header("sec-fetch-site");
    return site && (*site == "none" || *site == "same-origin");
}

// The page for the share target. The script queues what was shared at once only when the page
// carries the first marker; otherwise it shows the link the service would take (the second,
// worked out here by the same rule that queues it) and waits for a tap. The markers are
// markup, not script, which the page's policy would refuse inline.
std::string sharePage(const std::string& page, const HttpRequest& req) {
    std::string markers;
    if (ownNavigation(req))
        markers += "<meta name=\"ferrybox-share\" content=\"at-once\">\n";
    const auto question = req.target.find('?');
    const QUrl link =
        sharedLink(question == std::string::npos ? std::string() : req.target.substr(question + 1));
    // Encoded in full, the link holds no quote or angle bracket; escaped all the same, as
    // anything from a stranger is before it goes into markup.
    markers += "<meta name=\"ferrybox-shared-link\" content=\"" +
               link.toString(QUrl::FullyEncoded).toHtmlEscaped().toStdString() + "\">\n";
    std::string body = page;
    body.insert(body.find("</head>"), markers);
    return body;
}

}  // namespace

void installWebPage(HttpServer& server) {
    for (const Asset& asset : kAssets) {
        auto body = std::make_shared<const std::string>(resource(asset.resource));
        server.addRoute({"GET",
                         asset.path,
                         0,
                         {},
                         [body, type = asset.contentType](const HttpRequest&, HttpResponse& res) {
                             answerFile(res, *body, type);
                         }});
    }
    // What a phone's share sheet opens; the script sees the path and queues what was shared,
    // or asks first when another site sent the browser here.
    auto page = std::make_shared<const std::string>(resource(":/web/index.html"));
    if (page->find("</head>") == std::string::npos)
        qFatal("ferrybox-notes: the web page has no head to mark a share in");
    server.addRoute({"GET", "/share", 0, {}, [page](const HttpRequest& req, HttpResponse& res) {
                         answerFile(res, sharePage(*page, req), "text/html; charset=utf-8");
                         // The same address is one page or the other by who sent the browser.
                         res.headers.emplace_back("Vary", "Sec-Fetch-Site");
                     }});
}

}  // namespace notes
