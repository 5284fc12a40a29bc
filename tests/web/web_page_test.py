# SPDX-License-Identifier: GPL-3.0-or-later
"""The notes web page in a real headless Chromium, against the real ferrybox-notes (and, for the
download note, the real headless agent), each on a free loopback port with a temporary home: the
page itself, the installed app's share target and quick add, and the device sessions."""
import base64
import http.server
import json
import os
import re
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import urllib.error
import urllib.request
from urllib.parse import quote, urlencode

try:
    from selenium import webdriver
    from selenium.common.exceptions import NoAlertPresentException, TimeoutException
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
    from selenium.webdriver.support import expected_conditions as seen
    from selenium.webdriver.support.ui import WebDriverWait
except ImportError:
    sys.exit("web page test: python3-selenium is missing (make deps installs it)")

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
from private_postgres import PrivatePostgres  # noqa: E402

BUILD = os.environ.get("FERRYBOX_BUILD_DIR", os.path.join(os.path.dirname(__file__), "../../build"))
CHROMIUM, CHROMEDRIVER = shutil.which("chromium"), shutil.which("chromedriver")
EMAIL, PASSWORD = "me@example.org", "secret words"
# Where the service keeps its notes: "sqlite" (a file) or "postgresql" (a private server).
BACKEND = os.environ.get("FERRYBOX_TEST_NOTES_BACKEND", "sqlite")
browser = None
postgres = None


def wait_for(condition, what, seconds=15):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"timed out waiting for {what}")
        time.sleep(0.05)


def accepts(port):
    try:
        socket.create_connection(("127.0.0.1", port), timeout=1).close()
        return True
    except OSError:
        return False


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class NotesService:
    """ferrybox-notes serving a new database that holds one account."""

    def __init__(self, *arguments, environment=None):
        self.dir = tempfile.TemporaryDirectory()
        env = dict(os.environ, FERRYBOX_NOTES_HASH_ITERATIONS="1000", **(environment or {}))
        binary = f"{BUILD}/service/ferrybox-notes"
        db = postgres.new_database() if postgres else f"{self.dir.name}/notes.db"
        subprocess.run([binary, "add-user", EMAIL, "--db", db], input=PASSWORD + "\n",
                       text=True, env=env, check=True, capture_output=True)
        port = free_port()
        self.url = f"http://127.0.0.1:{port}"
        self.process = subprocess.Popen(
            [binary, "serve", "--listen", f"127.0.0.1:{port}", "--db", db, *arguments],
            env=env, stderr=subprocess.DEVNULL)
        wait_for(lambda: self.process.poll() is not None or accepts(port), "ferrybox-notes")
        assert self.process.poll() is None, "ferrybox-notes did not start"
        self.login()

    def request(self, method, path, body=None, headers=()):
        request = urllib.request.Request(self.url + path, data=body, method=method,
                                         headers=dict(headers))
        with urllib.request.urlopen(request, timeout=10) as response:
            return response.read().decode(errors="replace"), response.headers

    def web(self, method, path, cookie=None, form=None, headers=()):
        """A call as the page makes it, with a device cookie; answers status, body and headers,
        whatever the status."""
        data = urlencode(form).encode() if form is not None else None
        request = urllib.request.Request(self.url + path, data=data, method=method)
        request.add_header("X-Ferrybox-Page", "1")
        if cookie:
            request.add_header("Cookie", f"ferrybox_device={cookie}")
        for name, value in headers:
            request.add_header(name, value)
        try:
            with urllib.request.urlopen(request, timeout=10) as response:
                return response.status, response.read().decode(), response.headers
        except urllib.error.HTTPError as error:
            return error.code, error.read().decode(), error.headers

    def device(self, user_agent):
        """Signs in another device, as its browser would; answers its cookie."""
        status, _, headers = self.web("POST", "/web/sign-in",
                                      form={"email": EMAIL, "password": PASSWORD},
                                      headers=(("User-Agent", user_agent),))
        assert status == 200, f"sign-in answered {status}"
        return re.search(r"ferrybox_device=([^;]+)", headers["Set-Cookie"]).group(1)

    def signed_in(self, cookie):
        return self.web("GET", "/web/me", cookie)[0] == 200

    def login(self):
        form = base64.b64encode(f"email={EMAIL}&password={PASSWORD}".encode())
        self.token = self.request("POST", "/api/login", form)[0]

    def api(self, method, name, body=None, token=None, **params):
        params = {"auth": token or self.token, "email": EMAIL, **params}
        query = "&".join(f"{k}={quote(str(v), safe='')}" for k, v in params.items())
        data = base64.b64encode(body.encode()) if body is not None else None
        return self.request(method, f"/api/{name}?{query}", data)[0]

    def create(self, text):
        return self.api("POST", "note", text)

    def text(self, key):
        return self.api("GET", "note", key=key)

    def rewrite(self, key, change):
        """Another writer (the agent taking a link, say) reads the note and writes back
        change(lines), based on the version it read."""
        path = f"/api/note?auth={quote(self.token)}&email={quote(EMAIL)}&key={key}"
        text, headers = self.request("GET", path)
        self.request("POST", path, base64.b64encode("\n".join(change(text.split("\n"))).encode()),
                     (("Note-Base-Version", headers["Note-Version"]),))

    def download_note(self, part="content"):
        """The download note's lines (or key), read through the API with a token login."""
        found = json.loads(self.api("GET", "search", query="Ferrybox_Downloads"))
        results = found["Response"]["Results"]
        return results[0][part].split("\n") if results else None

    def download_note_key(self):
        return self.download_note("key")[0]

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
        status = self.process.wait(20)
        self.dir.cleanup()
        return status


