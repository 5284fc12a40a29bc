// SPDX-License-Identifier: GPL-3.0-or-later
// The notes page: signs this device in to the service and lists, searches, opens, edits,
// creates and deletes notes through its API (v1); queues links for download, pasted here or
// shared to the installed app from another one (/share?title=&text=&url=: at once when the
// service says the share sheet or this page opened it, else after a tap); lists the signed-in
// devices and ends them. The device session is a cookie the service sets and this script never
// sees; "Sign out everywhere" ends it with every other session of the account, the API's
// tokens too; every call carries the X-Ferrybox-Page header, without which the service refuses a call
// that the cookie alone would authorise. Note text only ever enters the page as text
// (textContent, value), never as markup.
'use strict';

const $ = (id) => document.getElementById(id);
const PAGE = 50;
const VIEWS = ['sign-in', 'share-check', 'list', 'editor', 'devices'];

// What the service put in the page's head for it (markup: the page may run no inline script).
const marker = (name) => document.querySelector(`meta[name="${name}"]`)?.content ?? null;

// What the share sheet handed over, when the page was opened as the share target.
function shared() {
    if (location.pathname !== '/share')
        return null;
    const params = new URLSearchParams(location.search);
    const fields = {};
    for (const name of ['title', 'text', 'url'])
        fields[name] = params.get(name) || '';
    return fields;
}

const state = {
    email: null,      // the signed-in account; null when signed out or not known yet
    lastEmail: '',    // offered in the sign-in form
    key: null,        // the open note's key; null for a note not saved yet
    saved: '',        // the open note's text as the service has it
    // The version of the note that the editor's text is based on (null for a new note): a save
    // names it, so that the service keeps what was written elsewhere meanwhile.
    version: null,
    query: '',        // the list's search
    shown: 0,         // notes listed so far
    dates: new Map(), // key -> last change, from the index
    wanted: location.pathname === '/' ? new URLSearchParams(location.search).get('q') : null,
    share: shared(),  // queued once signed in
    // Whether the browser told the service that the share sheet (or this page) opened /share.
    // Any other site's page can open it too, with a link of its choosing: then only a tap on
    // the link the service would take queues it.
    shareAtOnce: marker('ferrybox-share') === 'at-once',
    // The download note as this page last saw it (in the list, opened, or answered after a
    // link was queued), sent with each link queued: a link that was in it then and that the
    // agent has taken since is not queued again, so a tap that went through twice, or a retry
    // of one that did, does not download it twice.
    downloadNote: null,
    downloadVersion: null,
    working: false,
};

// A call that did not get its answer: the service said no (status, and the reason it gave, if
// any), or never answered.
class Failure extends Error {
    constructor(status, detail = '') {
        super(status ? `status ${status}` : 'no answer');
        this.status = status;
        this.detail = detail;
    }
}

function say(text, error = false) {
    const message = $('message');
    message.textContent = text;
    message.classList.toggle('error', error);
    message.hidden = !text;
}

// What a failure means to the person in front of the page.
function reason(failure) {
    switch (failure.status) {
    case undefined:
        return 'the notes service cannot be reached. Check your connection and try again.';
    case 401: return 'you were signed out. Sign in again; nothing on this page is lost.';
    case 403: return 'the service refused the request. Reload the page and try again.';
    case 404: return 'this note is no longer on the service.';
    case 413: return 'the note is too long for the service. Shorten it, then save again.';
    case 429: return 'too many failed sign-ins. Wait a minute, then try again.';
    default: return `the service answered with an error (${failure.status}). Try again later.`;
    }
}

function fail(what, error) {
    if (!(error instanceof Failure))
        throw error;
    say(`${what}: ${reason(error)}`, true);
}

function show(...views) {
    for (const view of VIEWS)
        $(view).hidden = !views.includes(view);
    $('sign-out').hidden = $('devices-open').hidden = state.email === null;
}

const DOWNLOADS = 'Ferrybox_Downloads';

// A note this page saw, at that version: kept when it is the download note.
function sawNote(key, version, text) {
    if (text.startsWith(DOWNLOADS) && version) {
        state.downloadNote = key;
        state.downloadVersion = version;
    }
}

// A version as the service tells it in a header, or null.
const versionOf = (response) => Number(response.headers.get('Note-Version')) || null;

const editing = () => !$('editor').hidden;
const dirty = () => editing() && $('text').value !== state.saved;

// One thing at a time: a second tap on Save while the first is on its way does nothing.
async function act(work) {
    if (state.working)
        return;
    state.working = true;
    document.body.classList.add('busy');
    try {
        await work();
    } finally {
        state.working = false;
        document.body.classList.remove('busy');
    }
}

