#!/usr/bin/python3
"""qs-host end to end in fresh folders, over loopback: http.client, raw sockets, python3-websocket.
    host_e2e.py QS_HOST MODULE STANDIN_MODULE PARTIAL_STANDIN_MODULE [TestClass ...]"""
import atexit, concurrent.futures, contextlib, fcntl, glob, http.client, os, re, shutil, signal, socket, ssl
import subprocess, sys, tempfile, threading, time, unittest

import websocket

QS_HOST = MODULE = STANDIN = PARTIAL = SANITIZED = None
VERSION_INFO = '{"id":"%s","cmdId":"%s","method":"VersionInfo"}'
# kept: qs-host refuses root unless told; this toolchain's TSan mis-sizes a dlopen()ed library's TLS unless told.
ROOT = ["--allow-root"] if os.geteuid() == 0 else []
TSAN = {"TSAN_OPTIONS": os.environ.get("TSAN_OPTIONS", "") + ":intercept_tls_get_addr=0"}


class Host:
    """qs-host and the module (or a stand-in "standin.so") in a folder; stop() expects exit status 0."""

    def __init__(self, args=(), configuration=None, module=None, env=None, port_arg=("--port", "0"), files=None,
                 handed=None, folder=None, wrapper=()):
        self.folder, self.process = folder or tempfile.mkdtemp(prefix="qs_host_e2e_"), None
        atexit.register(self.discard)
        self.module = os.path.join(self.folder, "standin.so" if module else "libFVASManager.so")
        shutil.copy(QS_HOST, os.path.join(self.folder, "qs-host"))
        shutil.copy(module or MODULE, self.module)
        for name, text in dict(files or {}, **({"QSConfiguration.ini": configuration} if configuration else {})).items():
            os.makedirs(os.path.dirname(os.path.join(self.folder, name)), exist_ok=True)
            open(os.path.join(self.folder, name), "w").write(text)
        extra = ["--module", self.module] if module else []
        command, fds = [*wrapper, os.path.join(self.folder, "qs-host"), *port_arg, *ROOT, *extra, *args], []
        if handed:  # (descriptors, LISTEN_FDNAMES, LISTEN_PID): placed from 3 on, as the service manager does
            fds = [fcntl.fcntl(getattr(fd, "fileno", lambda: fd)(), fcntl.F_DUPFD_CLOEXEC, 10) for fd in handed[0]]
            moves = " ".join("%d<&%d %d<&-" % (3 + i, fd, fd) for i, fd in enumerate(fds)) or "3<&-"
            command = ["bash", "-c", 'exec %s; LISTEN_PID=%s LISTEN_FDS=%d LISTEN_FDNAMES=%s exec "$@"'
                       % (moves, handed[2], max(1, len(fds)), handed[1]), "bash", *command]
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                        pass_fds=fds, env=dict(os.environ, **(env or {}), **TSAN))
        for fd in fds:
            os.close(fd)
        self.lines, self.port, self.tls_port = [], None, None
        ready = threading.Event()

        def collect():
            for line in self.process.stdout:
                self.lines.append(line)
                if found := re.match(r"listening on (https?)://127.0.0.1:(\d+)/", line):
                    setattr(self, "tls_port" if found.group(1) == "https" else "port", int(found.group(2)))
                if line.startswith("qs-host: Ctrl-C"):
                    ready.set()
            ready.set()

        self.reader = threading.Thread(target=collect, daemon=True)
        self.reader.start()
        ready.wait(60)

    def wait(self):
        code, _ = self.process.wait(60), self.reader.join(10)
        return code

    def discard(self):  # at exit: a host that a failure or time-out left running is killed before its folder goes.
        if self.process is not None and self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        shutil.rmtree(self.folder, True)

    def log(self):
        return open(os.path.join(self.folder, "standin.log")).read()

    def output(self):
        return "".join(self.lines)

    def stop(self):
        self.process.send_signal(signal.SIGTERM)  # none once it has exited
        if (code := self.wait()) != 0:
            raise AssertionError("qs-host exited with %s:\n%s" % (code, self.output()))

    def request(self, method, path, body=None, headers=None, host=None, connection=None):
        c = connection or http.client.HTTPConnection("127.0.0.1", self.port, timeout=20)
        try:
            c.putrequest(method, path, skip_host=True, skip_accept_encoding=True)
            c.putheader("Host", host if host is not None else "127.0.0.1:%d" % self.port)
            data = body.encode() if isinstance(body, str) else body
            for name, value in dict(headers or {}, **({} if data is None else {"Content-Length": len(data)})).items():
                c.putheader(name, str(value))
            c.endheaders(data)
            response = c.getresponse()
            return response.status, {k.lower(): v for k, v in response.getheaders()}, response.read()
        finally:
            if connection is None:
                c.close()

    def command(self, cmd_id, headers=None, **options):  # VersionInfo on /kxp/
        return self.request("POST", "/kxp/", VERSION_INFO % ("1", cmd_id), headers or {"User-Agent": "e2e"}, **options)

    def raw(self, data):  # sends bytes as they are; what comes back until the host closes.
        with socket.create_connection(("127.0.0.1", self.port), timeout=10) as sock:
            sock.sendall(data)
            return b"".join(iter(lambda: sock.recv(65536), b""))

    def websocket(self, path="/kxp/", host=None, origin=None, agent="e2e"):
        return websocket.create_connection("ws://127.0.0.1:%d%s" % (self.port, path), timeout=20,
                                           host=host or "127.0.0.1:%d" % self.port,
                                           header=["User-Agent: " + agent] if agent else [],
                                           origin=origin, suppress_origin=origin is None)


def closed(sock):  # whether the peer closed (an end of stream, or a reset); closes `sock`
    with sock:
        sock.settimeout(10)
        try:
            return sock.recv(100) == b""
        except ConnectionResetError:
            return True