def setUpModule():
    global browser, postgres
    if BACKEND == "postgresql":
        postgres = PrivatePostgres()
    if not (CHROMIUM and CHROMEDRIVER):
        raise RuntimeError("web page test: chromium and chromium-driver are needed "
                           "(make deps installs them); this test does not skip")
    options = webdriver.ChromeOptions()
    options.binary_location = CHROMIUM
    for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage",
                     "--window-size=1280,800"):
        options.add_argument(argument)
    # Leaving a page with an unsaved edit asks first; tests that leave one just go.
    options.set_capability("unhandledPromptBehavior", "accept")
    browser = webdriver.Chrome(service=Service(CHROMEDRIVER), options=options)


def tearDownModule():
    if browser:
        browser.quit()
    if postgres:
        postgres.stop()


def serve_file(test, name, content):
    """A loopback web server holding one file, for the test's life: its folder and link."""
    work = tempfile.TemporaryDirectory()
    test.addCleanup(work.cleanup)
    os.mkdir(f"{work.name}/www")
    with open(f"{work.name}/www/{name}", "w") as f:
        f.write(content)
    quiet = type("Quiet", (http.server.SimpleHTTPRequestHandler,),
                 {"log_message": lambda *_: None})
    files = http.server.ThreadingHTTPServer(
        ("127.0.0.1", 0), lambda *a: quiet(*a, directory=f"{work.name}/www"))
    threading.Thread(target=files.serve_forever, daemon=True).start()
    test.addCleanup(files.server_close)
    test.addCleanup(files.shutdown)
    return work, f"http://127.0.0.1:{files.server_port}/{name}"


def agent_command(home, *arguments):
    """The headless agent for the account, its password in a file under home."""
    with open(f"{home}/password", "w", opener=lambda p, f: os.open(p, f, 0o600)) as f:
        f.write(PASSWORD + "\n")
    return [f"{BUILD}/app/ferrybox", "--headless", *arguments, "--email", EMAIL,
            "--password-file", f"{home}/password"]


def agent_environment(home, service_url):
    env = dict(os.environ, HOME=home, XDG_CONFIG_HOME=f"{home}/.config",
               FERRYBOX_API_URL=service_url + "/api", QT_QPA_PLATFORM="offscreen")
    for name in ("DBUS_SESSION_BUS_ADDRESS", "FERRYBOX_PASSWORD_FILE"):
        env.pop(name, None)
    return env


class PageTestCase(unittest.TestCase):
    arguments, environment = (), None

    @classmethod
    def setUpClass(cls):
        cls.notes = NotesService(*cls.arguments, environment=cls.environment)

    @classmethod
    def tearDownClass(cls):
        # A crash, or a sanitizer's report, shows as a non-zero status.
        assert cls.notes.stop() == 0, "ferrybox-notes did not stop cleanly"

    def fresh(self, path="/"):
        """The page on a device nobody signed in on."""
        browser.execute_cdp_cmd("Network.clearBrowserCookies", {})
        browser.get(self.notes.url + path)
        self.visible("sign-in")

    def cookie(self):
        """This browser's device cookie for the service, as the browser keeps it."""
        cookies = browser.execute_cdp_cmd("Network.getCookies", {"urls": [self.notes.url + "/"]})
        return next(c for c in cookies["cookies"] if c["name"] == "ferrybox_device")

    def el(self, element_id):
        return browser.find_element(By.ID, element_id)

    def value(self):
        return self.el("text").get_attribute("value")

    def until(self, condition, what):
        try:
            return WebDriverWait(browser, 10).until(condition)
        except TimeoutException:
            # What the page said instead is the best clue.
            raise AssertionError(f"no {what}; the page says {self.el('message').text!r}") from None

    def visible(self, element_id):
        return self.until(seen.visibility_of_element_located((By.ID, element_id)), element_id)

    def message(self, contains):
        self.until(lambda _: contains in self.el("message").text, f"message with {contains!r}")
        return self.el("message").text

    def sign_in(self, password=PASSWORD):
        for element_id, text in (("email", EMAIL), ("password", password)):
            self.el(element_id).clear()
            self.el(element_id).send_keys(text)
        self.el("password").send_keys(Keys.ENTER)

    def titles(self):
        return browser.execute_script("return [...document.querySelectorAll('#notes .title')]"
                                      ".filter(e => e.offsetParent).map(e => e.textContent)")

    def save(self):
        """Presses Save; answers what the page says once it is done."""
        self.el("save").click()
        self.until(lambda _: not browser.execute_script(
            "return document.body.classList.contains('busy')"), "the save to end")
        return self.el("message").text

    def open_note(self, title):
        self.until(lambda _: title in self.titles(), title)
        browser.find_element(By.XPATH, f"//span[@class='title'][.='{title}']").click()
        self.visible("editor")