// Base64 of the text's UTF-8, as every note body of the API is sent.
function base64(text) {
    const bytes = new TextEncoder().encode(text);
    let binary = '';
    for (let i = 0; i < bytes.length; i += 0x8000)
        binary += String.fromCharCode(...bytes.subarray(i, i + 0x8000));
    return btoa(binary);
}

// Name=value pairs for a query or a form body. encodeURIComponent (not URLSearchParams, which
// writes spaces as "+") because the service reads query values with only %XX decoded.
const encode = (fields) => Object.entries(fields)
    .map(([name, value]) => `${name}=${encodeURIComponent(value)}`).join('&');

async function send(method, url, { body, form, headers: more = {} } = {}) {
    const headers = { 'X-Ferrybox-Page': '1', ...more };
    if (form) {
        headers['Content-Type'] = 'application/x-www-form-urlencoded';
        body = encode(form);
    }
    let response;
    try {
        response = await fetch(url, {
            method, body, headers, cache: 'no-store', credentials: 'same-origin',
        });
    } catch {
        throw new Failure();
    }
    if (!response.ok) {
        let detail = '';
        if ((response.headers.get('Content-Type') || '').includes('json'))
            detail = await response.json().then((answer) => answer.error || '', () => '');
        throw new Failure(response.status, detail);
    }
    return response;
}

// A call with this device's session. Refused for want of one (it ran out, or was ended from
// another device), the sign-in form comes up and the error goes on to the caller.
async function call(method, path, { params = {}, ...what } = {}) {
    const query = encode(params);
    try {
        return await send(method, query ? `${path}?${query}` : path, what);
    } catch (error) {
        if (error.status === 401)
            signedOut();
        throw error;
    }
}

const api = (method, name, options) => call(method, `/api/${name}`, options);

// Signed out (here, by the service, or from another device). The sign-in form comes up above
// whatever was being edited, which stays as it was.
function signedOut() {
    state.email = null;
    show('sign-in', ...(editing() ? ['editor'] : []));
    $('sign-in-why').hidden = !state.share;
    $('sign-in-why').textContent = !state.share ? ''
        : state.shareAtOnce ? 'Sign in to queue what you shared.'
            : 'Sign in to see what was shared, then choose whether to queue it.';
    $('email').value = state.lastEmail;
    $('password').value = '';
    ($('email').value ? $('password') : $('email')).focus();
}

async function signIn() {
    const email = $('email').value.trim();
    const password = $('password').value;
    if (!email || !password)
        return say('Enter your email address and password.', true);
    try {
        const response = await send('POST', '/web/sign-in', { form: { email, password } });
        state.email = (await response.json()).email || email;
    } catch (error) {
        if (error.status === 401) {
            $('password').select();
            return say('Wrong email address or password.', true);
        }
        return fail('Could not sign in', error);
    }
    state.lastEmail = state.email;
    $('password').value = '';
    if (editing()) {
        show('editor');
        say(dirty() ? 'Signed in again. Your edit is not saved yet: press Save to keep it.'
            : 'Signed in again.');
        $('save').focus();
        return;
    }
    say('');
    await start();
}

async function signOut() {
    if (dirty() && !confirm('Sign out without saving your changes?'))
        return;
    try {
        await send('POST', '/web/sign-out');
    } catch (error) {
        // Not signed in any more is what was asked for; anything else leaves the session alive.
        if (error.status !== 401)
            return fail('Not signed out', error);
    }
    $('editor').hidden = true;
    $('queued').hidden = true;
    signedOut();
    say('Signed out.');
}

// "YYYY-MM-DD HH:MM:SS.micro", in UTC, as the person's local date and time.
function formatDate(stamp) {
    const date = stamp ? new Date(`${stamp.slice(0, 23).replace(' ', 'T')}Z`) : null;
    if (!date || isNaN(date))
        return '';
    return date.toLocaleString([], { dateStyle: 'medium', timeStyle: 'short' });
}

function listItem(note) {
    const title = document.createElement('span');
    title.className = 'title';
    title.textContent = note.content.split('\n', 1)[0].trim() || 'Empty note';
    const when = document.createElement('span');
    when.className = 'when';
    const changed = formatDate(state.dates.get(note.key));
    when.textContent = changed && `Changed ${changed}`;
    const button = document.createElement('button');
    button.type = 'button';
    button.className = 'note';
    button.append(title, when);
    button.addEventListener('click', () => act(() => openNote(note.key)));
    const item = document.createElement('li');
    item.append(button);
    return item;
}