def status_of(reply):
    return int(reply.split(b" ", 2)[1]) if reply.startswith(b"HTTP/1.") else None


def close_of(frame):  # a close frame's opcode, code and reason
    return frame.opcode, int.from_bytes(frame.data[:2], "big"), frame.data[2:]


def work_folder(prefix):  # a fresh folder with qs-host and the module, removed at exit.
    folder = tempfile.mkdtemp(prefix=prefix)
    atexit.register(shutil.rmtree, folder, True)
    for name, source in (("qs-host", QS_HOST), ("libFVASManager.so", MODULE)):
        shutil.copy(source, os.path.join(folder, name))
    return folder


def run(folder, *args):  # qs-host of `folder` run to its end: exit status, standard output, standard error.
    done = subprocess.run([os.path.join(folder, "qs-host"), *ROOT, *args], capture_output=True, text=True,
                          env=dict(os.environ, **TSAN), timeout=60)
    return done.returncode, done.stdout, done.stderr


def started(test, *args, **options):  # a Host that `test` stops when it ends.
    host = Host(*args, **options)
    test.addCleanup(host.stop)
    return host


CHROME = "Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/120.0 Safari/537.36"
FIREFOX = "Mozilla/5.0 (X11; Linux x86_64; rv:128.0) Gecko/20100101 Firefox/128.0"


class Routes(unittest.TestCase):  # which route answers what (the module's tests pin its documents)

    def setUp(self):
        self.host = started(self, ["--threads", "4"])

    def test_http_routes(self):
        kept = http.client.HTTPConnection("127.0.0.1", self.host.port, timeout=20)
        ua, json, text = {"User-Agent": "e2e"}, "application/json", "text/plain; charset=utf-8"
        rows = [  # method, path, body, headers -> status, content type, text the body holds
            ("POST", "/kxp/", VERSION_INFO % ("7", "c1"), ua, 200, json, b'"cmdId" : "c1"'),
            # What follows a blank line is the module's body, not the command.
            ("POST", "/kxp/", '{"id":"1","method":"QSVersion"}\r\n\r\nDATA', ua, 200, json, b'"Quintaris Service"'),
            ("POST", "/kxp/", '{"id":"5","method":"VersionInfo"}', {}, 200, json, b'"exception" : -2205'),  # browser 0
            ("GET", "/", None, ua, 200, "text/html; charset=utf-8", b'data-alias="kxp"'),
            ("GET", "/kxp/", None, ua, 200, text, b"Invalid command"),
            # Image records are stored and read by the browser client's tests; a URL without GUID is the host's.
            ("POST", "/SetEncryptedImageMap?x=1", "abc", ua, 400, text, b"names no GUID"),
            ("POST", "/kxp/LoadZipFromBytes?type=2&qsver=1.2&x=1", b"PK\x03\x04\x00\x00", ua, 200, json,
             b'"result" : [ 2, "1.2", false ]'),
            ("POST", "/CheckUpdateFile?qsver=15&x=1", '{"id":"9","method":"CheckUpdateFile","parameter":[]}', ua, 200,
             json, b'"result" : [ "15", false ]')]
        for method, path, body, headers, status, kind, held in rows:
            got, reply, content = self.host.request(method, path, body, headers, connection=kept)
            self.assertEqual((status, kind, "qs-host", True),
                             (got, reply["content-type"], reply["server"], held in content), content[:200])
        page = self.host.request("GET", "/", connection=kept)[2]
        status, reply, content = self.host.request("HEAD", "/", connection=kept)
        self.assertEqual((200, str(len(page)), b""), (status, reply["content-length"], content))

    def test_websocket_routes(self):
        for path, agent, command, text in (  # each on a connection of its own
                ("/kxp/", "e2e", '{"id":"4","cmdId":"d","method":"GetPorts","parameter":["0"]}', '"exception" : -2408'),
                ("/elsewhere", "e2e", '{"id":"1","method":"QSVersion"}', "Invalid command"),
                ("/kxp/", None, '{"id":"1","method":"QSVersion"}', '"exception" : -2205')):
            with contextlib.closing(self.host.websocket(path, agent=agent)) as ws:
                ws.send(command)
                self.assertIn(text, ws.recv())


class Lifecycle(unittest.TestCase):  # tLS, the stop, one command without a server.

    def test_tls_beside_plain(self):
        pem = subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "1", "-subj",
                              "/CN=127.0.0.1", "-keyout", "/dev/stdout", "-out", "/dev/stdout"],
                             check=True, capture_output=True, text=True).stdout  # the key, then the certificate
        key, cert = pem.split("-----BEGIN CERTIFICATE-----")
        host = started(self, files={"cert/server.pem": "-----BEGIN CERTIFICATE-----" + cert, "cert/server_key.pem": key})
        self.assertNotIn(host.tls_port, (None, host.port), host.output())
        connection = http.client.HTTPSConnection("127.0.0.1", host.tls_port, timeout=20,
                                                 context=ssl._create_unverified_context())
        connection.request("POST", "/kxp/", VERSION_INFO % ("1", "s"), {"User-Agent": "e2e"})
        self.assertIn(b'"cmdId" : "s"', connection.getresponse().read())
        with contextlib.closing(websocket.create_connection("wss://127.0.0.1:%d/kxp/" % host.tls_port, timeout=20,
                                header=["User-Agent: e2e"], sslopt={"cert_reqs": ssl.CERT_NONE})) as wss:
            wss.send('{"id":"2","cmdId":"w","method":"QSVersion"}')
            self.assertIn('"cmdId" : "w"', wss.recv())

    def test_sigterm_closes_sockets_and_releases_the_module(self):
        host = Host()
        ws = host.websocket()
        idle = socket.create_connection(("127.0.0.1", host.port), timeout=10)
        host.process.send_signal(signal.SIGTERM)
        self.assertEqual((websocket.ABNF.OPCODE_CLOSE, 1001, b"the service stops"), close_of(ws.recv_frame()))
        self.assertEqual((0, True), (host.wait(), closed(idle)))
        self.assertIn("qs-host: stopping (signal 15)\nqs-host: stopped after signal 15; module released (DoAction 3)\n",
                      host.output())

    def test_call(self):
        folder, q = work_folder("qs_call_"), '{"id":"1","cmdId":"x","method":"QSVersion"}'
        open(os.path.join(folder, "QSConfiguration.ini"), "w").write("[QS]\nQSVersion=7,7,7,0707\n")
        for args, status, text in (  # arguments -> exit status, text the output holds
                (["call", q], 0, '[ "7,7,7,0707", "Quintaris Service" ],\n\t"cmdId" : "x"\n}\n'),
                (["call"], 2, "qs-host: call needs one JSON command\n"),
                (["--port", "70000", "--ports", "65536,1"], 2, "qs-host: --ports needs two ports: A,B\n"),
                # Options in any order; one that does not apply is refused.
                (["--url", "/kxp/", "--no-user-agent", "call", q], 0, '"exception" : -2205'),
                (["call", "--port", "1", q], 2, "--port does not apply to call\n"),
                (["--url", "/x"], 2, "--url does not apply to the server\n"),
                (["config", "--head-timeout", "5"], 2, "--head-timeout does not apply to config\n"),
                (["--port", "0", "anything"], 2, 'unknown word "anything"')):
            code, out, err = run(folder, *args)
            self.assertEqual((status, True), (code, text in (err if status else out)), err)