class WebPageTest(PageTestCase):
    arguments = ("--max-body-bytes", "2048")

    def test_sign_in_list_search_markup_and_sign_out(self):
        markup = "<script>alert(1)</script><img src=x onerror=alert(2)>"
        self.notes.create("Older carrot note\nsecond line")
        self.notes.create(markup + "\n<b>bold?</b>")
        self.fresh()
        self.sign_in("not the password")
        self.assertEqual(self.message("Wrong"), "Wrong email address or password.")
        self.sign_in()
        self.visible("list")
        titles = self.titles()
        self.assertLess(titles.index(markup), titles.index("Older carrot note"))
        # The session is a cookie the page's script cannot read, and nothing else is kept.
        self.assertEqual(browser.execute_script(
            "return [localStorage.length, sessionStorage.length, document.cookie]"), [0, 0, ""])
        cookie = self.cookie()["value"]
        self.assertTrue(self.notes.signed_in(cookie))
        # Markup in a note is text: no alert, no element made of it.
        self.open_note(markup)
        self.assertEqual(self.value(), markup + "\n<b>bold?</b>")
        with self.assertRaises(NoAlertPresentException):
            browser.switch_to.alert.text
        self.assertEqual(browser.execute_script(
            "return document.querySelectorAll('script, img:not(h1 img), b').length"), 1)
        self.el("back").click()
        self.visible("query").send_keys("CARROT", Keys.ENTER)
        self.until(lambda _: self.titles() == ["Older carrot note"], "search result")
        # Signing out ends the session on the service, not only in this browser.
        self.el("sign-out").click()
        self.visible("sign-in")
        self.assertEqual(self.message("Signed out"), "Signed out.")
        self.assertFalse(self.notes.signed_in(cookie))
        browser.refresh()
        self.visible("sign-in")

    def test_create_save_too_long_and_delete(self):
        self.fresh()
        self.sign_in()
        self.visible("new-note").click()
        self.el("text").send_keys("Shopping list\nmilk")
        self.el("save").click()
        self.message("Saved.")
        self.el("back").click()
        self.open_note("Shopping list")
        self.assertEqual(self.value(), "Shopping list\nmilk")
        # Over --max-body-bytes: nothing is lost, the reason is shown.
        long_text = "Shopping list\n" + "and then " * 300
        browser.execute_script("arguments[0].value = arguments[1]", self.el("text"), long_text)
        self.el("save").click()
        self.assertIn("too long", self.message("Not saved"))
        self.assertEqual(self.value(), long_text)
        self.assertIn('"content":"Shopping list\\nmilk"',
                      self.notes.api("GET", "search", query="Shopping list"))
        self.el("delete").click()
        WebDriverWait(browser, 5).until(seen.alert_is_present()).accept()
        self.message("Note deleted.")
        self.visible("list")
        self.assertNotIn("Shopping list", self.titles())
        self.assertIn('"totalRecords":0', self.notes.api("GET", "search", query="Shopping list"))

    def test_a_full_download_note_takes_no_more_links(self):
        # Under --max-body-bytes (2048) in base64 as it is, over it with one more link.
        text = "Ferrybox_Downloads\n# " + "x" * 1490
        key = self.notes.create(text)
        self.addCleanup(self.notes.api, "GET", "delete", key=key, dead="1")
        link = "https://example.org/one/more/file.iso"
        self.fresh()
        self.sign_in()
        self.visible("link").send_keys(link, Keys.ENTER)
        self.assertEqual(self.message("The download note is full"),
                         "The download note is full: let Ferrybox on your computer take the "
                         "links in it first, then queue this one again.")
        self.assertEqual(self.el("message").get_attribute("class"), "error")
        self.assertEqual(self.el("link").get_attribute("value"), link)
        self.assertEqual(self.notes.text(key), text)

    def test_save_keeps_lines_written_elsewhere_meanwhile(self):
        key = self.notes.create("Groceries\nmilk\neggs\nbread")
        self.fresh()
        self.sign_in()
        self.open_note("Groceries")
        # Meanwhile, elsewhere: a line added, then one taken out, each written on what it read.
        self.notes.rewrite(key, lambda lines: lines + ["butter"])
        self.notes.rewrite(key, lambda lines: [line for line in lines if line != "eggs"])
        self.el("text").send_keys(Keys.CONTROL, Keys.END, Keys.NULL, Keys.ENTER, "jam")
        self.assertIn("Lines added elsewhere meanwhile were kept", self.save())
        merged = self.notes.text(key)
        self.assertEqual(sorted(merged.split("\n")),
                         ["Groceries", "bread", "butter", "jam", "milk"])
        self.assertEqual(self.value(), merged)
        # Each next save builds on the version the one before left: no merge, nothing lost.
        for line in ("tea", "rice"):
            self.el("text").send_keys(Keys.CONTROL, Keys.END, Keys.NULL, Keys.ENTER, line)
            self.assertEqual(self.save(), "Saved.")
        self.assertEqual(self.notes.text(key), merged + "\ntea\nrice")

    def test_download_note_from_q_edited_here_is_fetched_by_the_agent(self):
        key = self.notes.create("Ferrybox_Downloads")
        work, link = serve_file(self, "linked.txt", "fetched through the page\n")

        self.fresh("/?q=Ferrybox_Downloads")
        self.sign_in()
        self.until(lambda _: self.value() == "Ferrybox_Downloads", "the download note")
        self.el("text").send_keys(Keys.END, Keys.ENTER, link)
        self.el("save").click()
        self.message("Saved.")
        self.assertEqual(self.notes.text(key), f"Ferrybox_Downloads\n{link}")

        agent = subprocess.run(agent_command(work.name, "--once"), env=agent_environment(
            work.name, self.notes.url), capture_output=True, text=True, timeout=60)
        self.assertEqual(agent.returncode, 0, agent.stderr)
        with open(f"{work.name}/Downloads/Ferrybox/linked.txt") as f:
            self.assertEqual(f.read(), "fetched through the page\n")
        self.assertEqual(self.notes.text(key), "Ferrybox_Downloads")

    def test_phone_viewport_headers_and_controls(self):
        for path, content_type in (
                ("/", "text/html; charset=utf-8"),
                ("/share?url=https%3A%2F%2Fexample.org%2Fa.iso", "text/html; charset=utf-8"),
                ("/app.js", "text/javascript; charset=utf-8"),
                ("/sw.js", "text/javascript; charset=utf-8"),
                ("/app.css", "text/css; charset=utf-8"),
                ("/manifest.webmanifest", "application/manifest+json"),
                ("/icon.svg", "image/svg+xml"),
                ("/icon-192.png", "image/png")):
            headers = self.notes.request("GET", path)[1]
            self.assertEqual(headers["Content-Type"], content_type, path)
            self.assertEqual(headers["Content-Security-Policy"],
                             "default-src 'none'; script-src 'self'; style-src 'self'; "
                             "connect-src 'self'; img-src 'self'; manifest-src 'self'; "
                             "worker-src 'self'; base-uri 'none'; form-action 'none'; "
                             "frame-ancestors 'none'", path)
            self.assertEqual(headers["X-Content-Type-Options"], "nosniff")
            self.assertEqual(headers["Referrer-Policy"], "no-referrer")
        self.notes.create("A title far too long for a phone " * 6 + "\nbody")
        browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": 390, "height": 844, "deviceScaleFactor": 1, "mobile": True})
        self.addCleanup(browser.execute_cdp_cmd, "Emulation.clearDeviceMetricsOverride", {})
        self.fresh()
        fits = "const e = document.documentElement; return e.scrollWidth <= e.clientWidth"
        small = ("return [...document.querySelectorAll('button, input, textarea')]"
                 ".filter(e => e.offsetParent && e.getBoundingClientRect().height < 44)"
                 ".map(e => e.id)")
        unlabelled = ("return [...document.querySelectorAll('input, textarea')]"
                      ".filter(e => !e.labels.length).length")
        self.assertEqual(browser.execute_script(unlabelled), 0)
        self.sign_in()
        self.until(lambda _: self.titles(), "notes")
        png = browser.get_screenshot_as_png()
        self.assertEqual((png[:8], struct.unpack(">II", png[16:24])),
                         (b"\x89PNG\r\n\x1a\n", (390, 844)))
        self.assertEqual(browser.execute_script(unlabelled), 0)
        self.assertEqual(browser.execute_script(small), [])
        self.assertTrue(browser.execute_script(fits))
        # The header's buttons and the device list fit too.
        self.el("devices-open").click()
        self.until(lambda _: self.el("device-list").text, "the device list")
        self.assertEqual(browser.execute_script(small), [])
        self.assertTrue(browser.execute_script(fits))
        self.el("devices-back").click()
        self.visible("list")
        self.visible("new-note").click()
        self.el("text").send_keys("https://example.org/" + "a" * 200)
        self.assertEqual(browser.execute_script(small), [])
        self.assertTrue(browser.execute_script(fits))