// Notes newest first, those holding the search text when there is one (the empty search holds
// every note); a page at a time.
async function search(query, offset, results) {
    const response = await api('GET', 'search', { params: { query, offset, results } });
    return (await response.json()).Response;
}

async function loadList(more = false) {
    const offset = more ? state.shown : 0;
    try {
        const [found, index] = await Promise.all([
            search(state.query, offset, PAGE),
            more ? null : api('GET', 'index').then((response) => response.json()),
        ]);
        // Newest first: the first that begins as the download note is the one links go to.
        const downloads = found.Results.find((note) => note.content.startsWith(DOWNLOADS));
        if (downloads && !more)
            sawNote(downloads.key, downloads.version, downloads.content);
        if (index)
            state.dates = new Map(index.map((note) => [note.key, note.modify]));
        if (!more)
            $('notes').replaceChildren();
        $('notes').append(...found.Results.map(listItem));
        state.shown = offset + found.Results.length;
        $('more').hidden = state.shown >= found.totalRecords;
        $('empty').hidden = state.shown > 0;
        $('empty').textContent = state.query ? `No note holds “${state.query}”.`
            : 'No notes yet: start one with New note.';
        show('list');
    } catch (error) {
        fail('Could not list your notes', error);
    }
}

function openEditor(key, text, version = null) {
    state.key = key;
    state.saved = text;
    state.version = version;
    $('text').value = text;
    $('delete').hidden = key === null;
    $('queued').hidden = true;
    show('editor');
    // The phone's back button closes the note instead of leaving the page.
    if (!history.state?.editing)
        history.pushState({ editing: true }, '');
    $('text').focus();
    $('text').setSelectionRange(0, 0);
    $('text').scrollTop = 0;
}

async function openNote(key) {
    try {
        const response = await api('GET', 'note', { params: { key } });
        const text = await response.text();
        openEditor(key, text, versionOf(response));
        sawNote(key, state.version, text);
        say('');
    } catch (error) {
        fail('Could not open the note', error);
    }
}

// Back to the list from the editor or the device list (the page's back button, the phone's).
function closeView() {
    if (!$('sign-in').hidden)
        return;
    if (!$('devices').hidden) {
        act(async () => {
            say('');
            await loadList();
        });
        return;
    }
    if (!editing())
        return;
    if (dirty() && !confirm('Leave this note without saving your changes?')) {
        history.pushState({ editing: true }, '');
        return;
    }
    act(async () => {
        say('');
        await loadList();
    });
}

async function save() {
    const text = $('text').value;
    const base = state.key === null ? null : state.version;
    try {
        const which = state.key === null ? {} : { key: state.key };
        const headers = base === null ? {} : { 'Note-Base-Version': String(base) };
        const response = await api('POST', 'note', { params: which, body: base64(text), headers });
        state.key = (await response.text()).trim() || state.key;
        const version = versionOf(response);
        $('delete').hidden = false;
        // Anything but the next version: the note had moved on, and the service kept the lines
        // others added since (and left out those they removed) around this text.
        if (base !== null && version !== null && version !== base + 1)
            return await showMerged(text, base);
        state.saved = text;
        state.version = version;
        sawNote(state.key, version, text);
        say('Saved.');
    } catch (error) {
        if (error.status === 404) {
            // Gone meanwhile (deleted elsewhere): the next Save keeps the text as a new note.
            state.key = null;
            state.version = null;
            return say('Not saved: this note is no longer on the service. '
                + 'Press Save to keep your text as a new note.', true);
        }
        fail('Not saved', error);
    }
}

// After a save that was merged with what others wrote: the note as the service now holds it.
// Until the editor shows that, its text stays based on the version it was (the next save
// merges the others' lines in again): when the note cannot be read, or the person typed on
// while it was saved, which the editor keeps.
async function showMerged(sent, base) {
    state.saved = sent;
    state.version = base;
    let response;
    try {
        response = await api('GET', 'note', { params: { key: state.key } });
    } catch {
        return say('Saved. Lines added elsewhere meanwhile were kept; open the note again to '
            + 'see them.');
    }
    const merged = await response.text();
    if ($('text').value !== sent)
        return say('Saved. Lines added elsewhere meanwhile were kept; save again to see them.');
    state.saved = $('text').value = merged;
    state.version = versionOf(response);
    sawNote(state.key, state.version, merged);
    say('Saved. Lines added elsewhere meanwhile were kept, and are in the note now.');
}

