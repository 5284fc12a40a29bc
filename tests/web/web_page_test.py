# SPDX-License-Identifier: GPL-3.0-or-later
"""The notes web page in a real headless Chromium, against the real ferrybox-notes (and, for the
download note, the real headless agent), each on a free loopback port with a temporary home."""
import base64
import http.server
import os
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
from urllib.parse import quote

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

BUILD = os.environ.get("FERRYBOX_BUILD_DIR", os.path.join(os.path.dirname(__file__), "../../build"))
CHROMIUM, CHROMEDRIVER = shutil.which("chromium"), shutil.which("chromedriver")
EMAIL, PASSWORD = "me@example.org", "secret words"
browser = None


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


class NotesService:
    """ferrybox-notes serving a temporary database that holds one account."""

    def __init__(self, *arguments, environment=None):
        self.dir = tempfile.TemporaryDirectory()
        env = dict(os.environ, FERRYBOX_NOTES_HASH_ITERATIONS="1000", **(environment or {}))
        binary, db = f"{BUILD}/service/ferrybox-notes", f"{self.dir.name}/notes.db"
        subprocess.run([binary, "add-user", EMAIL, "--db", db], input=PASSWORD + "\n",
                       text=True, env=env, check=True, capture_output=True)
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            port = probe.getsockname()[1]
        self.url = f"http://127.0.0.1:{port}"
        self.process = subprocess.Popen(
            [binary, "serve", "--listen", f"127.0.0.1:{port}", "--db", db, *arguments],
            env=env, stderr=subprocess.DEVNULL)
        wait_for(lambda: self.process.poll() is not None or accepts(port), "ferrybox-notes")
        assert self.process.poll() is None, "ferrybox-notes did not start"
        self.login()

    def request(self, method, path, body=None):
        request = urllib.request.Request(self.url + path, data=body, method=method)
        with urllib.request.urlopen(request, timeout=10) as response:
            return response.read().decode(), response.headers

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

    def stop(self):
        self.process.terminate()
        status = self.process.wait(20)
        self.dir.cleanup()
        return status


def setUpModule():
    global browser
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
        """A new session on the page: nobody signed in."""
        browser.get(self.notes.url + "/")
        browser.execute_script("sessionStorage.clear()")
        browser.get(self.notes.url + path)
        self.visible("sign-in")

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
        self.assertEqual(browser.execute_script(
            "return [localStorage.length, document.cookie, !!sessionStorage.getItem('token')]"),
            [0, "", True])
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
        self.el("sign-out").click()
        self.visible("sign-in")
        self.assertIsNone(browser.execute_script("return sessionStorage.getItem('token')"))

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

    def test_download_note_from_q_edited_here_is_fetched_by_the_agent(self):
        key = self.notes.create("Ferrybox_Downloads")
        work = tempfile.TemporaryDirectory()
        self.addCleanup(work.cleanup)
        os.mkdir(f"{work.name}/www")
        with open(f"{work.name}/www/linked.txt", "w") as f:
            f.write("fetched through the page\n")
        quiet = type("Quiet", (http.server.SimpleHTTPRequestHandler,),
                     {"log_message": lambda *_: None})
        files = http.server.ThreadingHTTPServer(
            ("127.0.0.1", 0), lambda *a: quiet(*a, directory=f"{work.name}/www"))
        threading.Thread(target=files.serve_forever, daemon=True).start()
        self.addCleanup(files.server_close)
        self.addCleanup(files.shutdown)
        link = f"http://127.0.0.1:{files.server_port}/linked.txt"

        self.fresh("/?q=Ferrybox_Downloads")
        self.sign_in()
        self.until(lambda _: self.value() == "Ferrybox_Downloads", "the download note")
        self.el("text").send_keys(Keys.END, Keys.ENTER, link)
        self.el("save").click()
        self.message("Saved.")
        self.assertEqual(self.notes.text(key), f"Ferrybox_Downloads\n{link}")

        with open(f"{work.name}/password", "w", opener=lambda p, f: os.open(p, f, 0o600)) as f:
            f.write(PASSWORD + "\n")
        env = dict(os.environ, HOME=work.name, XDG_CONFIG_HOME=f"{work.name}/.config",
                   FERRYBOX_API_URL=self.notes.url + "/api", QT_QPA_PLATFORM="offscreen")
        for name in ("DBUS_SESSION_BUS_ADDRESS", "FERRYBOX_PASSWORD_FILE"):
            env.pop(name, None)
        agent = subprocess.run(
            [f"{BUILD}/app/ferrybox", "--headless", "--once", "--email", EMAIL,
             "--password-file", f"{work.name}/password"],
            env=env, capture_output=True, text=True, timeout=60)
        self.assertEqual(agent.returncode, 0, agent.stderr)
        with open(f"{work.name}/Downloads/Ferrybox/linked.txt") as f:
            self.assertEqual(f.read(), "fetched through the page\n")
        self.assertEqual(self.notes.text(key), "Ferrybox_Downloads")

    def test_phone_viewport_headers_and_controls(self):
        for path in ("/", "/app.js", "/app.css", "/icon.svg"):
            headers = self.notes.request("GET", path)[1]
            self.assertIn("default-src 'none'; script-src 'self';",
                          headers["Content-Security-Policy"])
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
        self.assertEqual(browser.execute_script(small), [])
        self.assertTrue(browser.execute_script(fits))
        self.visible("new-note").click()
        self.el("text").send_keys("https://example.org/" + "a" * 200)
        self.assertEqual(browser.execute_script(small), [])
        self.assertTrue(browser.execute_script(fits))


class ExpiredTokenTest(PageTestCase):
    environment = {"FERRYBOX_NOTES_TOKEN_SECONDS": "2"}

    def test_expired_token_keeps_the_unsaved_edit(self):
        self.fresh()
        self.sign_in()
        self.visible("new-note").click()
        self.el("text").send_keys("Written while the session ran out")
        token = browser.execute_script("return sessionStorage.getItem('token')")

        def expired():
            try:
                self.notes.api("GET", "index", token=token)
            except urllib.error.HTTPError as error:
                return error.code == 401
        wait_for(expired, "the token to expire")
        self.el("save").click()
        self.assertIn("signed out", self.message("Not saved"))
        self.visible("sign-in")
        self.assertEqual(self.value(), "Written while the session ran out")
        self.assertTrue(self.el("editor").is_displayed())
        self.el("password").send_keys(PASSWORD, Keys.ENTER)
        self.message("Signed in again")
        self.el("save").click()
        self.message("Saved.")
        self.notes.login()
        self.assertIn('"totalRecords":1',
                      self.notes.api("GET", "search", query="Written while the session"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