ANDROID = ("Mozilla/5.0 (Linux; Android 14; Pixel 8) AppleWebKit/537.36 (KHTML, like Gecko) "
           "Chrome/126.0.0.0 Mobile Safari/537.36")


class DeviceSessionTest(PageTestCase):
    def test_cookie_cannot_be_read_by_script(self):
        self.fresh()
        self.sign_in()
        self.visible("list")
        cookie = self.cookie()
        self.assertEqual((cookie["httpOnly"], cookie["sameSite"], cookie["path"]),
                         (True, "Strict", "/"))
        # Kept for months, not for the tab: a phone shares weeks after signing in.
        self.assertGreater(cookie["expires"], time.time() + 300 * 24 * 3600)
        self.assertEqual(browser.execute_script("return document.cookie"), "")
        # Requests another site could make are refused by the service (its own tests); the
        # page's own requests pass.
        self.assertEqual(self.notes.web("GET", "/web/me", cookie["value"],
                                        headers=(("Sec-Fetch-Site", "same-origin"),))[0], 200)

    def test_devices_listed_and_ended_with_the_keyboard(self):
        phone = self.notes.device(ANDROID)
        self.fresh()
        self.sign_in()
        self.visible("list")
        self.el("devices-open").send_keys(Keys.ENTER)
        self.visible("devices")
        # Name, last use and "this device"; the browsers of other tests' sign-ins are listed too.
        rows = lambda: [r.text.split("\n") for r in  # noqa: E731
                        browser.find_elements(By.CSS_SELECTOR, "#device-list li")]
        self.until(lambda _: len(rows()) >= 2, "two devices")
        here = [row for row in rows() if "this device" in row]
        self.assertEqual(len(here), 1, rows())
        self.assertEqual(here[0][0], "Chrome on Linux")
        phones = [row for row in rows() if row[0] == "Chrome on Android"]
        self.assertEqual(len(phones), 1)
        self.assertTrue(phones[0][1].startswith("Last used "), phones)
        self.assertEqual(phones[0][2:], ["End"])
        count = len(rows())
        # Tab to the phone's End button and press Enter.
        for _ in range(10):
            browser.switch_to.active_element.send_keys(Keys.TAB)
            label = browser.switch_to.active_element.get_attribute("aria-label") or ""
            if label == "End the session of Chrome on Android":
                break
        else:
            self.fail("no End button for the phone within reach of the Tab key")
        browser.switch_to.active_element.send_keys(Keys.ENTER)
        self.message("Ended the session of Chrome on Android")
        self.until(lambda _: len(rows()) == count - 1, "one device fewer")
        self.assertNotIn("Chrome on Android", [row[0] for row in rows()])
        self.assertFalse(self.notes.signed_in(phone))
        # Ending this device signs it out.
        mine = self.cookie()["value"]
        browser.find_element(By.XPATH, "//li[.//*[.='this device']]//button").click()
        self.visible("sign-in")
        self.assertEqual(self.message("Signed out"), "Signed out.")
        self.assertFalse(self.notes.signed_in(mine))
        self.assertFalse(self.el("devices-open").is_displayed())

    def test_sign_out_everywhere(self):
        """A lost phone: every device session and every API token of the account ends, this
        device's included."""
        phone = self.notes.device(ANDROID)
        self.addCleanup(self.notes.login)  # the token the other tests use
        self.fresh()
        self.sign_in()
        self.visible("list")
        mine = self.cookie()["value"]
        self.el("devices-open").click()
        self.visible("sign-out-everywhere").click()
        WebDriverWait(browser, 5).until(seen.alert_is_present()).accept()
        self.visible("sign-in")
        self.assertEqual(self.message("Signed out everywhere"), "Signed out everywhere.")
        self.assertFalse(self.el("devices").is_displayed())
        self.assertFalse(self.el("devices-open").is_displayed())
        self.assertEqual([self.notes.signed_in(cookie) for cookie in (mine, phone)],
                         [False, False])
        with self.assertRaises(urllib.error.HTTPError) as refused:
            self.notes.api("GET", "index")
        self.assertEqual(refused.exception.code, 401)
        browser.refresh()
        self.visible("sign-in")

    def test_session_ended_elsewhere_keeps_the_unsaved_edit(self):
        self.fresh()
        self.sign_in()
        self.visible("new-note").click()
        self.el("text").send_keys("Written while the session was ended")
        # Ended from another device (here: its sign-out, sent with this device's cookie).
        self.assertEqual(self.notes.web("POST", "/web/sign-out", self.cookie()["value"])[0], 200)
        self.el("save").click()
        self.assertIn("signed out", self.message("Not saved"))
        self.visible("sign-in")
        self.assertEqual(self.value(), "Written while the session was ended")
        self.assertTrue(self.el("editor").is_displayed())
        self.el("password").send_keys(PASSWORD, Keys.ENTER)
        self.message("Signed in again")
        self.el("save").click()
        self.message("Saved.")
        self.assertIn('"totalRecords":1',
                      self.notes.api("GET", "search", query="Written while the session"))