async function remove() {
    if (!confirm('Delete this note?'))
        return;
    try {
        await api('GET', 'delete', { params: { key: state.key } });
        state.key = null;
        state.saved = $('text').value;
        say('Note deleted.');
        await loadList();
    } catch (error) {
        fail('Not deleted', error);
    }
}

// Appends the first web address in what was given (url, else text) to the download note and
// says so. Throws the Failure; 422 means nothing in it was a web address.
async function queue(fields) {
    const seen = state.downloadVersion === null ? {}
        : { key: state.downloadNote, version: state.downloadVersion };
    const response = await call('POST', '/web/append', { form: { ...fields, ...seen } });
    const answer = await response.json();
    state.downloadNote = answer.key;
    state.downloadVersion = answer.version || null;
    // Not added: in the note already, or taken from it by the agent since this page saw it.
    $('queued-text').textContent = answer.added ? `Queued: ${answer.queued}`
        : `Already queued: ${answer.queued}`;
    $('queued').hidden = false;
    say('');
    return answer;
}

const nothingToDownload = 'Nothing to download: what was shared holds no web address.';

// Why the service did not queue a link, when it said: nothing in it to download (422), or a
// download note too full to take it (413, with what to do about it). Null for any other failure.
function refusal(error) {
    if (error.status === 422)
        return error.detail || nothingToDownload;
    if (error.status === 413 && error.detail)
        return error.detail;
    return null;
}

// Done with what was shared: the address is the page's own again, so that reloading it (or
// opening the app again) does not share a second time.
function shareDone() {
    state.share = null;
    history.replaceState(null, '', '/');
}

// What the share sheet handed over, queued once; what another page sent is only shown, for a
// tap. When the service could not be reached the address stays, and reloading tries again.
// Returns false to stop there.
async function completeShare() {
    if (!state.shareAtOnce)
        return !askToQueue();
    try {
        await queue(state.share);
    } catch (error) {
        if (error.status === 401)
            return false;  // the sign-in form is up; the share waits for it
        const why = refusal(error);
        if (why === null) {
            fail('Not queued', error);
            return false;
        }
        say(why, true);
    }
    shareDone();
    return true;
}

// Shows the link the service would take from what was shared, as text, with "Queue it" and
// "Dismiss"; false when there is none, which is said instead.
function askToQueue() {
    const link = marker('ferrybox-shared-link');
    if (!link) {
        say(nothingToDownload, true);
        shareDone();
        return false;
    }
    $('share-link').textContent = link;
    $('queued').hidden = true;
    show('share-check');
    $('share-check-title').focus();
    return true;
}

// The tap: exactly the link shown goes to the service.
async function queueShared() {
    try {
        await queue({ url: $('share-link').textContent });
    } catch (error) {
        // Signed out meanwhile, the sign-in form is up, and the link is asked about again after.
        const why = refusal(error);
        if (why === null)
            return fail('Not queued', error);
        say(why, true);
    }
    shareDone();
    await loadList();
}

async function dismissShared() {
    shareDone();
    say('Nothing was queued.');
    await loadList();
}

async function quickAdd() {
    const link = $('link').value.trim();
    if (!link) {
        $('link').focus();
        return say('Paste a link to download first.', true);
    }
    try {
        await queue({ url: link });
    } catch (error) {
        const why = refusal(error);
        return why === null ? fail('Not queued', error) : say(why, true);
    }
    $('link').value = '';
    // The download note changed: it moves to the top of the list.
    await loadList();
}

function deviceItem(device) {
    const name = document.createElement('div');
    name.className = 'title';
    name.textContent = device.name || 'Unknown browser';
    const when = document.createElement('div');
    when.className = 'when';
    const used = formatDate(device.lastSeen);
    when.textContent = used && `Last used ${used}`;
    const about = document.createElement('div');
    about.className = 'about';
    about.append(name, when);
    if (device.current) {
        const here = document.createElement('div');
        here.className = 'here';
        here.textContent = 'this device';
        about.append(here);
    }
    const end = document.createElement('button');
    end.type = 'button';
    end.className = 'danger';
    end.textContent = 'End';
    end.setAttribute('aria-label', device.current ? `End the session of ${name.textContent}, `
        + 'this device' : `End the session of ${name.textContent}`);
    end.addEventListener('click', () => act(() => endDevice(device)));
    const item = document.createElement('li');
    item.append(about, end);
    return item;
}

async function loadDevices() {
    const devices = await (await call('GET', '/web/devices')).json();
    $('device-list').replaceChildren(...devices.map(deviceItem));
    $('devices-who').textContent = state.email ? `Signed in as ${state.email}.` : '';
}

