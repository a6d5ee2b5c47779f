#!/usr/bin/python3
"""The Debian package built with CPack from BUILD_FOLDER, end to end without a service manager.
    package_test.py BUILD_FOLDER VERSION"""
import os, pathlib, re, shutil, signal, socket, subprocess, sys, tempfile, time, unittest, urllib.request

BUILD = VERSION = None
PACKAGE = "quintaris-service"
ROOT_FLAG = ["--allow-root"] if os.geteuid() == 0 else []


def run(command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, **options)


def read(path):
    return pathlib.Path(path).read_text()


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def post(port, body, timeout=20):
    request = urllib.request.Request("http://127.0.0.1:%d/kxp/" % port, body.encode(), {"User-Agent": "package-test"})
    with urllib.request.urlopen(request, timeout=timeout) as answer:
        return answer.status, answer.read().decode()


def snapshot(folder):
    return {path: (os.lstat(path).st_size, os.lstat(path).st_mtime_ns)
            for base, folders, files in os.walk(folder) for path in (os.path.join(base, n) for n in folders + files)}


class Package(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.work = tempfile.mkdtemp(prefix="qs_package_")
        run(["cpack", "-G", "DEB", "-B", os.path.join(cls.work, "out"),
             "--config", os.path.join(BUILD, "CPackConfig.cmake")])
        cls.arch = run(["dpkg", "--print-architecture"]).stdout.strip()
        cls.deb = os.path.join(cls.work, "out", "%s_%s-1_%s.deb" % (PACKAGE, VERSION, cls.arch))
        cls.root = os.path.join(cls.work, "root")
        run(["dpkg-deb", "-x", cls.deb, cls.root])

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.work, ignore_errors=True)

    def test_control_fields_files_and_scripts(self):
        fields = dict(re.findall(r"^(\w[\w-]*): (.*)$", run(["dpkg-deb", "-f", self.deb]).stdout, re.M))
        self.assertEqual((PACKAGE, VERSION + "-1", self.arch), (fields["Package"], fields["Version"], fields["Architecture"]))
        self.assertLessEqual({"libjsoncpp25", "libminizip1", "libssl3", "init-system-helpers"},
                             {d.split(" ")[0] for d in fields["Depends"].split(", ")})
        listed = [line.split(None, 5) for line in run(["dpkg-deb", "-c", self.deb]).stdout.splitlines()]
        private, units, doc = "./usr/lib/quintaris/", "./usr/lib/systemd/user/", "./usr/share/doc/%s/" % PACKAGE
        self.assertEqual({("-rwxr-xr-x", private + "qs-host"), ("-rw-r--r--", private + "libFVASManager.so"),
                          ("-rw-r--r--", private + "installed-version"), ("lrwxrwxrwx", "./usr/bin/qs-host"),
                          ("-rw-r--r--", units + "qs-host.service"), ("-rw-r--r--", units + "qs-host.socket"),
                          ("-rw-r--r--", "./usr/share/man/man1/qs-host.1.gz"), ("-rw-r--r--", doc + "copyright"),
                          ("-rw-r--r--", doc + "changelog.gz")},
                         {(mode, path.split(" -> ")[0]) for mode, _, _, _, _, path in listed if mode[0] != "d"})
        self.assertEqual({"root/root"}, {entry[1] for entry in listed})
        self.assertEqual({"drwxr-xr-x"}, {entry[0] for entry in listed if entry[0][0] == "d"})
        control = os.path.join(self.work, "control")
        run(["dpkg-deb", "-e", self.deb, control])
        for script, line in (("postinst", "deb-systemd-helper --user enable 'qs-host.service'"),
                             ("postrm", "deb-systemd-helper --user purge 'qs-host.service'")):
            self.assertEqual(0o755, os.stat(os.path.join(control, script)).st_mode & 0o777)
            self.assertIn(line, read(os.path.join(control, script)))

    def start(self, home, state, port):
        """The extracted qs-host as the socket unit would start it, with the test's folders."""
        log = open(os.path.join(self.work, "host-%d.log" % port), "w+")
        process = subprocess.Popen(
            ["systemd-socket-activate", "-l", "127.0.0.1:%d" % port, "--fdname=http", "-E", "HOME=" + home,
             "-E", "XDG_STATE_HOME=" + state, "-E", "TSAN_OPTIONS=intercept_tls_get_addr=0",
             os.path.join(self.root, "usr/bin/qs-host"), *ROOT_FLAG], stdout=log, stderr=subprocess.STDOUT,
            start_new_session=True)
        self.addCleanup(subprocess.run, ["pkill", "-KILL", "-s", str(process.pid)])  # whatever a failure left
        for _ in range(100):
            try:
                socket.create_connection(("127.0.0.1", port), timeout=1).close()
                break
            except OSError:
                time.sleep(0.1)
        return process, log

    def stop(self, process, log):
        process.send_signal(signal.SIGTERM)
        self.assertEqual(0, process.wait(30))
        log.seek(0)
        return log.read()

    def test_runs_from_the_users_state_folder_and_upgrades_keep_settings(self):
        home, state = os.path.join(self.work, "home"), os.path.join(self.work, "state")
        os.makedirs(home)
        installed = snapshot(self.root)
        port = free_port()
        process, log = self.start(home, state, port)
        status, answer = post(port, '{"id":"1","cmdId":"p","method":"VersionInfo"}')
        output = self.stop(process, log)
        self.assertEqual((200, True), (status, '"14, 3, 3, 1212"' in answer), output)
        self.assertIn("listening on http://127.0.0.1:%d/" % port, output)
        folder = os.path.join(state, "quintaris")
        self.assertIn("qs-host: module %s/libFVASManager.so" % folder, output)
        for name in ("qs-host", "libFVASManager.so", "copied-version", "log/qss.log", "cache", "upload"):
            self.assertTrue(os.path.exists(os.path.join(folder, name)), name)
        self.assertEqual(0o700, os.stat(folder).st_mode & 0o777)
        self.assertEqual([], os.listdir(home), "nothing under HOME when XDG_STATE_HOME is set")
        self.assertEqual(installed, snapshot(self.root), "nothing written beside the installed files")

        # A changed setting, then an upgrade (new installed files): the copies
        # are refreshed, the setting stays.
        pathlib.Path(folder, "QSConfiguration.ini").write_text("[QS]\nEnableCORSAll=FALSE\n")
        copied = read(os.path.join(folder, "copied-version"))
        os.utime(os.path.join(self.root, "usr/lib/quintaris/libFVASManager.so"))
        port = free_port()
        process, log = self.start(home, state, port)
        status, _ = post(port, '{"id":"2","method":"QSVersion"}')
        output = self.stop(process, log)
        self.assertEqual((200, True), (status, "CORS for all origins off" in output), output)
        self.assertNotEqual(copied, read(os.path.join(folder, "copied-version")))
        self.assertEqual("[QS]\nEnableCORSAll=FALSE\n", read(os.path.join(folder, "QSConfiguration.ini")))

    def test_refuses_root_unless_told(self):
        if os.geteuid() != 0:
            self.skipTest("only root is refused")
        refused = subprocess.run([os.path.join(self.root, "usr/bin/qs-host")], capture_output=True, text=True,
                                 env=dict(os.environ, XDG_STATE_HOME=os.path.join(self.work, "refused")))
        self.assertEqual((1, True), (refused.returncode, "refusing to run as root" in refused.stderr), refused.stderr)
        self.assertFalse(os.path.exists(os.path.join(self.work, "refused")))

    def test_units_verify_and_enable_for_every_user(self):
        units, runtime = os.path.join(self.work, "units"), os.path.join(self.work, "runtime")
        os.makedirs(units)
        os.makedirs(runtime, 0o700)
        source = os.path.join(self.root, "usr/lib/systemd/user")
        for name in ("qs-host.service", "qs-host.socket"):
            text = read(os.path.join(source, name))
            self.assertNotIn("@QS_", text)
            pathlib.Path(units, name).write_text(text.replace("ExecStart=/usr/bin/qs-host",
                                                              "ExecStart=" + os.path.join(self.root, "usr/bin/qs-host")))
        self.assertIn("ExecStart=/usr/bin/qs-host\n", read(os.path.join(source, "qs-host.service")))
        verify = subprocess.run(["systemd-analyze", "--user", "verify", "--man=no",
                                 os.path.join(units, "qs-host.service"), os.path.join(units, "qs-host.socket")],
                                capture_output=True, text=True, env=dict(os.environ, XDG_RUNTIME_DIR=runtime))
        self.assertEqual((0, ""), (verify.returncode, verify.stdout + verify.stderr))

        scratch = os.path.join(self.work, "scratch")
        shutil.copytree(os.path.join(self.root, "usr/lib/systemd/user"), os.path.join(scratch, "usr/lib/systemd/user"))
        run(["systemctl", "--root=" + scratch, "--global", "enable", "qs-host.service"])
        link = os.path.join(scratch, "etc/systemd/user/default.target.wants/qs-host.service")
        self.assertEqual("/usr/lib/systemd/user/qs-host.service", os.readlink(link))
        self.assertFalse(os.path.exists(os.path.join(scratch, "etc/systemd/user/sockets.target.wants")))

    def test_sandbox_fits_the_system_calls_qs_host_makes(self):
        """A serving qs-host's system calls, socket families and mappings fit the unit's sandbox."""
        import websocket
        trace, home = os.path.join(self.work, "trace"), os.path.join(self.work, "traced")
        os.makedirs(home)
        process = subprocess.Popen(["strace", "-f", "-qq", "-o", trace, os.path.join(self.root, "usr/bin/qs-host"),
                                    "--port", "0", *ROOT_FLAG], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                   text=True, env=dict(os.environ, HOME=home, XDG_STATE_HOME=home),
                                   start_new_session=True)
        self.addCleanup(subprocess.run, ["pkill", "-KILL", "-s", str(process.pid)])  # strace's tracee too
        port = next(int(m.group(1)) for m in map(re.compile(r"listening on http://127.0.0.1:(\d+)/").match,
                                                 process.stdout) if m)
        post(port, '{"id":"1","method":"VersionInfo"}')
        ws = websocket.create_connection("ws://127.0.0.1:%d/kxp/" % port, header=["User-Agent: t"], timeout=20)
        ws.send('{"id":"2","method":"QSVersion"}')
        ws.recv()
        ws.close()
        image = "http://127.0.0.1:%d/%sEncryptedImageMap?GUID=t"
        urllib.request.urlopen(urllib.request.Request(image % (port, "Set"), b"record"), timeout=20).read()
        urllib.request.urlopen(image % (port, "Get"), timeout=20).read()
        # The signal goes to qs-host itself: strace would only detach.
        with open("/proc/%d/task/%d/children" % (process.pid, process.pid)) as children:
            os.kill(int(children.read().split()[0]), signal.SIGTERM)
        process.stdout.read()
        self.assertEqual(0, process.wait(30))
        calls = re.findall(r"^\d+ (\w+)\((.*)", read(trace), re.M)
        families = {arguments.split(",")[0] for name, arguments in calls if name == "socket"}
        self.assertEqual(set(), {name for name, _ in calls} - self.expanded("@system-service") - {"execve"})
        self.assertLessEqual(families, {"AF_UNIX", "AF_INET", "AF_INET6"})
        # Mapping a library executable is allowed; making memory executable
        # after the fact, or writable and executable at once, is not.
        self.assertEqual([], [(name, arguments) for name, arguments in calls if "PROT_EXEC" in arguments and (
            name in ("mprotect", "pkey_mprotect") or (name == "mmap" and "PROT_WRITE" in arguments))])

    @staticmethod
    def expanded(group, seen=None):
        seen, names = seen if seen is not None else set(), set()
        for entry in (line.strip() for line in run(["systemd-analyze", "syscall-filter", group]).stdout.splitlines()[1:]):
            if entry.startswith("@") and entry not in seen:
                seen.add(entry)
                names |= Package.expanded(entry, seen)
            elif entry and entry[0] not in "#@":
                names.add(entry)
        return names


if __name__ == "__main__":
    BUILD, VERSION = sys.argv[1], sys.argv[2]
    unittest.main(argv=[sys.argv[0], "-v", *sys.argv[3:]])