class StandIn(unittest.TestCase):  # a stand-in module: what reaches it, its answers, start-up, the stop

    def setUp(self):
        self.host = started(self, module=STANDIN)

    def test_the_module_is_told_what_the_request_carries(self):
        h = self.host
        kept = http.client.HTTPConnection("127.0.0.1", h.port, timeout=20)
        rows = [  # method, path, body, headers -> echo (each HTTP request is an answer destination of its own)
            ("POST", "/tst/x?y=1", "abc", {"Origin": "https://page.example", "User-Agent": CHROME},
             "connection=1|url=/tst/x?y=1|request=abc|body=-|browser=2|domain=https://page.example|socket=yes"),
            ("GET", "/other", None, {"Referer": "http://from.example/page", "User-Agent": FIREFOX},
             "connection=2|url=/other|request=|body=-|browser=3|domain=http://from.example/page|socket=yes"),
            ("GET", "/other", None, {}, "connection=3|url=/other|request=|body=-|browser=0|domain=|socket=yes"),
            # Uploads: the body goes as body too (the request text stops at its 0 byte).
            ("POST", "/a/LoadZipFromBytes?type=1", b"PK\0\1", {"User-Agent": "curl/8"},
             "connection=4|url=/a/LoadZipFromBytes?type=1|request=PK|body=504b0001|browser=1|domain=|socket=yes")]
        for method, path, body, headers, echo in rows:
            self.assertEqual(echo, h.request(method, path, body, headers, connection=kept)[2].decode())
        # A WebSocket keeps one index; text messages are commands, binary ones bodies without a command.
        with contextlib.closing(h.websocket("/tst/ws", origin="http://127.0.0.1:1", agent=CHROME)) as ws:
            for send, message, echo in ((ws.send, "hello", "hello|body=-"), (ws.send_binary, b"\x01\x02", "|body=0102")):
                send(message)
                self.assertEqual("connection=5|url=/tst/ws|request=%s|browser=2|domain=http://127.0.0.1:1|socket=yes"
                                 % echo, ws.recv())
        self.assertIn(b'data-alias="tst"', h.request("GET", "/")[2])
        self.assertIn("qs-host: module %s (alias \"tst\", standin_1)\n" % h.module, h.output())

    def test_answers_the_module_gives_or_does_not_give(self):
        h = self.host
        kept = http.client.HTTPConnection("127.0.0.1", h.port, timeout=20)
        for command, status, kind, body in (  # command -> status, content type, body
                ("throw", 400, "text/plain; charset=utf-8", b"the module raised: basic_string::substr\n"),
                ("data", 200, "application/octet-stream", b"with data\r\n\r\n\x00\x01\x02\xff"),
                ("twice", 200, "text/plain; charset=utf-8", b"first"),
                ("silent", 500, "text/plain; charset=utf-8", b"the module sent no answer\n"),
                ("later", 500, "text/plain; charset=utf-8", b"the module sent no answer\n"),
                # The late answer of the last request is not taken for this one's.
                ("after-late", 200, "text/plain; charset=utf-8", b"after-late")):
            got, reply, content = h.request("POST", "/tst/", command, {"User-Agent": "e2e"}, connection=kept)
            self.assertEqual((status, kind, body), (got, reply["content-type"], content), command)
        ws = h.websocket("/tst/")
        for command in ("data", "silent", "twice", "later", "after-late"):
            ws.send(command)
        received = [(frame.opcode, frame.data) for frame in (ws.recv_frame() for _ in range(6))]
        text, binary = websocket.ABNF.OPCODE_TEXT, websocket.ABNF.OPCODE_BINARY
        self.assertEqual([(text, b"with data"), (binary, b"\x00\x01\x02\xff"), (text, b"first"), (text, b"second"),
                          (text, b"later"), (text, b"after-late")], received)
        ws.send("throw")
        self.assertEqual((websocket.ABNF.OPCODE_CLOSE, 1011, b"the module raised: basic_string::substr"),
                         close_of(ws.recv_frame()))
        self.assertEqual(200, h.request("POST", "/tst/", "fine", connection=kept)[0], "serving goes on")

    def test_stop_waits_for_the_command_in_flight_then_releases_the_module(self):
        h = self.host
        connection = http.client.HTTPConnection("127.0.0.1", h.port, timeout=20)
        connection.request("POST", "/tst/", "slow", {"User-Agent": "e2e"})
        deadline = time.monotonic() + 5
        while "DistributeCommand begin slow" not in h.log() and time.monotonic() < deadline:
            time.sleep(0.01)
        h.process.send_signal(signal.SIGINT)
        response = connection.getresponse()
        self.assertEqual((200, b"slow", "close"), (response.status, response.read(), response.getheader("connection")))
        self.assertEqual(0, h.wait())
        self.assertEqual("DoAction 0\nDistributeCommand begin slow\nDistributeCommand end slow\nCloseWebSocket\n"
                         "DoAction 3\n", h.log())
        self.assertIn("qs-host: stopping (signal 2)\n", h.output())

    def test_start_up(self):
        self.host.stop()
        taken, probe = tcp(), tcp(listening=False)
        first, second = taken.getsockname()[1], probe.getsockname()[1]
        probe.close()
        host = Host(module=STANDIN, env={"QS_STANDIN_PORTS": "%d,%d" % (first, second)}, port_arg=())
        self.assertEqual(second, host.port, "the module's pair: the second when the first is taken")
        host.stop()
        # --ports replaces the pair; when both are taken qs-host gives up, and still releases the module.
        host = Host(["--ports", "%d,%d" % (first, first)], module=STANDIN, port_arg=())
        self.assertEqual(1, host.wait())
        self.assertIn("qs-host: cannot listen on 127.0.0.1 (port %d: Address already in use; port %d: Address "
                      "already in use)\n" % (first, first), host.output())
        self.assertEqual("DoAction 0\nDoAction 3\n", host.log())
        taken.close()
        for module, args, text in ((None, ["--module", "/nonexistent/libnothing.so"],
                                    "qs-host: cannot load the module /nonexistent/libnothing.so: "),
                                   (PARTIAL, [], " lacks the exports DistributeCommand, GetImage\n")):
            host = Host(args, module=module)
            self.assertEqual((1, True), (host.wait(), text in host.output()), host.output())
        # On the journal's stream (JOURNAL_STREAM names its device:inode) a line starts with its priority.
        with tempfile.TemporaryFile("w+") as err:
            st, said = os.fstat(err.fileno()), []
            for stream in ("%d:%d" % (st.st_dev, st.st_ino), "%d:%d" % (st.st_dev, st.st_ino + 1),
                           "%d:%d" % (st.st_dev + 1, st.st_ino), "journal"):
                err.seek(0), err.truncate()  # the children write at the offset they share with `err`
                subprocess.run([QS_HOST, *ROOT, "--module", "/none.so"], stderr=err, env=dict(os.environ, **TSAN,
                               JOURNAL_STREAM=stream), timeout=60)
                said.append(err.seek(0) or err.read()[:29])
        self.assertEqual(["<3>qs-host: cannot load the m"] + ["qs-host: cannot load the modu"] * 3, said)

    def test_socket_activation(self):
        self.host.stop()
        why, pipe = "qs-host: the socket handed over as descriptor 3 ", os.pipe()
        for handed, names, text in (  # descriptors, names -> the last line qs-host writes before it gives up
                ([], "", why + "is not open\n"), ([pipe[0]], "http", why + '("http") is not a socket\n'),
                ([tcp(listening=False)], "", why + "is not listening\n"),
                ([tcp("0.0.0.0")], "http", why + '("http") is not bound to a loopback address\n'),
                ([tcp(kind=socket.SOCK_DGRAM)], "http", why + '("http") is not a stream socket\n'),
                ([tcp()], "ftp", why + '("ftp") has a name other than "http" or "https"\n'),
                ([tcp()], "https", 'qs-host: no plain ("http") socket was handed over\n')):
            host = Host(module=STANDIN, handed=(handed, names, "$$"))
            self.assertEqual((1, text), (host.wait(), host.lines[-1] if host.lines else ""), names)
        # Listeners handed to this process: served (TLS with a certificate), not inherited; to another: not taken.
        plain, tls = tcp(), tcp()
        host = Host(module=STANDIN, handed=([plain, tls], "http:https", "$$"))
        self.assertEqual(plain.getsockname()[1], host.port)
        self.assertIn("qs-host: the socket handed over for TLS (port %d) is not served: there is no certificate\n"
                      % tls.getsockname()[1], host.output())
        flags = proc_values(host, "fdinfo/[34]", r"flags:\s+(\d+)", 8)
        self.assertEqual([os.O_CLOEXEC] * 2, [value & os.O_CLOEXEC for value in flags])
        host.stop()
        host = Host(module=STANDIN, handed=([plain], "http", "1"))
        self.assertNotIn(host.port, (None, plain.getsockname()[1]))
        host.stop()