def worker_active():
    """Waits for the page's service worker to be active; answers its state."""
    return browser.execute_async_script("""
        const done = arguments[arguments.length - 1];
        navigator.serviceWorker.ready.then(({ active }) => {
            if (active.state === 'activated')
                return done(active.state);
            active.addEventListener('statechange', () => {
                if (active.state === 'activated')
                    done(active.state);
            });
        }, String);""")


def share_url(**fields):
    return "/share?" + "&".join(f"{k}={quote(v, safe='')}" for k, v in fields.items())


class ShareTest(PageTestCase):
    """The page installed as an app, shared to from other apps, and its quick add box."""

    def queued(self):
        self.visible("queued")
        return self.el("queued-text").text

    def lines(self, link):
        return (self.notes.download_note() or []).count(link)

    def test_installable_with_icons_and_share_target(self):
        browser.get(self.notes.url + "/")
        self.assertEqual(worker_active(), "activated")
        self.assertEqual(browser.execute_cdp_cmd("Page.getInstallabilityErrors", {}),
                         {"installabilityErrors": []})
        manifest = json.loads(self.notes.request("GET", "/manifest.webmanifest")[0])
        self.assertEqual(manifest["share_target"], {
            "action": "/share", "method": "GET",
            "params": {"title": "title", "text": "text", "url": "url"}})
        self.assertEqual((manifest["name"], manifest["short_name"], manifest["start_url"],
                          manifest["scope"], manifest["display"]),
                         ("Ferrybox notes", "Ferrybox", "/", "/", "standalone"))
        pngs = [(i["sizes"], i.get("purpose", "any")) for i in manifest["icons"]
                if i["type"] == "image/png"]
        self.assertEqual(sorted(pngs), [("192x192", "any"), ("512x512", "any"),
                                        ("512x512", "maskable")])
        for icon in manifest["icons"]:
            with self.subTest(icon["src"]):
                request = urllib.request.Request(self.notes.url + icon["src"])
                with urllib.request.urlopen(request, timeout=10) as response:
                    body, content_type = response.read(), response.headers["Content-Type"]
                self.assertEqual(content_type, icon["type"])
                if icon["type"] == "image/png":
                    self.assertEqual("%dx%d" % struct.unpack(">II", body[16:24]), icon["sizes"])
        # Chromium reads the same: no complaint that would keep it from installing.
        read = browser.execute_cdp_cmd("Page.getAppManifest", {})
        self.assertEqual([e for e in read["errors"] if e["critical"]], [])
        self.assertTrue(read["manifest"]["shareTarget"]["action"].endswith("/share"))

    def test_share_after_the_tab_was_closed_queues_once(self):
        link = "https://example.org/talks/keynote.mp4"
        self.fresh()
        self.sign_in()
        self.visible("list")
        # The tab that signed in is gone; the share sheet opens the app afresh.
        signed_in_tab = browser.current_window_handle
        browser.switch_to.new_window("tab")
        share_tab = browser.current_window_handle
        browser.switch_to.window(signed_in_tab)
        browser.close()
        browser.switch_to.window(share_tab)
        browser.get(self.notes.url + share_url(title="Keynote", text="Watch this", url=link))
        self.assertEqual(self.queued(), "Queued: keynote.mp4")
        self.assertEqual(self.notes.download_note()[-1], link)
        self.assertEqual(self.lines(link), 1)
        # The address is the app's own again: reloading shares nothing.
        self.assertEqual(browser.execute_script("return location.pathname + location.search"),
                         "/")
        browser.refresh()
        self.visible("list")
        self.assertFalse(self.el("queued").is_displayed())
        # The same link shared again is not a second line.
        browser.get(self.notes.url + share_url(url=link))
        self.assertEqual(self.queued(), "Already queued: keynote.mp4")
        self.assertEqual(self.lines(link), 1)
        # The way back to the note.
        self.el("queued-open").click()
        self.until(lambda _: self.value().startswith("Ferrybox_Downloads\n"), "the download note")
        self.assertIn(link, self.value().split("\n"))

    def test_share_finds_the_address_in_text_or_says_there_is_none(self):
        self.fresh()
        self.sign_in()
        self.visible("list")
        link = "https://example.org/files/Holiday%20photos.zip"
        browser.get(self.notes.url + share_url(
            title="Photos", text=f"Here are the pictures: {link} (enjoy!)"))
        self.assertEqual(self.queued(), "Queued: Holiday photos.zip")
        self.assertEqual(self.lines(link), 1)
        before = self.notes.download_note()
        for fields in ({"title": "Just a title", "text": "no address in here"},
                       {"url": "ftp://example.org/file.iso"}, {}):
            with self.subTest(fields):
                browser.get(self.notes.url + share_url(**fields))
                self.assertEqual(
                    self.message("Nothing to download"),
                    "Nothing to download: what was shared holds no web address.")
                self.assertTrue(self.el("message").get_attribute("class") == "error")
                self.assertFalse(self.el("queued").is_displayed())
                self.assertEqual(browser.execute_script("return location.pathname"), "/")
                self.assertEqual(self.notes.download_note(), before)

    def test_share_while_signed_out_asks_to_sign_in_then_queues(self):
        link = "https://example.org/signed-out/linux.iso"
        self.fresh(share_url(url=link))
        self.assertIn("Sign in to queue", self.el("sign-in").text)
        self.assertEqual(self.lines(link), 0)
        self.sign_in()
        self.assertEqual(self.queued(), "Queued: linux.iso")
        self.assertEqual(self.lines(link), 1)
        self.assertEqual(browser.execute_script("return location.pathname"), "/")

    def test_share_sent_by_another_site_waits_for_a_tap(self):
        """Any site can send a browser to /share with a link of its choosing; only the share
        sheet's or the page's own navigations queue at once, with the service worker in the way
        too."""
        browser.get(self.notes.url + "/")
        self.assertEqual(worker_active(), "activated")
        link = "https://example.org/from-elsewhere/payload.sh"
        target = self.notes.url + share_url(title="Update", text=f"Get it: {link}.")
        _, page = serve_file(self, "go.html", f'<a id="go" href="{target}">go</a>')
        # Another site (localhost is not 127.0.0.1), followed by a click, while signed out.
        browser.execute_cdp_cmd("Network.clearBrowserCookies", {})
        browser.get(page.replace("127.0.0.1", "localhost"))
        self.el("go").click()
        self.visible("sign-in")
        self.assertIn("choose whether to queue", self.el("sign-in-why").text)
        self.sign_in()
        self.visible("share-check")
        # The link the service would take, as text, and nothing queued until the tap.
        self.assertEqual(self.el("share-link").text, link)
        self.assertEqual(self.lines(link), 0)
        self.el("share-queue").click()
        self.assertEqual(self.queued(), "Queued: payload.sh")
        self.assertEqual(self.lines(link), 1)
        self.assertEqual(browser.execute_script("return location.pathname"), "/")
        # The same site on another port, by script, signed in: dismissed, nothing queued.
        other = "https://example.org/from-elsewhere/other.sh"
        browser.get(page)
        browser.execute_script("location = arguments[0]",
                               self.notes.url + share_url(url=f"<{other}>"))
        self.visible("share-check")
        self.assertEqual(self.el("share-link").text, other)
        self.el("share-dismiss").click()
        self.message("Nothing was queued.")
        self.visible("list")
        self.assertEqual(self.lines(other), 0)
        self.assertEqual(browser.execute_script("return location.pathname"), "/")
        # Opened as the share sheet does, through the same worker: queued at once.
        browser.get(self.notes.url + share_url(url=other))
        self.assertEqual(self.queued(), "Queued: other.sh")
        self.assertEqual(self.lines(other), 1)
        # Only what the browser says of the navigation counts; a browser that says nothing is
        # not believed.
        for site, at_once in (("none", True), ("same-origin", True), ("same-site", False),
                              ("cross-site", False), (None, False)):
            status, body, headers = self.notes.web(
                "GET", share_url(url=link), headers=(("Sec-Fetch-Site", site),) if site else ())
            self.assertEqual((status, 'content="at-once"' in body), (200, at_once), site)
            self.assertEqual(headers["Vary"], "Sec-Fetch-Site")

    def test_quick_add_box(self):
        link = "https://example.org/pasted/manual.pdf"
        self.fresh()
        self.sign_in()
        self.visible("list")
        self.assertEqual(browser.find_element(By.CSS_SELECTOR, "label[for=link]").text,
                         "Paste a link")
        # Above the note list.
        self.assertLess(self.el("link").location["y"], self.el("list-title").location["y"])
        self.el("link").send_keys(link, Keys.ENTER)
        self.assertEqual(self.queued(), "Queued: manual.pdf")
        self.assertEqual(self.lines(link), 1)
        self.until(lambda _: self.titles()[:1] == ["Ferrybox_Downloads"],
                   "the download note on top")
        self.assertEqual(self.el("link").get_attribute("value"), "")
        # The page names the download note as it saw it: a link the agent took from it since is
        # not queued again by the same tap repeated.
        self.notes.rewrite(self.notes.download_note_key(), lambda lines: lines[:-1])
        self.el("link").send_keys(link, Keys.ENTER)
        self.until(lambda _: self.el("queued-text").text == "Already queued: manual.pdf",
                   "already queued")
        self.assertEqual(self.lines(link), 0)
        self.el("link").clear()
        before = self.notes.download_note()
        self.el("link").send_keys("not a link", Keys.ENTER)
        self.message("Nothing to download")
        self.assertEqual(self.el("link").get_attribute("value"), "not a link")
        self.assertEqual(self.notes.download_note(), before)


