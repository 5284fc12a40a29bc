# SPDX-License-Identifier: GPL-3.0-or-later
"""The reverse proxy files of packaging/reverse-proxy, run as they ship (only the host name, the
ports and the certificate paths replaced) by the real nginx and the real Caddy, each in front of
the real ferrybox-notes started with --trusted-proxy 127.0.0.1. Everything listens on loopback
ports of its own and keeps its files in temporary folders: Caddy makes its own local certificate
authority there and never touches the system's trust store or the network."""
import base64
import http.client
import os
import re
import shutil
import socket
import ssl
import subprocess
import sys
import tempfile
import time
import unittest
from urllib.parse import quote

SOURCE = os.path.dirname(os.path.abspath(__file__))
FILES = os.path.join(SOURCE, "../../packaging/reverse-proxy")
BUILD = os.environ.get("FERRYBOX_BUILD_DIR", os.path.join(SOURCE, "../../build"))
EMAIL, PASSWORD = "me@example.org", "secret words"
HOST = "127.0.0.1"
sys.path.insert(0, os.path.join(SOURCE, "../support"))
from private_postgres import PrivatePostgres  # noqa: E402
# Client addresses of the loopback range, so the proxy sees clients that differ as they would
# on the internet. 127.0.0.1 is the proxy's own address towards the service.
ATTACKER, OWNER, STRANGER, NEIGHBOUR = "127.0.0.2", "127.0.0.3", "127.0.0.4", "127.0.0.5"
MAX_BODY = 1048576  # the service's default --max-body-bytes
# Seconds between the heartbeats of an event stream: short, so that a test sees one pass.
HEARTBEAT = 1


def wait_for(condition, what, seconds=15):
    end = time.monotonic() + seconds
    while not (result := condition()):
        if time.monotonic() > end:
            raise AssertionError(f"timed out waiting for {what}")
        time.sleep(0.05)
    return result


def free_port():
    with socket.socket() as probe:
        probe.bind((HOST, 0))
        return probe.getsockname()[1]


def accepts(port):
    try:
        socket.create_connection((HOST, port), timeout=1).close()
        return True
    except OSError:
        return False


def ipv6_loopback():
    try:
        with socket.socket(socket.AF_INET6) as probe:
            probe.bind(("::1", 0))
        return True
    except OSError:
        return False


def render(name, replacements, into):
    """The shipped file NAME with each (pattern, text) replaced; every pattern must be there, so
    a change to the file cannot quietly leave the test running something else."""
    with open(os.path.join(FILES, name), encoding="utf-8") as file:
        text = file.read()
    for pattern, replacement in replacements:
        text, count = re.subn(pattern, replacement, text, flags=re.MULTILINE)
        assert count, f"{name} no longer holds {pattern!r}"
    path = os.path.join(into, name)
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)
    return path


def login_body(password):
    return base64.b64encode(f"email={EMAIL}&password={password}".encode())


class Answer:
    def __init__(self, response):
        self.status, self.headers = response.status, response.headers
        self.body = response.read()


