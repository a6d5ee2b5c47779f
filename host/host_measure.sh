#!/usr/bin/env bash
# What qs-host costs the machine when idle and what a hostile page can make it
# hold, measured on a fresh qs-host on loopback:
#
#  - wake-ups per second (voluntary + involuntary context switches of all its
#    threads, from /proc/PID/task/*/status) over IDLE_SECONDS after a burst of
#    commands with no connection left, then with IDLE_KEEPALIVE idle
#    keep-alive connections open;
#  - peak resident memory (VmHWM) under the upload flood: UPLOADS parallel
#    uploads at the limit of each package route from a foreign origin, beside
#    IDLE_CONNECTIONS idle connections, and how long a VersionInfo sent in the
#    middle of it took;
#  - peak resident memory under the record flood: RECORDS image records under
#    fresh GUIDs of GUID_BYTES bytes from a foreign origin.
#
#   bash host/host_measure.sh [BUILD_FOLDER]      (default: build/default)
#
# Defaults: IDLE_SECONDS=30 IDLE_KEEPALIVE=20 UPLOADS=16 IDLE_CONNECTIONS=400
# RECORDS=60000 GUID_BYTES=256. Each part runs on its own qs-host, stopped at
# the end; traffic goes to 127.0.0.1 only.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build/default}
bash scripts/install-deps.sh python3
[[ -x $build/host/qs-host && -f $build/host/libFVASManager.so ]] ||
  { echo "host_measure: build qs-host first (cmake --build --preset default --target qs-host)" >&2; exit 1; }

work=$(mktemp -d /tmp/qs_host_measure_XXXXXX)
trap 'rm -rf "$work"' EXIT
cp "$build/host/qs-host" "$build/host/libFVASManager.so" "$work/"

QS_HOST="$work/qs-host" python3 - <<'EOF'
import http.client, os, re, signal, socket, subprocess, threading, time

env = lambda name, default: int(os.environ.get(name, default))
IDLE_SECONDS, IDLE_KEEPALIVE = env("IDLE_SECONDS", 30), env("IDLE_KEEPALIVE", 20)
UPLOADS, IDLE_CONNECTIONS = env("UPLOADS", 16), env("IDLE_CONNECTIONS", 400)
RECORDS, GUID_BYTES = env("RECORDS", 60000), env("GUID_BYTES", 256)
COMMAND = b'{"id":"1","cmdId":"m","method":"VersionInfo"}'
FOREIGN = {"Origin": "https://page.example", "User-Agent": "host_measure", "Content-Type": "text/plain"}


