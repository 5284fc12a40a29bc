// SPDX-License-Identifier: GPL-3.0-or-later
// The notes page's service worker: it makes the page installable as an app and, when the
// service cannot be reached, answers a page that says so instead of the browser's error. It
// keeps the page's own style sheet, script and icon, fetched afresh whenever the service
// answers and taken from the shelf only when it does not (the offline page needs the first and
// the last). Notes, the API and the page's sign-in calls always go to the service and are never
// kept: the requests it does not handle below are not touched at all.
'use strict';

const SHELF = 'ferrybox-static-1';
const KEPT = ['/app.css', '/app.js', '/icon.svg'];

self.addEventListener('install', (event) => {
    event.waitUntil(caches.open(SHELF).then((shelf) => shelf.addAll(KEPT))
        .then(() => self.skipWaiting()));
});

self.addEventListener('activate', (event) => {
    event.waitUntil(caches.keys()
        .then((names) => Promise.all(names.filter((n) => n !== SHELF).map((n) => caches.delete(n))))
        .then(() => self.clients.claim()));
});

const escape = (text) => text.replace(/[&<>"]/g, (c) => `&#${c.charCodeAt(0)};`);

// Plain markup, no script; its style sheet and icon come from the shelf.
function offlinePage(request) {
    const again = new URL(request.url);
    const body = `<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta name="color-scheme" content="light dark">
<title>Offline - Ferrybox notes</title>
<link rel="stylesheet" href="/app.css">
</head>
<body>
<header class="bar">
  <h1><img src="/icon.svg" alt="" width="28" height="28"> Ferrybox notes</h1>
</header>
<main>
<section id="offline" class="card">
<h2>You are offline</h2>
<p>Ferrybox cannot reach your notes service right now: this device has no connection, or the
service is not running. Nothing was sent, and nothing was lost.</p>
<p>Check the connection, then try again.</p>
<a class="button primary wide" href="${escape(again.pathname + again.search)}">Try again</a>
</section>
</main>
</body>
</html>
`;
    return new Response(body, {
        status: 503,
        headers: {
            'Content-Type': 'text/html; charset=utf-8',
            'Cache-Control': 'no-store',
            'Content-Security-Policy': "default-src 'none'; style-src 'self'; img-src 'self'; "
                + "base-uri 'none'; form-action 'none'; frame-ancestors 'none'",
            'Referrer-Policy': 'no-referrer',
        },
    });
}

async function kept(request) {
    try {
        const answer = await fetch(request);
        if (answer.ok) {
            const copy = answer.clone();
            caches.open(SHELF).then((shelf) => shelf.put(request, copy));
        }
        return answer;
    } catch (error) {
        const shelved = await caches.match(request, { ignoreSearch: true });
        if (shelved)
            return shelved;
        throw error;
    }
}

self.addEventListener('fetch', (event) => {
    const request = event.request;
    const url = new URL(request.url);
    if (request.method !== 'GET' || url.origin !== self.location.origin)
        return;
    // The navigation goes on exactly as the browser made it: a request copied with options of
    // its own would be this worker's, which the service takes for the page's (Sec-Fetch-Site
    // "same-origin") and so would queue at once what another site sent to /share.
    if (request.mode === 'navigate')
        event.respondWith(fetch(request).catch(() => offlinePage(request)));
    else if (KEPT.includes(url.pathname))
        event.respondWith(kept(request));
});