class RunningAgentTest(PageTestCase):
    """The whole way, with an account of its own: one download note, one agent."""

    def test_share_reaches_the_running_agent_at_once(self):
        """A phone shares a link; the agent at home, checking only every ten minutes, has the
        download under way moments later."""
        work, link = serve_file(self, "shared.txt", "shared from a phone\n")
        # Its first check, at start, fetches what the note held already; then it waits for
        # the interval.
        earlier = link.replace("shared.txt", "earlier.txt")
        self.notes.create("Ferrybox_Downloads\n" + earlier)
        with open(f"{work.name}/www/earlier.txt", "w") as f:
            f.write("queued before\n")
        agent = subprocess.Popen(agent_command(work.name), stderr=subprocess.PIPE, text=True,
                                 env=agent_environment(work.name, self.notes.url))
        self.addCleanup(agent.wait, 10)
        self.addCleanup(agent.terminate)
        said = []
        threading.Thread(target=lambda: said.extend(agent.stderr), daemon=True).start()
        try:
            wait_for(lambda: any(line.startswith("download begins: " + earlier) for line in said)
                     or agent.poll() is not None, "the agent's first check", 30)
        except AssertionError as timeout:
            raise AssertionError("".join(said)) from timeout
        self.assertIsNone(agent.poll(), "".join(said))

        self.fresh()
        self.sign_in()
        self.visible("list")
        browser.switch_to.new_window("tab")
        share_tab = browser.current_window_handle
        for handle in browser.window_handles:
            if handle != share_tab:
                browser.switch_to.window(handle)
                browser.close()
        browser.switch_to.window(share_tab)
        browser.get(self.notes.url + share_url(text="Look", url=link))
        self.visible("queued")
        self.assertEqual(self.el("queued-text").text, "Queued: shared.txt")
        # How soon is measured by the benchmark; here it is only bounded loosely.
        wait_for(lambda: any(line.startswith("download begins: " + link) for line in said),
                 "the agent to begin the shared download", 10)
        wait_for(lambda: os.path.exists(f"{work.name}/Downloads/Ferrybox/shared.txt"),
                 "the shared file", 10)


class OfflineTest(PageTestCase):
    def test_service_out_of_reach_shows_the_offline_page(self):
        browser.get(self.notes.url + share_url(url="https://example.org/later.iso"))
        self.visible("sign-in")
        self.assertEqual(worker_active(), "activated")
        # Down, as for a phone without a connection: the service worker answers.
        self.notes.process.terminate()
        self.notes.process.wait(20)
        browser.refresh()
        self.until(lambda _: "You are offline" in browser.find_element(By.TAG_NAME, "h2").text,
                   "the offline page")
        self.assertIn("cannot reach your notes service", self.el("offline").text)
        again = browser.find_element(By.LINK_TEXT, "Try again")
        self.assertTrue(again.get_attribute("href").endswith(
            "/share?url=https%3A%2F%2Fexample.org%2Flater.iso"))
        # Styled by the page's own style sheet, from the service worker's shelf.
        self.assertEqual(browser.execute_script(
            "return getComputedStyle(document.querySelector('.card')).borderRadius"), "12px")


if __name__ == "__main__":
    unittest.main(verbosity=2)