class Host:
    def __init__(self):
        args = [os.environ["QS_HOST"], "--port", "0"] + (["--allow-root"] if os.geteuid() == 0 else [])
        self.process = subprocess.Popen(args, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        for line in self.process.stdout:
            found = re.match(r"listening on http://127.0.0.1:(\d+)/", line)
            if found:
                self.port = int(found.group(1))
                break
        else:
            raise SystemExit("host_measure: qs-host did not start")
        threading.Thread(target=self.process.stdout.read, daemon=True).start()

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        self.process.wait(30)

    def status(self, field):
        with open("/proc/%d/status" % self.process.pid) as status:
            return int(re.search(field + r":\s+(\d+)", status.read()).group(1))

    def switches(self):
        total = 0
        for task in os.listdir("/proc/%d/task" % self.process.pid):
            try:
                with open("/proc/%d/task/%s/status" % (self.process.pid, task)) as status:
                    total += sum(map(int, re.findall(r"ctxt_switches:\s+(\d+)", status.read())))
            except FileNotFoundError:
                pass
        return total

    def connect(self):
        return http.client.HTTPConnection("127.0.0.1", self.port, timeout=60)

    def post(self, path, body, headers, connection=None):
        c = connection or self.connect()
        try:
            c.request("POST", path, body, headers)
            response = c.getresponse()
            return response.status, response.read()
        except (OSError, http.client.HTTPException):
            return "failed", b""
        finally:
            if connection is None:
                c.close()


def idle(host, what):
    time.sleep(1)
    before = host.switches()
    time.sleep(IDLE_SECONDS)
    woke = host.switches() - before
    print("idle %-40s %6d wake-ups in %d s, %.2f/s" % (what, woke, IDLE_SECONDS, woke / IDLE_SECONDS))


def counted(statuses):
    return ", ".join("%s: %d" % (k, statuses.count(k)) for k in sorted(set(statuses), key=str))


def parallel(count, work):
    threads = [threading.Thread(target=work, args=(i,)) for i in range(count)]
    for thread in threads:
        thread.start()
    return threads


host = Host()
for n in range(4):
    c = host.connect()
    for _ in range(50):
        host.post("/kxp/", COMMAND, {"User-Agent": "host_measure"}, c)
    c.close()
idle(host, "after a burst of 200 commands, no connection")
kept = [host.connect() for _ in range(IDLE_KEEPALIVE)]
for c in kept:
    host.post("/kxp/", COMMAND, {"User-Agent": "host_measure"}, c)
idle(host, "with %d idle keep-alive connections" % IDLE_KEEPALIVE)
for c in kept:
    c.close()
host.stop()

host = Host()
start = host.status("VmRSS")
routes = {}
for route in ("/kxp/LoadZipFromBytes?type=1&qsver=1&x=1", "/CheckUpdateFile?qsver=1&x=1"):
    with socket.create_connection(("127.0.0.1", host.port), timeout=10) as probe:
        probe.sendall(b"POST %s HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 1099511627776\r\n\r\n" % route.encode())
        routes[route] = int(re.search(rb"at most (\d+) bytes", probe.recv(4096)).group(1))
idlers = [socket.create_connection(("127.0.0.1", host.port)) for _ in range(IDLE_CONNECTIONS)]
statuses, latency = [], []


CHUNK = b"PK\3\4" + b"u" * (65536 - 4)


def upload(i):
    route = list(routes)[i % len(routes)]
    head = "".join("%s: %s\r\n" % item for item in FOREIGN.items())
    try:
        with socket.create_connection(("127.0.0.1", host.port), timeout=120) as sock:
            sock.sendall(b"POST %s HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: %d\r\n%s\r\n"
                         % (route.encode(), routes[route], head.encode()))
            left = routes[route]
            try:  # a refusal may come, and the socket close, before the whole body is sent
                while left > 0:
                    left -= sock.send(memoryview(CHUNK)[:min(left, len(CHUNK))])
            except OSError:
                pass
            statuses.append(int(sock.recv(4096).split(b" ", 2)[1]))
    except (OSError, IndexError, ValueError):
        statuses.append("failed")


uploads = parallel(UPLOADS * len(routes), upload)
answers = []
while any(thread.is_alive() for thread in uploads):  # VersionInfo, one after the other, while the flood lasts
    began = time.monotonic()
    answers.append(host.post("/kxp/", COMMAND, {"User-Agent": "host_measure"})[0])
    latency.append(time.monotonic() - began)
for thread in uploads:
    thread.join()
print("upload flood: %d x %s bytes from a foreign origin + %d idle connections: peak RSS %.1f MiB (%.1f MiB at "
      "start); answers %s; %d VersionInfo meanwhile (%s), the slowest in %.3f s" % (
          len(uploads), "/".join(map(str, routes.values())), IDLE_CONNECTIONS, host.status("VmHWM") / 1024,
          start / 1024, counted(statuses), len(answers), counted(answers), max(latency, default=0)))
for sock in idlers:
    sock.close()
host.stop()

host = Host()
start, statuses, texts = host.status("VmRSS"), [], set()
began = time.monotonic()


def records(i):
    c = host.connect()
    for n in range(i, RECORDS, 8):
        guid = ("%d-" % n).ljust(GUID_BYTES, "g")
        status, text = host.post("/SetEncryptedImageMap?GUID=" + guid, b"r" * 2052, FOREIGN, c)
        statuses.append(status)
        if status != 204:
            texts.add(text.decode(errors="replace").strip())
            if status == "failed":
                c.close()
                c = host.connect()
    c.close()


for thread in parallel(8, records):
    thread.join()
print("record flood: %d records under fresh %d-byte GUIDs in %.1f s: peak RSS %.1f MiB (%.1f MiB at start); "
      "answers %s%s" % (RECORDS, GUID_BYTES, time.monotonic() - began, host.status("VmHWM") / 1024, start / 1024,
                        counted(statuses), "".join("\n  refusal: " + text for text in sorted(texts))))
host.stop()
EOF
