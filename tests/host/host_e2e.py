#!/usr/bin/python3
"""qs-host end to end: a copy of qs-host and the module in a fresh folder,
driven over real loopback sockets with the standard library's HTTP client, raw
sockets for what no well-behaved client sends, and python3-websocket.

    host_e2e.py QS_HOST MODULE [TestClass ...]
"""
import functools
import html
import http.client
import http.server
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

import websocket

QS_HOST = MODULE = None
VERSION_INFO = '{"id":"%s","cmdId":"%s","method":"VersionInfo"}'


class Host:
    """qs-host started in a folder of its own (its work folder), with an
    optional configuration file; stops with SIGTERM and must exit 0."""

    def __init__(self, args=(), configuration=None):
        self.folder = tempfile.mkdtemp(prefix="qs_host_e2e_")
        for source, name in ((QS_HOST, "qs-host"), (MODULE, "libFVASManager.so")):
            shutil.copy(source, os.path.join(self.folder, name))
        if configuration is not None:
            with open(os.path.join(self.folder, "QSConfiguration.ini"), "w") as out:
                out.write(configuration)
        env = dict(os.environ)
        # ThreadSanitizer's runtime of this toolchain mis-sizes the thread-local
        # blocks of a dlopen()ed library; without this step it can only report
        # too much, never miss a race of the host.
        env["TSAN_OPTIONS"] = env.get("TSAN_OPTIONS", "") + ":intercept_tls_get_addr=0"
        # qs-host refuses root unless told; test machines often run as root.
        root = ["--allow-root"] if os.geteuid() == 0 else []
        self.process = subprocess.Popen([os.path.join(self.folder, "qs-host"), "--port", "0", *root, *args],
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, env=env)
        self.lines = []
        self.port = None
        ready = threading.Event()

        def collect():
            for line in self.process.stdout:
                self.lines.append(line)
                if line.startswith("listening on http://127.0.0.1:"):
                    self.port = int(line.rstrip().rsplit(":", 1)[1].rstrip("/"))
                    ready.set()
            ready.set()

        self.reader = threading.Thread(target=collect, daemon=True)
        self.reader.start()
        if not ready.wait(60) or self.port is None:
            self.stop(check=False)
            raise RuntimeError("qs-host did not start:\n" + self.output())

    def output(self):
        return "".join(self.lines)

    def stop(self, check=True):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        try:
            code = self.process.wait(60)
        except subprocess.TimeoutExpired:
            self.process.kill()
            code = self.process.wait()
        self.reader.join(10)
        shutil.rmtree(self.folder, ignore_errors=True)
        if check and code != 0:
            raise AssertionError("qs-host exited with %s:\n%s" % (code, self.output()))

    def request(self, method, path, body=None, headers=None, host=None):
        """One request on a fresh connection: (status, headers, body)."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=20)
        try:
            connection.putrequest(method, path, skip_host=True, skip_accept_encoding=True)
            connection.putheader("Host", host if host is not None else "127.0.0.1:%d" % self.port)
            for name, value in (headers or {}).items():
                connection.putheader(name, value)
            data = body.encode() if isinstance(body, str) else body
            if data is not None:
                connection.putheader("Content-Length", str(len(data)))
            connection.endheaders(data)
            response = connection.getresponse()
            return response.status, {k.lower(): v for k, v in response.getheaders()}, response.read()
        finally:
            connection.close()

    def raw(self, data, timeout=10):
        """Sends bytes as they are and returns what comes back until the host
        closes the connection."""
        with socket.create_connection(("127.0.0.1", self.port), timeout=timeout) as sock:
            sock.sendall(data)
            received = b""
            while True:
                piece = sock.recv(65536)
                if not piece:
                    return received
                received += piece

    def websocket(self, path="/kxp/", host=None, origin=None):
        return websocket.create_connection("ws://127.0.0.1:%d%s" % (self.port, path), timeout=20,
                                           host=host or "127.0.0.1:%d" % self.port, header=["User-Agent: e2e"],
                                           origin=origin, suppress_origin=origin is None)


def status_of(reply):
    return int(reply.split(b" ", 2)[1]) if reply.startswith(b"HTTP/1.") else None


class RequestPolicy(unittest.TestCase):
    """Host names and origins, over HTTP and WebSocket, with the module's
    CORS-all flag on (its default) and off."""

    @classmethod
    def setUpClass(cls):
        extra = ["--allow-host", "proxy.test", "--allow-origin", "https://app.example"]
        cls.on = Host(extra)
        cls.off = Host(extra, "[QS]\nEnableCORSAll=FALSE\n")

    @classmethod
    def tearDownClass(cls):
        cls.on.stop()
        cls.off.stop()

    def test_host_names(self):
        rows = [  # Host header (PORT: the host's port) -> status
            ("127.0.0.1:PORT", 200), ("127.0.0.1", 200), ("localhost:PORT", 200), ("LocalHost", 200),
            ("[::1]:PORT", 200), ("proxy.test", 200), ("evil.test", 403), ("evil.test:PORT", 403),
            ("127.0.0.1.evil.test", 403), ("192.168.1.10:PORT", 403), ("localhost.:PORT", 403),
            ("127.0.0.1:x", 400), ("", 400),
        ]
        for host in (self.on, self.off):
            for name, expected in rows:
                header = name.replace("PORT", str(host.port))
                for method, path, body in (("POST", "/kxp/", VERSION_INFO % ("1", "h")), ("GET", "/", None),
                                           ("GET", "/GetEncryptedImageMap?GUID=none", None)):
                    with self.subTest(host=header, path=path):
                        status, _, _ = host.request(method, path, body, host=header)
                        self.assertEqual(expected if expected != 200 or path != "/GetEncryptedImageMap?GUID=none"
                                         else 404, status)
                if header:
                    with self.subTest(host=header, websocket=True):
                        self.assertEqual(expected if expected != 200 else 101, self.upgrade(host, header, None))
            # HTTP/1.1 requires a Host; HTTP/1.0 does not.
            self.assertEqual(400, status_of(host.raw(b"GET / HTTP/1.1\r\n\r\n")))
            self.assertEqual(200, status_of(host.raw(b"GET / HTTP/1.0\r\n\r\n")))

    def test_origins(self):
        rows = [  # Origin (None: no header) -> (flag on, flag off): status and Access-Control-Allow-Origin
            (None, (200, "*"), (200, None)),
            ("https://evil.test", (200, "*"), (403, None)),
            ("null", (200, "*"), (403, None)),
            ("http://127.0.0.1.evil.test", (200, "*"), (403, None)),
            ("http://localhost:5173", (200, "*"), (200, "http://localhost:5173")),
            ("https://127.0.0.1", (200, "*"), (200, "https://127.0.0.1")),
            ("http://[::1]:8080", (200, "*"), (200, "http://[::1]:8080")),
            ("https://app.example", (200, "*"), (200, "https://app.example")),
            ("https://app.example:444", (200, "*"), (403, None)),
        ]
        for origin, on, off in rows:
            for host, (expected, allow) in ((self.on, on), (self.off, off)):
                headers = {"Origin": origin, "User-Agent": "e2e"} if origin else {"User-Agent": "e2e"}
                with self.subTest(origin=origin, cors_all=host is self.on):
                    status, reply, body = host.request("POST", "/kxp/", VERSION_INFO % ("1", "o"), headers)
                    self.assertEqual(expected, status)
                    self.assertEqual(allow, reply.get("access-control-allow-origin"))
                    self.assertEqual("Origin" if allow not in (None, "*") else None, reply.get("vary"))
                    if status == 200:
                        self.assertIn(b'"cmdId" : "o"', body)
                    # A refused page cannot reach the module: a record it tries
                    # to store is not there afterwards.
                    guid = "probe%d" % abs(hash((origin, expected)))
                    host.request("POST", "/SetEncryptedImageMap?GUID=" + guid, "x", headers)
                    stored, _, _ = host.request("GET", "/GetEncryptedImageMap?GUID=" + guid)
                    self.assertEqual(404 if expected == 403 else 200, stored)
                    self.assertEqual(403 if expected == 403 else 101,
                                     self.upgrade(host, "127.0.0.1:%d" % host.port, origin))

    def test_preflight(self):
        ask = {"Access-Control-Request-Method": "POST", "Access-Control-Request-Headers": "content-type",
               "Access-Control-Request-Private-Network": "true"}
        for host, origin, expected, allow in ((self.on, "https://evil.test", 204, "*"),
                                              (self.off, "https://evil.test", 403, None),
                                              (self.off, "http://localhost:3000", 204, "http://localhost:3000")):
            with self.subTest(origin=origin, cors_all=host is self.on):
                status, reply, _ = host.request("OPTIONS", "/kxp/", None, dict(ask, Origin=origin))
                self.assertEqual(expected, status)
                self.assertEqual(allow, reply.get("access-control-allow-origin"))
                approved = expected == 204
                self.assertEqual("true" if approved else None, reply.get("access-control-allow-private-network"))
                self.assertEqual("GET, POST, OPTIONS" if approved else None,
                                 reply.get("access-control-allow-methods"))
                self.assertEqual("content-type" if approved else None, reply.get("access-control-allow-headers"))

    @staticmethod
    def upgrade(host, host_header, origin):
        try:
            ws = host.websocket(host=host_header, origin=origin)
        except websocket.WebSocketBadStatusException as refused:
            return refused.status_code
        ws.send(VERSION_INFO % ("w", "w"))
        answered = '"cmdId" : "w"' in ws.recv()
        ws.close()
        return 101 if answered else -1


class StrictHttp(unittest.TestCase):
    """What no well-behaved client sends is answered, not dropped."""

    @classmethod
    def setUpClass(cls):
        cls.host = Host()

    @classmethod
    def tearDownClass(cls):
        cls.host.stop()

    def test_malformed_requests(self):
        head = b"Host: 127.0.0.1\r\n"
        rows = [  # raw request -> status, text the answer must hold
            (b"GARBAGE\r\n\r\n", 400, b""),
            (b"GET / HTTP/1.1\r\n" + head + b"No colon here\r\n\r\n", 400, b""),
            (b"GET / HTTP/9.9\r\n" + head + b"\r\n", 400, b""),
            (b"GET / HTTP/1.1\r\n" + head + b"X-Big: " + b"a" * (17 * 1024) + b"\r\n\r\n", 431, b""),
            (b"POST /kxp/ HTTP/1.1\r\n" + head + b"Content-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n", 400, b""),
            (b"POST /kxp/ HTTP/1.1\r\n" + head + b"Transfer-Encoding: gzip\r\n\r\n", 400, b""),
            (b"POST /kxp/ HTTP/1.1\r\n" + head + b"Content-Length: 1, 2\r\n\r\n", 400, b""),
            (b"PUT /kxp/ HTTP/1.1\r\n" + head + b"Content-Length: 0\r\n\r\n", 405, b"Allow: GET, HEAD, POST, OPTIONS"),
            (b"DELETE / HTTP/1.1\r\n" + head + b"\r\n", 405, b"Allow: GET, HEAD, POST, OPTIONS"),
            # Over the route's limit: refused from the head alone, the body
            # never sent.
            (b"POST /kxp/ HTTP/1.1\r\n" + head + b"Content-Length: 1048577\r\n\r\n", 413, b"at most 1048576 bytes"),
            (b"POST /SetEncryptedImageMap?GUID=a HTTP/1.1\r\n" + head + b"Content-Length: 2053\r\n\r\n", 413,
             b"an image record holds at most 2052 bytes"),
            (b"POST /LoadZipFromBytes HTTP/1.1\r\n" + head + b"Content-Length: 67108865\r\n\r\n", 413, b""),
            (b"GET / HTTP/1.1\r\n" + head + b"Content-Length: 1\r\n\r\nx", 413, b""),
            (b"POST /SetEncryptedImageMap?GUID=c HTTP/1.1\r\n" + head +
             b"Transfer-Encoding: chunked\r\n\r\n900\r\n" + b"x" * 0x900 + b"\r\n0\r\n\r\n", 413, b""),
        ]
        for data, expected, text in rows:
            with self.subTest(request=data[:60]):
                reply = self.host.raw(data)
                self.assertEqual(expected, status_of(reply), reply[:200])
                self.assertIn(text, reply)
                self.assertIn(b"Connection: close", reply)
        # The host still serves.
        self.assertEqual(200, self.host.request("GET", "/")[0])

    def test_websocket_message_over_the_limit_closes_with_1009(self):
        ws = self.host.websocket()
        try:
            ws.send("x" * (1024 * 1024 + 1))
        except OSError:
            pass  # the host may close before the whole message is sent; its close frame came first
        frame = ws.recv_frame()
        self.assertEqual(websocket.ABNF.OPCODE_CLOSE, frame.opcode)
        self.assertEqual(1009, int.from_bytes(frame.data[:2], "big"))
        ws.shutdown()


class Limits(unittest.TestCase):
    """Time and connection limits, with short time-outs."""

    def test_slow_clients_are_cut_off_and_do_not_hold_up_others(self):
        host = Host(["--head-timeout", "3", "--idle-timeout", "4"])
        try:
            slow = [socket.create_connection(("127.0.0.1", host.port)) for _ in range(200)]
            stop = threading.Event()

            def trickle():
                request = b"POST /kxp/ HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Slow: " + b"a" * 1000
                for at in range(len(request)):
                    for sock in slow:
                        try:
                            sock.send(request[at:at + 1])
                        except OSError:
                            pass
                    if stop.wait(0.2):
                        return

            trickler = threading.Thread(target=trickle)
            trickler.start()
            time.sleep(0.5)
            started = time.monotonic()
            status, _, body = host.request("POST", "/kxp/", VERSION_INFO % ("9", "fast"), {"User-Agent": "e2e"})
            self.assertEqual(200, status)
            self.assertIn(b'"cmdId" : "fast"', body)
            self.assertLess(time.monotonic() - started, 1.0)
            # The head limit ends every trickling connection.
            for sock in slow:
                sock.settimeout(10)
                self.assertEqual(b"", sock.recv(100))
            stop.set()
            trickler.join()
            for sock in slow:
                sock.close()
            # An idle keep-alive connection is closed after the idle limit.
            with socket.create_connection(("127.0.0.1", host.port), timeout=10) as sock:
                sock.sendall(b"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n")
                received = b""
                while b"</html>" not in received:
                    received += sock.recv(65536)
                waited = time.monotonic()
                self.assertEqual(b"", sock.recv(100))
                self.assertGreater(time.monotonic() - waited, 3.0)
        finally:
            host.stop()

    def test_at_the_cap_the_longest_idle_connection_makes_room(self):
        host = Host(["--max-connections", "20"])
        try:
            idle = [socket.create_connection(("127.0.0.1", host.port), timeout=10) for _ in range(20)]
            time.sleep(0.2)
            for _ in range(3):
                status, _, _ = host.request("POST", "/kxp/", VERSION_INFO % ("1", "cap"), {"User-Agent": "e2e"})
                self.assertEqual(200, status)
            # The oldest idle connections were closed to make room.
            self.assertEqual(b"", idle[0].recv(100))
            for sock in idle:
                sock.close()
        finally:
            host.stop()


class ConcurrentClients(unittest.TestCase):
    """Many HTTP and WebSocket clients at once, mixed commands: every answer
    comes back to its own request."""

    def test_each_answer_reaches_its_request(self):
        host = Host(["--threads", "4"])
        failures = []

        def commands(client, count):
            for n in range(count):
                tag = "%s-%d" % (client, n)
                kind = n % 4
                if kind == 0:
                    yield tag, VERSION_INFO % (tag, tag), b'"14, 3, 3, 1212"'
                elif kind == 1:
                    yield tag, '{"id":"%s","cmdId":"%s","method":"QSVersion"}' % (tag, tag), b'"Quintaris Service"'
                elif kind == 2:
                    yield tag, '{"id":"%s","cmdId":"%s","method":"Nope"}' % (tag, tag), b'"exception" : -2200'
                else:
                    yield tag, '{"id":"%s","cmdId":"%s","method":"GetPorts","parameter":["0"]}' % (tag, tag), \
                        b'"exception" : -2408'

        def check(tag, answer, expected):
            text = answer.encode() if isinstance(answer, str) else answer
            if ('"id" : "%s"' % tag).encode() not in text or ('"cmdId" : "%s"' % tag).encode() not in text \
                    or expected not in text:
                failures.append((tag, text[:200]))

        def http_client(index):
            connection = http.client.HTTPConnection("127.0.0.1", host.port, timeout=30)
            for tag, command, expected in commands("h%d" % index, 40):
                connection.request("POST", "/kxp/", command, {"User-Agent": "e2e"})
                check(tag, connection.getresponse().read(), expected)
                guid = "g" + tag
                connection.request("POST", "/SetEncryptedImageMap?GUID=" + guid, tag, {"User-Agent": "e2e"})
                connection.getresponse().read()
                connection.request("GET", "/GetEncryptedImageMap?GUID=" + guid)
                record = connection.getresponse().read()
                if not record.startswith(tag.encode()):
                    failures.append((guid, record[:20]))
            connection.close()

        def ws_client(index):
            ws = host.websocket()
            for tag, command, expected in commands("w%d" % index, 40):
                ws.send(command)
                check(tag, ws.recv(), expected)
            ws.close()

        try:
            threads = [threading.Thread(target=http_client, args=(i,)) for i in range(6)]
            threads += [threading.Thread(target=ws_client, args=(i,)) for i in range(6)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
            self.assertEqual([], failures)
        finally:
            host.stop()


ATTACK_PAGE = """<!DOCTYPE html><html><body><div id="result">running</div><script>
var port = location.search.slice(1), results = {}, pending = 4;
function done(name, value) {
  results[name] = value;
  if (--pending === 0) document.getElementById("result").textContent = JSON.stringify(results);
}
function post(name, url, body) {
  fetch(url, {method: "POST", body: body}).then(function (r) { return r.text(); })
    .then(function (t) { done(name, "answered " + t.length); }, function () { done(name, "refused"); });
}
post("loopback", "http://127.0.0.1:" + port + "/kxp/", '{"id":"1","method":"VersionInfo"}');
post("rebound", "http://evil.test:" + port + "/kxp/", '{"id":"1","method":"VersionInfo"}');
fetch("http://127.0.0.1:" + port + "/SetEncryptedImageMap?GUID=evil", {method: "POST", mode: "no-cors", body: "x"})
  .then(function () { done("store", "sent"); }, function () { done("store", "failed"); });