def tcp(address="127.0.0.1", listening=True, kind=socket.SOCK_STREAM):
    made = socket.socket(socket.AF_INET, kind)
    made.bind((address, 0))
    if listening and kind == socket.SOCK_STREAM:
        made.listen()
    return made


class RequestPolicy(unittest.TestCase):  # host names, origins; HTTP, WebSocket; CORS-all on (default) and off

    @classmethod
    def setUpClass(cls):
        extra = ["--allow-host", "proxy.test", "--allow-origin", "https://app.example"]
        cls.on, cls.off = Host(extra), Host(extra, "[QS]\nEnableCORSAll=FALSE\n")
        cls.addClassCleanup(cls.on.stop)
        cls.addClassCleanup(cls.off.stop)

    def test_host_names(self):
        rows = [  # Host header (PORT: the host's port) -> status
            ("127.0.0.1:PORT", 200), ("127.0.0.1", 200), ("localhost:PORT", 200), ("LocalHost", 200),
            ("[::1]:PORT", 200), ("proxy.test", 200), ("evil.test", 403), ("evil.test:PORT", 403),
            ("127.0.0.1.evil.test", 403), ("192.168.1.10:PORT", 403), ("localhost.:PORT", 403),
            ("127.0.0.1:x", 400), ("", 400)]
        for host in (self.on, self.off):
            for name, expected in rows:
                header = name.replace("PORT", str(host.port))
                for method, path, body, served in (("POST", "/kxp/", VERSION_INFO % ("1", "h"), 200),
                                                   ("GET", "/GetEncryptedImageMap?GUID=none", None, 404)):
                    status = host.request(method, path, body, host=header)[0]
                    self.assertEqual(served if expected == 200 else expected, status, (header, path))
                if header:
                    self.assertEqual(expected if expected != 200 else 101, self.upgrade(host, header, None), header)
            self.assertEqual(400, status_of(host.raw(b"GET / HTTP/1.1\r\n\r\n")), "HTTP/1.1 requires a Host")
            self.assertEqual(200, status_of(host.raw(b"GET / HTTP/1.0\r\n\r\n")), "HTTP/1.0 does not")

    def test_origins(self):
        for origin, on, off in (  # on, off: status, Access-Control-Allow-Origin (a 403 names the origin)
                (None, (200, "*"), (200, None)), ("https://evil.test", (200, "*"), (403, "https://evil.test")),
                ("null", (200, "*"), (403, "null")),
                ("http://127.0.0.1.evil.test", (200, "*"), (403, "http://127.0.0.1.evil.test")),
                ("http://localhost:5173", (200, "*"), (200, "http://localhost:5173")),
                ("https://127.0.0.1", (200, "*"), (200, "https://127.0.0.1")),
                ("http://[::1]:8080", (200, "*"), (200, "http://[::1]:8080")),
                ("https://app.example", (200, "*"), (200, "https://app.example")),
                ("https://app.example:444", (200, "*"), (403, "https://app.example:444"))):
            for host, (expected, allow) in ((self.on, on), (self.off, off)):
                headers = {"Origin": origin, "User-Agent": "e2e"} if origin else {"User-Agent": "e2e"}
                which = (origin, "CORS-all" if host is self.on else "CORS-all off")
                status, reply, body = host.command("o", headers)
                got = (status, reply.get("access-control-allow-origin"), reply.get("vary"), b'"cmdId" : "o"' in body)
                vary = "Origin" if allow not in (None, "*") else None
                self.assertEqual((expected, allow, vary, expected == 200), got, which)
                # A refused page cannot reach the module: a record it tries to store is not there afterwards.
                guid = "probe%d" % abs(hash((origin, expected)))
                host.request("POST", "/SetEncryptedImageMap?GUID=" + guid, "x", headers)
                stored, _, _ = host.request("GET", "/GetEncryptedImageMap?GUID=" + guid)
                self.assertEqual(404 if expected == 403 else 200, stored, which)
                upgraded = self.upgrade(host, "127.0.0.1:%d" % host.port, origin)
                self.assertEqual(403 if expected == 403 else 101, upgraded, which)

    def test_preflight(self):
        ask = {"Access-Control-Request-Method": "POST", "Access-Control-Request-Headers": "content-type",
               "Access-Control-Request-Private-Network": "true"}
        for host, origin, expected, allow in ((self.on, "https://evil.test", 204, "*"),
                                              (self.off, "https://evil.test", 403, "https://evil.test"),
                                              (self.off, "http://localhost:3000", 204, "http://localhost:3000")):
            status, reply, _ = host.request("OPTIONS", "/kxp/", None, dict(ask, Origin=origin))
            granted = ("true", "GET, POST, OPTIONS", "content-type") if status == 204 else (None, None, None)
            self.assertEqual((expected, allow, *granted), (status, *map(reply.get, (
                "access-control-allow-origin", "access-control-allow-private-network",
                "access-control-allow-methods", "access-control-allow-headers"))), origin)

    @staticmethod
    def upgrade(host, host_header, origin):
        try:
            ws = host.websocket(host=host_header, origin=origin)
        except websocket.WebSocketBadStatusException as refused:
            return refused.status_code
        with contextlib.closing(ws):
            ws.send(VERSION_INFO % ("w", "w"))
            return 101 if '"cmdId" : "w"' in ws.recv() else -1