class NotesService:
    """ferrybox-notes behind a proxy on 127.0.0.1: serving a temporary database of one account,
    or a node of the given database (whose account the first node made)."""

    def __init__(self, database=None):
        self.dir = tempfile.TemporaryDirectory()
        env = dict(os.environ, FERRYBOX_NOTES_HASH_ITERATIONS="1000")
        binary, db = f"{BUILD}/service/ferrybox-notes", database or f"{self.dir.name}/notes.db"
        subprocess.run([binary, "add-user", EMAIL, "--db", db], input=PASSWORD + "\n",
                       text=True, env=env, capture_output=True, check=not database)
        self.port = free_port()
        self.log = open(f"{self.dir.name}/service.log", "w+")
        self.process = subprocess.Popen(
            [binary, "serve", "--listen", f"{HOST}:{self.port}", "--db", db,
             "--trusted-proxy", HOST, "--event-heartbeat", str(HEARTBEAT)],
            env=env, stderr=self.log)
        wait_for(lambda: self.process.poll() is not None or accepts(self.port), "ferrybox-notes")
        if self.process.poll() is not None:
            self.log.seek(0)
            raise AssertionError(f"ferrybox-notes did not start: {self.log.read()}")

    def request(self, method, path, body=None, headers=None, source=HOST):
        """Straight to the service's own port, from the address SOURCE."""
        connection = http.client.HTTPConnection(HOST, self.port, timeout=10,
                                                source_address=(source, 0))
        try:
            connection.request(method, path, body, headers or {})
            return Answer(connection.getresponse())
        finally:
            connection.close()

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
        status = self.process.wait(20)
        self.log.close()
        self.dir.cleanup()
        return status

    def output(self):
        self.log.flush()
        self.log.seek(0)
        return self.log.read()


class Proxy:
    """A proxy started from the shipped file in a temporary folder, in front of SERVICE."""

    https_port = http_port = None

    def __init__(self, service):
        self.dir = tempfile.mkdtemp(prefix="ferrybox-proxy-")
        # nginx started by root runs its workers as nobody, who must reach its temporary files.
        os.chmod(self.dir, 0o755)
        self.https_port, self.http_port = free_port(), free_port()
        self.log = open(os.path.join(self.dir, "proxy.log"), "w+")
        self.process = subprocess.Popen(self.command(service), env=self.environment(),
                                        stdout=self.log, stderr=subprocess.STDOUT)
        self.context = wait_for(self.trusted, f"{self.name} to answer over verified TLS")

    def environment(self):
        return dict(os.environ)

    def trusted(self):
        """An SSL context that trusts the proxy's certificate, once a handshake with it works."""
        if self.process.poll() is not None:
            raise AssertionError(f"{self.name} stopped: {self.output()}")
        if not os.path.exists(self.certificate_authority()):
            return None
        context = ssl.create_default_context(cafile=self.certificate_authority())
        try:
            with socket.create_connection((HOST, self.https_port), timeout=2) as raw:
                with context.wrap_socket(raw, server_hostname=HOST):
                    return context
        except (OSError, ssl.SSLError):
            return None

    def output(self):
        self.log.flush()
        self.log.seek(0)
        return self.log.read()

    def connection(self, source=HOST, timeout=10):
        return http.client.HTTPSConnection(HOST, self.https_port, context=self.context,
                                           timeout=timeout, source_address=(source, 0))

    def request(self, method, path, body=None, headers=None, source=HOST):
        """Over HTTPS through the proxy, from the address SOURCE."""
        connection = self.connection(source)
        try:
            connection.request(method, path, body, headers or {})
            return Answer(connection.getresponse())
        finally:
            connection.close()

    def plain_request(self, path):
        connection = http.client.HTTPConnection(HOST, self.http_port, timeout=10)
        try:
            connection.request("GET", path)
            return Answer(connection.getresponse())
        finally:
            connection.close()

    def stop(self):
        self.process.terminate()
        try:
            # Caddy finds that the client of an event stream has gone only after a few failed
            # writes (heartbeats) and waits for that before it exits: no need to wait here.
            self.process.wait(2)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.log.close()
        shutil.rmtree(self.dir, ignore_errors=True)