var ws = new WebSocket("ws://127.0.0.1:" + port + "/kxp/"), opened = false;
ws.onopen = function () { opened = true; ws.send('{"id":"1","method":"VersionInfo"}'); };
ws.onmessage = function (m) { done("websocket", "answered"); ws.close(); };
ws.onclose = function () { if (!opened) done("websocket", "refused"); };
</script></body></html>"""

ALLOWED_PAGE = """<!DOCTYPE html><html><body><div id="result">running</div><script>
var port = location.search.slice(1), results = {}, pending = 2;
function done(name, value) {
  results[name] = value;
  if (--pending === 0) document.getElementById("result").textContent = JSON.stringify(results);
}
fetch("http://127.0.0.1:" + port + "/kxp/", {method: "POST", body: '{"id":"1","method":"VersionInfo"}'})
  .then(function (r) { return r.json(); })
  .then(function (a) { done("fetch", a.result[0]); }, function (e) { done("fetch", "refused"); });
var ws = new WebSocket("ws://127.0.0.1:" + port + "/kxp/");
ws.onopen = function () { ws.send('{"id":"1","cmdId":"b","method":"QSVersion"}'); };
ws.onmessage = function (m) { done("websocket", JSON.parse(m.data).result[1]); ws.close(); };
ws.onerror = function () { done("websocket", "refused"); };
</script></body></html>"""


class Browser(unittest.TestCase):
    """Headless Chromium: a page on a foreign name mapped to 127.0.0.1 is
    refused, a page on an allowed origin and the status page work."""

    @classmethod
    def setUpClass(cls):
        cls.pages = tempfile.mkdtemp(prefix="qs_pages_")
        for name, text in (("attack.html", ATTACK_PAGE), ("allowed.html", ALLOWED_PAGE)):
            with open(os.path.join(cls.pages, name), "w") as out:
                out.write(text)
        class Quiet(http.server.SimpleHTTPRequestHandler):
            def log_message(self, *args):
                pass

        handler = functools.partial(Quiet, directory=cls.pages)
        cls.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
        threading.Thread(target=cls.server.serve_forever, daemon=True).start()
        cls.page_port = cls.server.server_address[1]
        cls.host = Host(["--allow-origin", "http://app.test:%d" % cls.page_port], "[QS]\nEnableCORSAll=FALSE\n")

    @classmethod
    def tearDownClass(cls):
        cls.host.stop()
        cls.server.shutdown()
        shutil.rmtree(cls.pages, ignore_errors=True)

    def dom(self, url):
        profile = tempfile.mkdtemp(prefix="qs_chromium_")
        try:
            run = subprocess.run(
                ["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                 "--disable-background-networking", "--disable-component-update", "--disable-sync",
                 "--user-data-dir=" + profile, "--host-resolver-rules=MAP evil.test 127.0.0.1, MAP app.test 127.0.0.1",
                 "--virtual-time-budget=10000", "--dump-dom", url],
                capture_output=True, text=True, timeout=120)
            return run.stdout
        finally:
            shutil.rmtree(profile, ignore_errors=True)

    def result(self, url):
        dom = self.dom(url)
        start = dom.find('<div id="result">')
        self.assertNotEqual(-1, start, dom[-2000:])
        return json.loads(html.unescape(dom[start + len('<div id="result">'):dom.find("</div>", start)]))

    def test_foreign_page_is_refused(self):
        port = self.host.port
        self.assertEqual({"loopback": "refused", "rebound": "refused", "store": "sent", "websocket": "refused"},
                         self.result("http://evil.test:%d/attack.html?%d" % (self.page_port, port)))
        self.assertEqual(404, self.host.request("GET", "/GetEncryptedImageMap?GUID=evil")[0],
                         "the refused page's record never reached the module")

    def test_allowed_origin_and_status_page_work(self):
        port = self.host.port
        self.assertEqual({"fetch": "14, 3, 3, 1212", "websocket": "Quintaris Service"},
                         self.result("http://app.test:%d/allowed.html?%d" % (self.page_port, port)))
        dom = self.dom("http://127.0.0.1:%d/" % port)
        self.assertIn('data-state="done"', dom)
        self.assertIn('<td id="module-version" class="">14, 3, 3, 1212</td>', dom)
        self.assertIn('<td id="policy-cors">off</td>', dom)
        self.assertIn("http://app.test:%d" % self.page_port, dom)


if __name__ == "__main__":
    QS_HOST, MODULE = sys.argv[1], sys.argv[2]
    unittest.main(argv=[sys.argv[0], "-v", *sys.argv[3:]])
