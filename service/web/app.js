// SPDX-License-Identifier: GPL-3.0-or-later
// The notes page: signs in to this service's notes API (v1) and lists, searches, opens, edits,
// creates and deletes notes with it. Note text only ever enters the page as text (textContent,
// value), never as markup. The token lives in sessionStorage, so it ends with the tab.
'use strict';

const $ = (id) => document.getElementById(id);
const PAGE = 50;

const state = {
    key: null,        // the open note's key; null for a note not saved yet
    saved: '',        // the open note's text as the service has it
    query: '',        // the list's search
    shown: 0,         // notes listed so far
    dates: new Map(), // key -> last change, from the index
    wanted: new URLSearchParams(location.search).get('q'),  // note to open after sign-in
    working: false,
};

const session = {
    get token() { return sessionStorage.getItem('token'); },
    get email() { return sessionStorage.getItem('email') || ''; },
    begin(email, token) {
        sessionStorage.setItem('email', email);
        sessionStorage.setItem('token', token);
    },
    end() { sessionStorage.removeItem('token'); },
};

// A call that did not get its answer: the service said no (status), or never answered.
class Failure extends Error {
    constructor(status) {
        super(status ? `status ${status}` : 'no answer');
        this.status = status;
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
    for (const view of ['sign-in', 'list', 'editor'])
        $(view).hidden = !views.includes(view);
    $('sign-out').hidden = !session.token;
}

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

// Base64 of the text's UTF-8, as every body of the API is sent.
function base64(text) {
    const bytes = new TextEncoder().encode(text);
    let binary = '';
    for (let i = 0; i < bytes.length; i += 0x8000)
        binary += String.fromCharCode(...bytes.subarray(i, i + 0x8000));
    return btoa(binary);
}

async function send(method, url, body) {
    let response;
    try {
        response = await fetch(url, { method, body, cache: 'no-store' });
    } catch {
        throw new Failure();
    }
    if (!response.ok)
        throw new Failure(response.status);
    return response;
}

// The service reads query values as sent (only %XX decoded, "+" kept), hence encodeURIComponent.
async function call(method, name, params = {}, body = undefined) {
    const query = Object.entries({ auth: session.token, email: session.email, ...params })
        .map(([k, v]) => `${k}=${encodeURIComponent(v)}`).join('&');
    try {
        return await send(method, `/api/${name}?${query}`, body);
    } catch (error) {
        if (error.status === 401)
            signedOut();
        throw error;
    }
}

// The token expired or was refused. The sign-in form comes up above whatever was being edited,
// which stays as it was.
function signedOut() {
    session.end();
    show('sign-in', ...(editing() ? ['editor'] : []));
    $('email').value = session.email;
    $('password').value = '';
    ($('email').value ? $('password') : $('email')).focus();
}

async function signIn() {
    const email = $('email').value.trim();
    const password = $('password').value;
    if (!email || !password)
        return say('Enter your email address and password.', true);
    let token;
    try {
        // The service splits this at the first "&password=": no escaping, by design.
        const form = base64(`email=${email}&password=${password}`);
        const response = await send('POST', '/api/login', form);
        token = (await response.text()).trim();
    } catch (error) {
        if (error.status === 401) {
            $('password').select();
            return say('Wrong email address or password.', true);
        }
        return fail('Could not sign in', error);
    }
    session.begin(email, token);
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

function formatDate(modify) {
    // "YYYY-MM-DD HH:MM:SS.micro", in UTC.
    const date = modify ? new Date(`${modify.slice(0, 23).replace(' ', 'T')}Z`) : null;
    if (!date || isNaN(date))
        return '';
    return `Changed ${date.toLocaleString([], { dateStyle: 'medium', timeStyle: 'short' })}`;
}

function listItem(note) {
    const title = document.createElement('span');
    title.className = 'title';
    title.textContent = note.content.split('\n', 1)[0].trim() || 'Empty note';
    const when = document.createElement('span');
    when.className = 'when';
    when.textContent = formatDate(state.dates.get(note.key));
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
    const response = await call('GET', 'search', { query, offset, results });
    return (await response.json()).Response;
}

async function loadList(more = false) {
    const offset = more ? state.shown : 0;
    try {
        const [found, index] = await Promise.all([
            search(state.query, offset, PAGE),
            more ? null : call('GET', 'index').then((response) => response.json()),
        ]);
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

function openEditor(key, text) {
    state.key = key;
    state.saved = text;
    $('text').value = text;
    $('delete').hidden = key === null;
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
        const response = await call('GET', 'note', { key });
        openEditor(key, await response.text());
        say('');
    } catch (error) {
        fail('Could not open the note', error);
    }
}

function closeEditor() {
    if (!editing() || !$('sign-in').hidden)
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
    try {
        const which = state.key === null ? {} : { key: state.key };
        const response = await call('POST', 'note', which, base64(text));
        state.key = (await response.text()).trim() || state.key;
        state.saved = text;
        $('delete').hidden = false;
        say('Saved.');
    } catch (error) {
        if (error.status === 404) {
            // Gone meanwhile (deleted elsewhere): the next Save keeps the text as a new note.
            state.key = null;
            return say('Not saved: this note is no longer on the service. '
                + 'Press Save to keep your text as a new note.', true);
        }
        fail('Not saved', error);
    }
}

async function remove() {
    if (!confirm('Delete this note?'))
        return;
    try {
        await call('GET', 'delete', { key: state.key });
        state.key = null;
        state.saved = $('text').value;
        say('Note deleted.');
        await loadList();
    } catch (error) {
        fail('Not deleted', error);
    }
}

// Signed in: the note that ?q= asks for, once, else the list.
async function start() {
    if (!session.token) {
        show('sign-in');
        $('email').value = session.email;
        $('email').focus();
        return;
    }
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

$('sign-in').addEventListener('submit', (event) => {
    event.preventDefault();
    act(signIn);
});
$('sign-out').addEventListener('click', () => {
    if (dirty() && !confirm('Sign out without saving your changes?'))
        return;
    session.end();
    $('editor').hidden = true;
    say('Signed out.');
    start();
});
$('search').addEventListener('submit', (event) => {
    event.preventDefault();
    state.query = $('query').value;
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
        closeEditor();
});
window.addEventListener('popstate', closeEditor);
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

act(start);