class StrictHttp(unittest.TestCase):  # what no well-behaved client sends is answered, not dropped.

    def setUp(self):
        self.host = started(self)

    def test_malformed_requests(self):
        head = b"Host: 127.0.0.1\r\n"
        rows = [  # raw request -> status, text the answer must hold
            (b"GARBAGE\r\n\r\n", 400, b""), (b"GET / HTTP/1.1\r\n" + head + b"No colon here\r\n\r\n", 400, b""),
            (b"GET / HTTP/1.1\r\n" + head + b"X-Big: " + b"a" * (17 * 1024) + b"\r\n\r\n", 431, b""),
            (b"POST /kxp/ HTTP/1.1\r\n" + head + b"Content-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n", 400, b""),
            (b"POST /kxp/ HTTP/1.1\r\n" + head + b"Transfer-Encoding: gzip\r\n\r\n", 400, b""),
            (b"PUT /kxp/ HTTP/1.1\r\n" + head + b"Content-Length: 0\r\n\r\n", 405, b"Allow: GET, HEAD, POST, OPTIONS"),
            # Over the route's limit: refused from the head alone, the body never sent.
            (b"POST /kxp/ HTTP/1.1\r\n" + head + b"Content-Length: 1048577\r\n\r\n", 413, b"at most 1048576 bytes"),
            (b"POST /SetEncryptedImageMap?GUID=a HTTP/1.1\r\n" + head + b"Content-Length: 2053\r\n\r\n", 413,
             b"an image record holds at most 2052 bytes"),
            (b"POST /LoadZipFromBytes HTTP/1.1\r\n" + head + b"Content-Length: 1048577\r\n\r\n", 413, b"at most 1048576"),
            (b"GET / HTTP/1.1\r\n" + head + b"Content-Length: 1\r\n\r\nx", 413, b""),
            (b"POST /SetEncryptedImageMap?GUID=c HTTP/1.1\r\n" + head +
             b"Transfer-Encoding: chunked\r\n\r\n900\r\n" + b"x" * 0x900 + b"\r\n0\r\n\r\n", 413, b"")]
        for data, expected, text in rows:
            reply = self.host.raw(data)
            self.assertEqual((expected, True, True), (status_of(reply), text in reply, b"Connection: close" in reply),
                             reply[:200])
        self.assertEqual(200, self.host.request("GET", "/")[0], "the host still serves")

    def test_websocket_message_over_the_limit_closes_with_1009(self):
        ws = self.host.websocket()
        with contextlib.suppress(OSError):  # the host may close before the whole message is sent
            ws.send("x" * (1024 * 1024 + 1))
        self.assertEqual((websocket.ABNF.OPCODE_CLOSE, 1009), close_of(ws.recv_frame())[:2])
        ws.shutdown()