async function openDevices() {
    if (dirty() && !confirm('Leave this note without saving your changes?'))
        return;
    try {
        await loadDevices();
    } catch (error) {
        return fail('Could not list the signed-in devices', error);
    }
    $('queued').hidden = true;
    say('');
    show('devices');
    // The phone's back button returns to the notes; from a note, it does not open it again.
    if (history.state?.editing)
        history.replaceState({ devices: true }, '');
    else if (!history.state?.devices)
        history.pushState({ devices: true }, '');
    $('devices-title').focus();
}

async function endDevice(device) {
    try {
        await call('POST', '/web/devices/end', { params: { id: device.id } });
    } catch (error) {
        if (error.status !== 404)
            return fail('Could not end that session', error);
    }
    if (device.current) {
        signedOut();
        return say('Signed out.');
    }
    try {
        await loadDevices();
        say(`Ended the session of ${device.name || 'that browser'}.`);
    } catch (error) {
        return fail('Could not list the signed-in devices', error);
    }
    $('devices-title').focus();
}

// Every session of the account ends, this device's included, and every token of the API:
// for a lost phone, or a password someone else may know.
async function signOutEverywhere() {
    if (!confirm('Sign out everywhere? Every browser and phone, this one included, and Ferrybox '
        + 'on your computers will need the password again.'))
        return;
    try {
        await call('POST', '/web/sign-out-everywhere');
    } catch (error) {
        // 401: this device was signed out already, and the others are as they were.
        return fail('Not signed out everywhere', error);
    }
    signedOut();
    say('Signed out everywhere.');
}

// Whether this device is signed in, then: what was shared, the note ?q= asks for (once), or
// the list.
async function start() {
    if (state.email === null) {
        try {
            state.email = (await (await call('GET', '/web/me')).json()).email;
            state.lastEmail = state.email;
        } catch (error) {
            // 401: not signed in, and the form is up.
            if (error.status !== 401)
                fail('Could not reach your notes', error);
            return;
        }
    }
    if (state.share && !await completeShare())
        return;
    if (state.wanted) {
        try {
            const found = await search(state.wanted, 0, 1);
            const wanted = state.wanted;
            state.wanted = null;
            history.replaceState(history.state, '', location.pathname);
            if (found.Results.length)
                return await openNote(found.Results[0].key);
            // The search list below tells that nothing matched.
            state.query = $('query').value = wanted;
        } catch (error) {
            return fail('Could not look for the note', error);
        }
    }
    await loadList();
}

$('share-queue').addEventListener('click', () => act(queueShared));
$('share-dismiss').addEventListener('click', () => act(dismissShared));
$('sign-in').addEventListener('submit', (event) => {
    event.preventDefault();
    act(signIn);
});
$('sign-out').addEventListener('click', () => act(signOut));
$('devices-open').addEventListener('click', () => act(openDevices));
$('sign-out-everywhere').addEventListener('click', () => act(signOutEverywhere));
$('devices-back').addEventListener('click', () => {
    if (history.state?.devices)
        history.back();  // back to the list through popstate
    else
        closeView();
});
$('quick-add').addEventListener('submit', (event) => {
    event.preventDefault();
    act(quickAdd);
});
$('queued-open').addEventListener('click', (event) => {
    // A plain click opens the note here; a new tab or window takes the link as it is.
    if (state.downloadNote === null || event.button !== 0 || event.ctrlKey || event.metaKey
        || event.shiftKey || event.altKey)
        return;
    event.preventDefault();
    act(() => openNote(state.downloadNote));
});
$('search').addEventListener('submit', (event) => {
    event.preventDefault();
    state.query = $('query').value;
    $('queued').hidden = true;
    act(() => loadList());
});
$('more').addEventListener('click', () => act(() => loadList(true)));
$('new-note').addEventListener('click', () => {
    openEditor(null, '');
    say('');
});
$('back').addEventListener('click', () => {
    if (history.state?.editing)
        history.back();  // closes the note through popstate
    else
        closeView();
});
window.addEventListener('popstate', closeView);
$('save').addEventListener('click', () => act(save));
$('delete').addEventListener('click', () => act(remove));
$('text').addEventListener('keydown', (event) => {
    if ((event.ctrlKey || event.metaKey) && event.key === 's') {
        event.preventDefault();
        act(save);
    }
});
window.addEventListener('beforeunload', (event) => {
    if (dirty())
        event.preventDefault();
});

// Makes the page installable as an app, and tells that the service is out of reach when it is.
if ('serviceWorker' in navigator)
    navigator.serviceWorker.register('/sw.js').catch(() => {});

act(start);
