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
// do no harm even if it ever reached the page as markup by mistake.
constexpr char kPolicy[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
    "img-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

struct Asset {
    const char* path;
    const char* resource;
    const char* contentType;
};

constexpr Asset kAssets[] = {
    {"/", ":/web/index.html", "text/html; charset=utf-8"},
    {"/app.js", ":/web/app.js", "text/javascript; charset=utf-8"},
    {"/app.css", ":/web/app.css", "text/css; charset=utf-8"},
    {"/icon.svg", ":/web/icon.svg", "image/svg+xml"},
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
                             // The files change with the binary: always ask whether they did.
                             res.headers = {{"Content-Security-Policy", kPolicy},
                                            {"Referrer-Policy", "no-referrer"},
                                            {"Cache-Control", "no-cache"}};
                         }});
    }
}

}  // namespace notes