class Limits(unittest.TestCase):  # time and connection limits, with short time-outs.

    def test_slow_clients_are_cut_off_and_do_not_hold_up_others(self):
        host = started(self, ["--head-timeout", "3", "--idle-timeout", "4"])
        slow = [socket.create_connection(("127.0.0.1", host.port)) for _ in range(200)]
        stop = threading.Event()

        def trickle():
            for byte in b"POST /kxp/ HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Slow: " + b"a" * 1000:
                for sock in slow:
                    with contextlib.suppress(OSError):
                        sock.send(bytes([byte]))
                if stop.wait(0.2):
                    return

        trickler = threading.Thread(target=trickle)
        trickler.start()
        self.addCleanup(trickler.join)
        self.addCleanup(stop.set)
        time.sleep(0.5)
        began = time.monotonic()
        status, _, body = host.command("fast")
        self.assertEqual((200, True, True), (status, b'"cmdId" : "fast"' in body, time.monotonic() - began < 1.0))
        for sock in slow:  # the head limit ends each: an orderly close, or a reset once the trickle hit it
            self.assertTrue(closed(sock))
        kept = http.client.HTTPConnection("127.0.0.1", host.port, timeout=10)  # closed after the idle limit
        self.assertEqual(200, host.request("GET", "/", connection=kept)[0])
        waited = time.monotonic()
        self.assertEqual(b"", kept.sock.recv(100))
        self.assertGreater(time.monotonic() - waited, 3.0)
        kept.close()

    def test_out_of_descriptors_the_listener_waits_then_serves(self):
        # qs-host raises its soft limit to the hard one; at that limit accept fails until a connection closes.
        self.assertIn("(1024 descriptors)", started(self, wrapper=["prlimit", "--nofile=64:1024", "--"]).output())
        if SANITIZED == b"asan":
            self.skipTest("UBSan's own checks need descriptors (it reads memory through a pipe)")
        host = started(self, wrapper=["prlimit", "--nofile=40:40", "--"])
        held = [socket.create_connection(("127.0.0.1", host.port), timeout=10) for _ in range(60)]
        ticks = [time.sleep(0.6) or sum(map(int, open("/proc/%d/stat" % host.process.pid).read().split(")")[1].split()[11:13]))
                 for _ in range(2)]
        self.assertLess(ticks[1] - ticks[0], 10, "clock ticks used out of descriptors: it waits, not spins")
        [sock.close() for sock in held]
        self.assertEqual(200, host.command("after")[0])

    def test_at_the_cap_the_longest_idle_connection_makes_room(self):
        host = started(self, ["--max-connections", "20"])
        idle = [socket.create_connection(("127.0.0.1", host.port), timeout=10) for _ in range(20)]
        time.sleep(0.2)
        self.assertEqual([200] * 3, [host.command("cap")[0] for _ in range(3)])
        self.assertTrue(closed(idle[0]), "the longest idle connection made room")
        for sock in idle:
            sock.close()