class Nginx(Proxy):
    name = "nginx"
    # Sends the browser on to the same host and path over HTTPS; the real one is on port 443.
    redirect = (301, f"https://{HOST}/?q=Ferrybox_Downloads")

    def certificate_authority(self):
        return os.path.join(self.dir, "notes.crt")

    def command(self, service):
        # A self-signed certificate for the host, made the way the README shows.
        subprocess.run(
            ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
             "-nodes", "-days", "2",
             "-subj", f"/CN={HOST}", "-addext", f"subjectAltName=IP:{HOST}",
             "-keyout", os.path.join(self.dir, "notes.key"),
             "-out", self.certificate_authority()], check=True, capture_output=True)
        v6 = ipv6_loopback()
        site = render("ferrybox-notes.nginx", [
            (r"notes\.example\.org", HOST),
            (r"^(\s*listen )80;", rf"\g<1>{HOST}:{self.http_port};"),
            (r"^(\s*listen )443 ", rf"\g<1>{HOST}:{self.https_port} "),
            (r"^(\s*)listen \[::\]:80;", rf"\g<1>listen [::1]:{self.http_port};" if v6 else ""),
            (r"^(\s*)listen \[::\]:443 (.*)$",
             rf"\g<1>listen [::1]:{self.https_port} \g<2>" if v6 else ""),
            (r"127\.0\.0\.1:8080", f"{HOST}:{service.port}"),
            (r"/var/log/nginx/access\.log", self.access_log_path()),
            (r"^(\s*)ssl_certificate [^;\n]*;",
             rf"\g<1>ssl_certificate {self.certificate_authority()};"),
            (r"^(\s*)ssl_certificate_key [^;\n]*;",
             rf"\g<1>ssl_certificate_key {os.path.join(self.dir, 'notes.key')};"),
        ], self.dir)
        # What Debian's nginx.conf gives a site, with every file of nginx's own in the folder.
        temp = " ".join(f"{kind}_temp_path {self.dir}/{kind};"
                        for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        config = os.path.join(self.dir, "nginx.conf")
        with open(config, "w", encoding="utf-8") as file:
            file.write(f"worker_processes 1;\nevents {{ worker_connections 256; }}\n"
                       f"http {{\n    access_log {self.dir}/access.log;\n    {temp}\n"
                       f"    include {site};\n}}\n")
        return ["nginx", "-p", self.dir, "-c", config, "-e", f"{self.dir}/error.log",
                "-g", f"daemon off; pid {self.dir}/nginx.pid; error_log {self.dir}/error.log;"]

    def output(self):
        with open(os.path.join(self.dir, "error.log"), encoding="utf-8", errors="replace") as f:
            return super().output() + f.read()

    def access_log_path(self):
        return os.path.join(self.dir, "access.log")

    def access_log(self):
        with open(self.access_log_path(), encoding="utf-8", errors="replace") as file:
            return file.read()


class Caddy(Proxy):
    name = "Caddy"
    file = "Caddyfile"

    # Caddy's own redirect, which keeps the method.
    redirect = (308, f"https://{HOST}/?q=Ferrybox_Downloads")

    def certificate_authority(self):
        return os.path.join(self.dir, "storage/pki/authorities/local/root.crt")

    def access_log(self):
        """Caddy keeps none (the file says why): anything it logged would be in its output."""
        return ""

    def environment(self):
        return dict(os.environ, HOME=self.dir, XDG_DATA_HOME=f"{self.dir}/data",
                    XDG_CONFIG_HOME=f"{self.dir}/config")

    def command(self, service):
        # The site on a loopback port with a certificate from Caddy's local authority, kept in
        # the folder and trusted by nobody but this test; no admin endpoint. These go first into
        # the file's own global options.
        options = (f"{{\n\tadmin off\n\tlocal_certs\n\tskip_install_trust\n"
                   f"\tdefault_bind {HOST}\n\thttp_port {self.http_port}\n"
                   f"\thttps_port {self.https_port}\n"
                   f"\tstorage file_system {{\n\t\troot {self.dir}/storage\n\t}}")
        config = render(self.file, [
            (r"^notes\.example\.org \{", f"https://{HOST}:{self.https_port} {{"),
            *self.upstreams(service),
            (r"^\{$", options),
        ], self.dir)
        return ["caddy", "run", "--config", config, "--adapter", "caddyfile"]

    def upstreams(self, service):
        return [(r"127\.0\.0\.1:8080", f"{HOST}:{service.port}")]


class NodesCaddy(Caddy):
    """The file for several nodes, in front of a list of them."""
    file = "Caddyfile.nodes"

    def upstreams(self, nodes):
        return [(r"10\.0\.0\.11:8080 10\.0\.0\.12:8080",
                 " ".join(f"{HOST}:{node.port}" for node in nodes))]


def setUpModule():
    missing = [tool for tool in ("nginx", "caddy", "openssl") if not shutil.which(tool)]
    if missing:
        raise RuntimeError(f"reverse proxy test: needs nginx, caddy and openssl, and "
                           f"{', '.join(missing)} is not installed (make deps installs it); "
                           "this test does not skip")


class ProxyTests:
    """What a user behind each proxy notices. Subclasses name the proxy."""

    proxy_type = None

    @classmethod
    def setUpClass(cls):
        cls.service = NotesService()
        try:
            cls.proxy = cls.proxy_type(cls.service)
        except BaseException:
            cls.service.stop()
            raise

    @classmethod
    def tearDownClass(cls):
        cls.proxy.stop()
        # A crash, or a sanitizer's report, shows as a non-zero status.
        assert cls.service.stop() == 0, "ferrybox-notes did not stop cleanly"

    def login(self, source=HOST, password=PASSWORD, forwarded=None):
        headers = {"X-Forwarded-For": forwarded} if forwarded else {}
        return self.proxy.request("POST", "/api/login", login_body(password), headers, source)

    def token(self):
        answer = self.login()
        self.assertEqual(answer.status, 200, answer.body)
        return answer.body.decode()

    def api_path(self, name, token, **params):
        params = {"auth": token, "email": EMAIL, **params}
        return f"/api/{name}?" + "&".join(f"{k}={quote(str(v), safe='')}"
                                          for k, v in params.items())

    def test_page_and_api_login(self):
        page = self.proxy.request("GET", "/")
        self.assertEqual(page.status, 200)
        self.assertTrue(page.headers["Content-Type"].startswith("text/html"))
        self.assertIn(b"<html", page.body)
        self.assertIn("default-src", page.headers["Content-Security-Policy"])
        token = self.token()
        self.assertEqual(self.proxy.request("GET", self.api_path("index", token)).status, 200)
        self.assertEqual(self.proxy.request("GET", self.api_path("index", "0" * 32)).status, 401)

    def test_logs_hold_no_token_or_address(self):
        token = self.token()
        self.assertEqual(self.proxy.request("GET", self.api_path("index", token)).status, 200)
        if isinstance(self.proxy, Nginx):
            wait_for(lambda: '"GET /api/index HTTP/1.1" 200' in self.proxy.access_log(),
                     "the request in the access log")
        logs = self.proxy.access_log() + self.proxy.output()
        for secret in (token, EMAIL, quote(EMAIL, safe="")):
            self.assertNotIn(secret, logs)

    def test_plain_http_goes_to_https(self):
        answer = self.proxy.plain_request("/?q=Ferrybox_Downloads")
        self.assertEqual((answer.status, answer.headers["Location"]), self.proxy.redirect)

    def test_note_bodies_up_to_the_service_limit(self):
        token = self.token()
        path = self.api_path("note", token)
        # Base64 grows text by a third: these are bodies of exactly the limit and just over.
        for text_bytes, status in ((MAX_BODY // 4 * 3, 200), (MAX_BODY // 4 * 3 + 3, 413)):
            with self.subTest(body_bytes=text_bytes // 3 * 4):
                answer = self.proxy.request("POST", path, base64.b64encode(b"x" * text_bytes))
                self.assertEqual(answer.status, status)

    def test_login_slow_down_counts_each_client_behind_the_proxy(self):
        # An attacker behind the proxy tries passwords, writing a new X-Forwarded-For each time
        # to pass for someone else: the service takes the address the proxy saw.
        for attempt in range(1, 6):
            answer = self.login(ATTACKER, "guess", forwarded=f"203.0.113.{attempt}")
            self.assertEqual(answer.status, 401, f"wrong password {attempt}")
        self.assertEqual(self.login(ATTACKER, "guess", forwarded="203.0.113.6").status, 429)
        self.assertEqual(self.login(ATTACKER, PASSWORD, forwarded="203.0.113.7").status, 429)
        # Someone who reaches the service's own port is not a trusted proxy: the address they
        # forward (here the owner's) is ignored, and only they are held up.
        for attempt in range(1, 6):
            answer = self.service.request("POST", "/api/login", login_body("guess"),
                                          {"X-Forwarded-For": OWNER}, STRANGER)
            self.assertEqual(answer.status, 401, f"wrong password {attempt}")
        self.assertEqual(self.service.request("POST", "/api/login", login_body("guess"),
                                              {"X-Forwarded-For": OWNER}, STRANGER).status, 429)
        # The owner, behind the same proxy but from another address, and someone on the
        # service's own port, sign in as ever.
        self.assertEqual(self.login(OWNER).status, 200)
        self.assertEqual(self.service.request("POST", "/api/login", login_body(PASSWORD),
                                              source=NEIGHBOUR).status, 200)

    def test_change_event_passes_the_proxy_at_once(self):
        token = self.token()
        stream, response = self.proxy.connection(timeout=10), None
        try:
            stream.request("GET", self.api_path("events", token))
            response = stream.getresponse()
            self.assertEqual(response.status, 200)
            self.assertTrue(response.headers["Content-Type"].startswith("text/event-stream"))

            def line_within(seconds, wanted):
                """Lines of the stream until one starting with WANTED, waiting at most SECONDS."""
                end, seen = time.monotonic() + seconds, []
                while True:
                    left = end - time.monotonic()
                    if left <= 0:
                        raise AssertionError(f"no {wanted!r} within {seconds} s, got {seen}")
                    stream.sock.settimeout(left)
                    try:
                        line = response.readline().decode()
                    except (TimeoutError, socket.timeout):
                        continue
                    if not line:
                        raise AssertionError(f"the stream ended before {wanted!r}: {seen}")
                    seen.append(line)
                    if line.startswith(wanted):
                        return line.rstrip("\n")

            line_within(10, ": ready")
            key = self.proxy.request("POST", self.api_path("note", token),
                                     base64.b64encode(b"Changed behind the proxy")).body.decode()
            # A proxy that buffered the stream would hold the event back for many seconds.
            self.assertEqual(line_within(2, "event:"), "event: change")
            self.assertEqual(line_within(2, "data:"), f'data: {{"key":"{key}"}}')
            line_within(HEARTBEAT + 2, ": heartbeat")
        finally:
            # The answer holds the socket open as long as it is open itself.
            if response:
                response.close()
            stream.close()

    def test_device_cookie_is_secure_behind_the_proxy(self):
        # The proxy tells the service the client came over HTTPS (whatever the client claims),
        # so the device cookie goes over HTTPS only, under the name with the __Host- prefix.
        # Anyone on the service's own (plain) port who says so is not believed.
        form = f"email={quote(EMAIL)}&password={quote(PASSWORD)}"
        headers = {"Content-Type": "application/x-www-form-urlencoded", "X-Ferrybox-Page": "1"}
        for via, server, source, claim, secure in (
                ("the proxy", self.proxy, HOST, "http", True),
                ("the service's port", self.service, NEIGHBOUR, "https", False)):
            with self.subTest(via=via):
                answer = server.request("POST", "/web/sign-in", form,
                                        {**headers, "X-Forwarded-Proto": claim}, source)
                self.assertEqual(answer.status, 200, answer.body)
                attributes = [a.strip() for a in answer.headers["Set-Cookie"].split(";")]
                self.assertIn("HttpOnly", attributes)
                self.assertEqual("Secure" in attributes, secure)
                self.assertEqual(attributes[0].split("=")[0],
                                 "__Host-ferrybox_device" if secure else "ferrybox_device")


class NginxTest(ProxyTests, unittest.TestCase):
    proxy_type = Nginx


class CaddyTest(ProxyTests, unittest.TestCase):
    proxy_type = Caddy

    def test_failed_request_is_logged_without_its_query(self):
        # Caddy logs a request it could not pass on, in both files: with its path only.
        class Gone:
            port = free_port()  # where no service listens
        path = f"/api/index?auth={'0' * 32}&email={quote(EMAIL, safe='')}"
        for proxy_type, service in ((Caddy, Gone()), (NodesCaddy, [Gone(), Gone()])):
            with self.subTest(file=proxy_type.file):
                proxy = proxy_type(service)
                try:
                    self.assertEqual(proxy.request("GET", path).status, 502)
                    wait_for(lambda: '"uri":"/api/index"' in proxy.output(),
                             "the failed request in Caddy's log")
                    for secret in ("0" * 32, EMAIL, quote(EMAIL, safe="")):
                        self.assertNotIn(secret, proxy.output())
                finally:
                    proxy.stop()




class SeveralNodesTest(unittest.TestCase):
    """Two nodes over one PostgreSQL database behind Caddy's file for several nodes: requests
    go to both, a change made through one reaches a stream held by the other, and losing a
    node costs no request."""

    @classmethod
    def setUpClass(cls):
        cls.postgres, cls.nodes, cls.proxy = PrivatePostgres(), [], None
        try:
            database = cls.postgres.new_database()
            cls.nodes = [NotesService(database), NotesService(database)]
            cls.proxy = NodesCaddy(cls.nodes)
        except BaseException:
            cls.tearDownClass()
            raise

    @classmethod
    def tearDownClass(cls):
        if cls.proxy:
            cls.proxy.stop()
        for node in cls.nodes:
            node.stop()
        cls.postgres.stop()

    def test_both_nodes_serve_and_one_may_go(self):
        answer = self.proxy.request("POST", "/api/login", login_body(PASSWORD))
        self.assertEqual(answer.status, 200, answer.body)
        auth = f"auth={answer.body.decode()}&email={quote(EMAIL, safe='')}"
        stream = self.proxy.connection(timeout=10)
        stream.request("GET", f"/api/events?{auth}")
        events = stream.getresponse()
        self.assertEqual(events.status, 200)
        self.assertEqual(events.readline(), b"retry: 2000\n")
        saved = []
        for i in range(8):
            answer = self.proxy.request("POST", f"/api/note?{auth}",
                                        base64.b64encode(f"note {i}".encode()))
            self.assertEqual(answer.status, 200, answer.body)
            saved.append(answer.body.decode())
        # Round robin: each node took some of them, and the stream, held by one node, heard
        # of every one.
        for node in self.nodes:
            self.assertIn("POST /api/note 200", node.output())
        heard = set()
        stream.sock.settimeout(5)
        while len(heard) < len(saved):
            line = events.readline().decode()
            self.assertTrue(line, f"the stream ended after {heard}")
            if line.startswith("data: "):
                heard.add(line[len('data: {"key":"'):-len('"}\n')])
        self.assertEqual(heard, set(saved))
        events.close()
        stream.close()

        self.nodes[0].process.kill()
        self.nodes[0].process.wait()
        for i in range(8):
            answer = self.proxy.request("POST", f"/api/note?{auth}",
                                        base64.b64encode(f"after {i}".encode()))
            self.assertEqual(answer.status, 200, self.proxy.output())
            saved.append(answer.body.decode())
        for key in saved:
            self.assertEqual(self.proxy.request("GET", f"/api/note?{auth}&key={key}").status, 200)


if __name__ == "__main__":
    unittest.main(verbosity=2)