class Budgets(unittest.TestCase):  # what all pages together can make the host hold, and what it costs idle.

    def test_upload_flood_within_memory(self):
        host = started(self)
        idle = [socket.create_connection(("127.0.0.1", host.port)) for _ in range(400)]
        body, slowest = b"PK\3\4" + b"u" * (1024 * 1024 - 4), []
        foreign = {"Origin": "https://evil.test", "User-Agent": "e2e", "Content-Type": "text/plain"}
        with concurrent.futures.ThreadPoolExecutor(32) as pool:
            uploads = [pool.submit(host.request, "POST", path, body, foreign)
                       for path in ("/LoadZipFromBytes?type=1", "/CheckUpdateFile") * 16]
            while not all(upload.done() for upload in uploads):
                began = time.monotonic()
                self.assertEqual(200, host.command("f")[0])
                slowest.append(time.monotonic() - began)
        for sock in idle:
            sock.close()
        self.assertEqual(([200] * 32, True), ([upload.result()[0] for upload in uploads], max(slowest) < 1.0), slowest)
        if not SANITIZED:
            self.assertLess(proc_values(host, "status", r"VmHWM:\s+(\d+)")[0], 128 * 1024)

    def test_bodies_over_the_budget_are_refused_before_they_are_read(self):
        host = started(self, ["--body-budget", "1"])
        holder = socket.create_connection(("127.0.0.1", host.port), timeout=10)
        holder.sendall(b"POST /LoadZipFromBytes?type=1 HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: e2e\r\n"
                       b"Expect: 100-continue\r\nContent-Length: 1048576\r\n\r\n")
        self.assertIn(b" 100 Continue", holder.recv(100))  # the whole budget is taken
        status, reply, text = host.command("b")
        self.assertEqual((503, "1", b"the service holds as many request bodies as it may; try again in a moment\n"),
                         (status, reply.get("retry-after"), text))
        self.assertEqual(200, host.request("GET", "/")[0], "no body, nothing taken")
        ws = host.websocket()
        ws.send(VERSION_INFO % ("1", "w"))
        frame = ws.sock.recv(100)  # the client library takes 1013 for an invalid code
        self.assertEqual(b"\x88\x2e\x03\xf5the service holds as many messages as it may", frame)
        holder.sendall(b"x" * 1048576)
        self.assertEqual(200, status_of(holder.recv(4096)))
        self.assertEqual(200, host.command("b")[0])
        holder.close()  # answered and still open: what it held was given back with the answer

    def test_record_quota(self):
        host = started(self, ["--max-records", "3"])
        for method, guid, body, status, text in (  # text: the answer's beginning
                ("POST", "A", "a", 204, b""), ("POST", "B", "b", 204, b""), ("POST", "C", "c", 204, b""),
                ("POST", "D", "d", 507, b"this service stores at most 3 image records; overwrite or delete one first\n"),
                ("POST", "A", "a2", 204, b""), ("GET", "A", None, 200, b"a2\0"),  # overwritten at the quota
                ("POST", "B", "", 204, b""), ("POST", "D", "d", 204, b""),  # deleted, then room for one
                ("POST", "X", "", 204, b""), ("POST", "E" * 256, "e", 507, b""),  # no record, no room made
                ("POST", "E" * 257, "e", 414, b"an image-record GUID holds at most 256 bytes\n"),
                ("GET", "E" * 257, None, 414, b"an image-record GUID"), ("GET", "D", None, 200, b"d\0")):
            path = "/%sEncryptedImageMap?GUID=%s" % ("Set" if body is not None else "Get", guid)
            got, _, content = host.request(method, path, body)
            self.assertEqual((status, text), (got, content[:len(text)]), (method, guid[:8], body))

    def test_no_wake_ups_without_work(self):
        if SANITIZED == b"tsan":
            self.skipTest("ThreadSanitizer's own thread wakes on a clock")
        host = started(self)
        kept = [http.client.HTTPConnection("127.0.0.1", host.port, timeout=20) for _ in range(20)]
        self.assertEqual([200] * 20, [host.command("i", connection=connection)[0] for connection in kept])
        for what in ("20 idle keep-alive connections", "no connection"):
            time.sleep(0.5)
            before = sum(proc_values(host, "task/*/status", r"ctxt_switches:\s+(\d+)"))
            time.sleep(3)
            self.assertLessEqual(sum(proc_values(host, "task/*/status", r"ctxt_switches:\s+(\d+)")) - before, 2, what)
            for connection in kept:
                connection.close()


def proc_values(host, files, pattern, base=10):  # the numbers `pattern` finds in the host's /proc files.
    names = glob.glob("/proc/%d/%s" % (host.process.pid, files))
    return [int(number, base) for name in names for number in re.findall(pattern, open(name).read())]


class ConcurrentClients(unittest.TestCase):  # many clients at once: each answer reaches its request

    def test_each_answer_reaches_its_request(self):
        host = started(self, ["--threads", "4"])
        kinds = [('"VersionInfo"', b'"14, 3, 3, 1212"'), ('"QSVersion"', b'"Quintaris Service"'),
                 ('"Nope"', b'"exception" : -2200'), ('"GetPorts","parameter":["0"]', b'"exception" : -2408')]

        def client(name):
            c = http.client.HTTPConnection("127.0.0.1", host.port, timeout=30) if name[0] == "h" else host.websocket()
            for n in range(16):
                tag, (method, expected) = "%s-%d" % (name, n), kinds[n % 4]
                command = '{"id":"%s","cmdId":"%s","method":%s}' % (tag, tag, method)
                if name[0] == "h":
                    answer = host.request("POST", "/kxp/", command, {"User-Agent": "e2e"}, connection=c)[2]
                    record = "/%sEncryptedImageMap?GUID=" + name  # each client's own record
                    host.request("POST", record % "Set", tag, connection=c)
                    stored = host.request("GET", record % "Get", connection=c)[2].rstrip(b"\0")
                else:
                    c.send(command)
                    answer, stored = c.recv().encode(), tag.encode()
                self.assertEqual((tag.encode(), True, True, True), (stored, b'"id" : "%s"' % tag.encode() in answer,
                                 expected in answer, b'"cmdId" : "%s"' % tag.encode() in answer), answer[:200])
            c.close()

        open_now = lambda: len(os.listdir("/proc/%d/fd" % host.process.pid))
        before = open_now()
        with concurrent.futures.ThreadPoolExecutor(8) as pool:
            list(pool.map(client, [kind + str(i) for kind in "hw" for i in range(4)]))  # a client's failure is raised
        for _ in range(100):  # once every client has gone, no more descriptors are open than before they came
            time.sleep(0.05 if open_now() > before else 0)
        self.assertEqual(before, open_now())


class Settings(unittest.TestCase):  # qs-host config: list, get, set, refusals; a restart applies a change

    def test_list_get_set_and_refusals(self):
        folder = work_folder("qs_config_")
        ini = os.path.join(folder, "QSConfiguration.ini")
        open(ini, "w").write("[QS]\nEnableCORSAll=1\nServer=\nPort=1\nPort_mn_0=kxp\nPort_mp_0=18625\n")
        open(os.path.join(folder, "user_config.ini"), "w").write("[]\nkxp=18700\nfvt=0\nfvt_ssl=0\nkxs_ssl=18701\n")
        status, listing, _ = run(folder, "config")
        for text in ("Settings file: %s\n" % ini, "(%s/user_config.ini): kxp 18700 (TLS 0), kxs 0 (TLS 18701)\n" % folder,
                     "port lists: Port: kxp 18625; SSLPort: none"):
            self.assertIn(text, listing)
        rows = {line.split()[0]: line.split() for line in listing.splitlines() if line.startswith("  ")}
        for key, row in (("LogLevel", ["6", "6", "next", "log", "line", "-"]),
                         ("EnableCORSAll", ["FALSE", "TRUE", "next", "start", '"1"']),
                         ("Server", ["127.0.0.1", "127.0.0.1", "next", "start", '""']),
                         ("allow-origin", ['""', '""', "next", "start", "-"]),
                         ("head-timeout", ["30", "30", "next", "start", "-"])):
            self.assertEqual([key, *row], rows[key], listing)
        rows = [  # words -> exit status, standard output or error, the file's text afterwards (None: unchanged)
            (["get", "enablecorsall"], 0, "FALSE\n", None),
            (["set", "EnableCORSAll", "False"], 0, "EnableCORSAll: FALSE -> FALSE (%s, [QS] EnableCORSAll=FALSE)\n"
             "Takes effect when qs-host starts next.\n" % ini, "EnableCORSAll=FALSE\n"),
            (["set", "LogLevel", "14"], 0, "LogLevel: 6 -> 14", "LogLevel=14\n"),
            (["set", "allow-origin", "https://app.example, http://[::1]:8080/, http://[::1]"], 0,
             "allow-origin: \"\" -> https://a", "[qs-host]\nallow-origin=https://app.example http://[::1]:8080/ http://[::1]\n"),
            (["get", "allow-origin"], 0, "https://app.example http://[::1]:8080/ http://[::1]\n", None),
            (["set", "max-connections", "64"], 0, "--max-connections on qs-host's command line wins", "max-connections=64"),
            (["set", "LogLevel", "14"], 0, "LogLevel is 14 in %s already; nothing written\n" % ini, None),
            (["get", "Nope"], 2, 'qs-host: no setting "Nope"; qs-host config lists them\n', None),
            (["set", "EnableCORSAll", "1"], 2, 'EnableCORSAll: "1" is not a flag: true or false; nothing written\n', None),
            (["set", "LogLevel", "15"], 2, '"15" is not a whole number from 0 to 14', None),
            (["set", "LogLevel", "-1"], 2, "", None),
            (["set", "head-timeout", "0"], 2, '"0" is not a whole number from 1 to 3600', None),
            (["set", "allow-origin", "app.example"], 2, '"app.example" is not an origin', None),
            (["set", "allow-host", "a/b"], 2, '"a/b" is not a host name', None),
            (["set", "ServiceName", "two\nlines"], 2, "one line of text", None),
            (["set", "LogLevel"], 2, "config set takes KEY VALUE", None),
            (["frobnicate"], 2, 'config has no action "frobnicate"', None)]
        for words, expected, text, written in rows:
            before = open(ini).read()
            status, out, err = run(folder, "config", *words)
            self.assertEqual((expected, True), (status, text in (err if status else out)), (words, out + err))
            self.assertIn(written, open(ini).read()) if written else self.assertEqual(before, open(ini).read(), words)
        # A file that cannot be written: refused, left as it was.
        locked = subprocess.run(["chattr", "+i", ini], capture_output=True).returncode == 0
        atexit.register(subprocess.run, ["chattr", "-i", ini], capture_output=True)
        if not locked:
            os.chmod(ini, 0o444)
        status, _, err = run(folder, "config", "set", "EnableCORSAll", "true")  # `before`: as the last row left it
        subprocess.run(["chattr", "-i", ini], capture_output=True)
        self.assertEqual((2, before), (status, open(ini).read()), err)
        self.assertIn("qs-host: cannot write %s: Operation not permitted; nothing written\n" % ini
                      if locked else "Permission denied", err)
        # A value the file holds that is not valid is shown as such and stops the server at start.
        os.chmod(ini, 0o644)
        open(ini, "a").write("head-timeout=abc\n")
        self.assertIn('"abc" not valid: qs-host will not start', run(folder, "config")[1])
        code, _, err = run(folder, "--port", "0")
        self.assertEqual((2, 'qs-host: %s, [qs-host] head-timeout: "abc" is not a whole number from 1 to 3600' % ini),
                         (code, err.split(" (qs-host config")[0]))

    def test_cors_off_and_one_origin_after_a_restart(self):
        host = started(self, env={"INVOCATION_ID": "e2e"})
        evil, app = ({"Origin": origin, "User-Agent": "e2e"} for origin in ("https://evil.test", "https://app.example"))
        self.assertEqual(200, host.command("e", evil)[0])
        for words, effect in ((["set", "EnableCORSAll", "false"], "EnableCORSAll: TRUE -> FALSE"),
                              (["set", "allow-origin", "https://app.example"], "allow-origin: \"\" -> https"),
                              (["set", "idle-timeout", "9"], "idle-timeout: 60 -> 9")):
            status, out, err = run(host.folder, "config", *words)
            self.assertEqual((0, True, True), (status, effect in out,
                                               "at the next start: systemctl --user restart qs-host\n" in out), err)
        host.stop()
        host = started(self, ["--idle-timeout", "7"], folder=host.folder)  # the command line wins over the file
        self.assertEqual(403, host.command("e", evil)[0])
        status, reply, body = host.command("a", app)
        self.assertEqual((200, "https://app.example", True),
                         (status, reply.get("access-control-allow-origin"), b'"cmdId" : "a"' in body))
        page = host.request("GET", "/")[2].decode()
        for text in ("<th>Settings file</th><td>%s/QSConfiguration.ini</td>" % host.folder,
                     "<th>EnableCORSAll</th><td>FALSE</td>", "<th>allow-origin</th><td>https://app.example</td>",
                     "<th>idle-timeout</th><td>7</td>"):
            self.assertIn(text, page)


if __name__ == "__main__":
    QS_HOST, MODULE, STANDIN, PARTIAL = sys.argv[1:5]
    binary = open(QS_HOST, "rb").read()  # memory and wake-up figures of a sanitizer's runtime are its own
    SANITIZED = next((kind for kind in (b"asan", b"tsan") if b"__%s_init" % kind in binary), None)
    unittest.main(argv=[sys.argv[0], "-v", *sys.argv[5:]])
