"""vekctl against the real daemon: every command, the JSON shapes, every exit status, and that the documents say
what is so. Runs in a sandbox: `vekctl_test.py SOURCE VEKD VEKCTL EXAMPLE`."""
import json, os, re, signal, socket, struct, subprocess, sys, time, unittest

SOURCE, VEKD, VEKCTL, EXAMPLE = sys.argv[1:5]
EVENT_SIZE = 1136


def await_(condition, what, seconds=10):
    end = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < end, f"waited {seconds} s for {what}"
        time.sleep(0.01)


def read(path):
    with open(path) as file:
        return file.read()


def run(*words, **options):
    return subprocess.run([VEKCTL, *words], capture_output=True, text=True, timeout=60, **options)


def pid():
    return int(read("/var/run/vekd.pid"))


def is_gone(process):
    try:
        return read(f"/proc/{process}/stat").rsplit(")", 1)[1].split()[0] == "Z"
    except OSError:
        return True


def fields_of(record):
    """Field names of a record in the header that everybody includes."""
    text = re.search(r"struct %s \{(.*?)\n\};" % record, read(f"{SOURCE}/include/vek.h"), re.S).group(1)
    text = re.sub(r"/\*.*?\*/", "", re.sub(r"union \{.*?\} ", "uint32_t ", text, flags=re.S), flags=re.S)
    return [name for line in re.findall(r"\w[\w ]* ([^;]+);", text)
            for name in re.findall(r"(\w+)(?:\[[^]]*\])*(?:,|$)", line)]


class OnDaemon(unittest.TestCase):
    def setUp(self):
        subprocess.run([VEKD], check=True)
        await_(lambda: run("count").returncode == 0 and os.path.exists("/var/run/vekd.pid") and read("/var/run/vekd.pid"),
               "the daemon")
        self.pid = pid()

    def tearDown(self):
        os.kill(self.pid, signal.SIGCONT)
        os.kill(self.pid, signal.SIGTERM)
        await_(lambda: is_gone(self.pid), "the daemon's end")

    def ok(self, *words, status=0, **options):
        result = run(*words, **options)
        self.assertEqual(status, result.returncode, f"{words}: {result.stdout}{result.stderr}")
        if status:
            self.assertRegex(result.stderr, r"\Avekctl: [^\n]+\n\Z", words)
        return result.stdout

    def json(self, *words):
        value = json.loads(self.ok(*words, "--json"))
        self.assertEqual(1, value["version"])
        return value

    def login(self, name, *words, service="ssh", type="user"):
        self.ok("login", "--service", service, "--username", name, "--type", type, *words)

    def names(self, *words):
        return [session["username"] for session in self.json("list", *words)["sessions"]]


class Reading(OnDaemon):
    def test_sessions(self):
        self.login("alice", "--ip", "192.0.2.7", "--unique", "a1", "--default-lease-time", "60")
        self.login("bob", "--ip6", "2001:db8::7", "--real_username", "robert", service="telnet")
        self.login("carol", "--ip", "192.0.2.7", "--session-timeout", "30", type="guest")

        value = self.json("list")
        self.assertEqual(fields_of("user_info"), list(value["sessions"][0]))
        alice = value["sessions"][0]
        self.assertEqual(("ssh", "alice", "a1", "192.0.2.7", "::", 60, 1),
                         tuple(alice[f] for f in ("service", "username", "unique", "ip", "ip6", "lease_minute", "type")))
        self.assertEqual(alice["login_time"] + 3600, alice["lease_time"])
        self.assertEqual("bob", [s for s in value["sessions"] if s["username"] == "robert"][0]["virtual_username"])
        for words, names in (
                ((), ["alice", "carol", "robert"]), (("--sort", "-username"), ["robert", "carol", "alice"]),
                (("--user", "robert"), ["robert"]), (("--ip", "192.0.2.7"), ["alice", "carol"]),
                (("--ip", "192.0.2.7", "--first"), ["alice"]), (("--ip", "2001:db8::7"), ["robert"]),
                (("--service", "telnet"), ["robert"]), (("--type", "guest"), ["carol"]), (("--user", "nobody"), [])):
            self.assertEqual(names, self.names(*words), words)

        table = self.ok("list").splitlines()
        self.assertRegex(table[0], "USERNAME +SERVICE +TYPE +ADDRESS")
        self.assertRegex(table[1], r"alice +ssh +user +192\.0\.2\.7 +a1 +\d+s ago +expires in (1h|59m)")
        self.assertEqual(["alice", "192.0.2.7"], self.ok("list", "--no-header", "--columns", "username,ip").split()[:2])
        shown = dict(line.split(None, 1) for line in self.ok("show", "2001:db8::7", "--no-header").splitlines())
        self.assertEqual(fields_of("user_info"), list(shown))
        self.assertRegex(shown["login_time"], r"\d+ uptime seconds \(\d+s ago\)")
        self.assertEqual(1, len(self.json("show", "carol")["sessions"]))

        self.assertEqual("3", self.ok("count").strip())
        self.assertEqual(3, self.json("count")["count"])
        stats = self.json("stats")
        self.assertEqual((3, 1034), (stats["sessions"], stats["table_size"]))
        self.assertEqual([{"service": "ssh", "sessions": 2}, {"service": "telnet", "sessions": 1}], stats["by_service"])
        self.assertEqual({"user": 2, "guest": 1}, {row["type"]: row["sessions"] for row in stats["by_type"]})
        self.assertEqual({"ipv4": 2, "ipv6": 1}, {row["family"]: row["sessions"] for row in stats["by_family"]})
        self.assertEqual({"lease_time": "alice", "session_timeout": "carol"},
                         {row["deadline"]: row["username"] for row in stats["next_deadlines"]})
        prometheus = self.ok("stats", "--prometheus")
        self.assertIn('vekd_sessions{service="ssh",type="guest",family="ipv4"} 1\n', prometheus)
        self.assertEqual([], [l for l in prometheus.splitlines() if not re.match(r"# (HELP|TYPE) |\w+(\{.*\})? -?\d+$", l)])

    def test_text_from_records_is_escaped(self):
        self.login(b"ev\x1b[2Jil\xff", "--ip", "192.0.2.1")
        self.assertNotRegex(subprocess.run([VEKCTL, "list"], capture_output=True).stdout, b"[\x1b\xff]")
        self.assertEqual(["ev\x1b[2Jil�"], self.names())

    def test_watch(self):
        watch = subprocess.Popen([VEKCTL, "watch", "--json", "--for", "30", "--count", "3"], stdout=subprocess.PIPE,
                                 stderr=subprocess.PIPE, text=True)
        # Its connection is there and it sleeps: it has asked for its copies.
        await_(lambda: re.search(r" 03 .*/dev/user-request$", read("/proc/net/unix"), re.M)
               and ") S " in read(f"/proc/{watch.pid}/stat"), "the subscription")
        self.login("alice", "--unique", "a1")
        line = json.loads(watch.stdout.readline())
        self.assertEqual({"version", "time", "event_name", *fields_of("vek_event")}, set(line))
        self.assertEqual((1, "login", "alice", "a1"), tuple(line[f] for f in ("event", "event_name", "username", "unique")))
        self.assertRegex(line["time"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d\d:\d\d$")

        os.kill(self.pid, signal.SIGTERM)  # its end is noticed, its successor found, the gap marked
        await_(lambda: is_gone(self.pid), "the daemon's end")
        self.setUp()
        gap = json.loads(watch.stdout.readline())
        self.assertEqual((1, True), (gap["version"], gap["gap"]))
        self.login("bob")
        self.ok("logout", "--username", "bob")
        self.assertEqual(["login", "logout"], [json.loads(watch.stdout.readline())["event_name"] for _ in range(2)])
        self.assertEqual(0, watch.wait(10))
        self.assertIn("connect", watch.stderr.read())
        watch.stdout.close(), watch.stderr.close()
        self.ok("watch", "--for", "0.1", "--count", "1", status=4)

    def test_blocks(self):
        config = self.json("config")["config"]
        self.assertEqual((0, 3), (config["enable_idle_detection"], config["max_idle_minute"]))
        self.ok("config", "set", "enable_idle_detection=1", "max_idle_minute=9", "nonsense=1", status=2)
        self.assertEqual(config, self.json("config", "show")["config"])  # nothing half done
        self.ok("config", "set", "enable_idle_detection=1", "max_idle_minute=9")
        self.assertEqual(9, self.json("config")["config"]["max_idle_minute"])
        self.login("alice")
        self.assertNotEqual(0, self.json("list")["sessions"][0]["idle_time"])

        self.assertEqual(([], [], 5), tuple(self.json("lockouts")[f] for f in ("lockouts", "attempts", "attempt_count")))
        self.ok("lockouts", "clear", "alice", status=1)
        self.login("dora", "--sta-mac", "aa:bb:cc:dd:ee:01", service="captive portal", type="guest")
        self.assertEqual([("dora", "aa:bb:cc:dd:ee:01", "root")],
                         [(s["username"], s["sta_mac"], s["place"]) for s in self.json("stations")["stations"]])


class Changing(OnDaemon):
    def test_logouts(self):
        for name in "abc":
            self.login(name, "--unique", name + "1", "--ip", "192.0.2.7")
        self.ok("logout", status=2)
        self.assertEqual("would end a (ssh, user) from 192.0.2.7\n", self.ok("logout", "--username", "a", "--dry-run"))
        self.assertEqual(3, self.json("count")["count"])
        self.assertEqual("ended a (ssh, user) from 192.0.2.7\n", self.ok("logout", "--username", "a"))
        self.ok("logout", "--username", "a", status=1)
        self.assertEqual(["b"], [s["username"] for s in self.json("web-logout", "--unique", "b1")["sessions"]])
        self.ok("logout", "--username", "c", "--revocable")
        self.ok("revoke", "--username", "c")
        self.assertEqual(["c"], self.names())
        self.ok("logout", "--all")
        self.assertEqual([], self.names())

    def test_updates(self):
        with open("/etc/vekd/platform.conf", "w") as platform:
            platform.write("mode cloud\n")
        self.login("a", "--ip", "192.0.2.7", "--radius-profile-name", "old", "--sta-mac", "aa:bb:cc:dd:ee:01", service="802.1x")

        def session():
            return self.json("list")["sessions"][0]
        for words, field, value in (
                (("lease", "--username", "a", "--minutes", "5"), "lease_minute", 5),
                (("reauth", "--username", "a", "--minutes", "7"), "reauth_minute", 7),
                (("accounting", "--username", "a", "--accounting-status", "3"), "accounting_status", 3),
                (("profile", "--old-radius-profile-name", "old", "--radius-profile-name", "new"), "radius_profile_name", "new"),
                (("tty", "--username", "a", "--ssh-tty", "pts/3"), "ssh_tty", "pts/3"),
                (("roaming", "--username", "a", "--sta-mac", "aa:bb:cc:dd:ee:01", "--ip", "192.0.2.8"), "ip", "192.0.2.8"),
                (("idle", "--ip", "192.0.2.8"), "username", "a")):
            self.ok("update", *words)
            self.assertEqual(value, session()[field], words)
        self.ok("update", "lease", "--username", "nobody", "--minutes", "5", status=1)
        self.assertEqual((19, 0), tuple(self.json("update", "lease", "--username", "a", "--minutes", "0")[f] for f in ("event", "status")))
        self.assertEqual(0, session()["lease_time"])

    def test_the_library_example_reports(self):
        self.login("left", service="telnet")
        subprocess.run([EXAMPLE], check=True, timeout=30, capture_output=True)
        self.assertEqual(["left"], self.names())


class Refusing(OnDaemon):
    def test_usage(self):
        for words in (("list", "--nonsense"), ("list", "--columns", "nonsense"), ("list", "--ip", "1.2.3"), ("nonsense",),
                      ("login", "--username", "x" * 64), ("login", "--username", "a", "--type", "king"), ("list", "--timeout", "0"),
                      ("login", "--username", "a", "--ip", "1.2.3.4", "--ip6", "::1"), ("config", "set", "max_idle_minute=x")):
            self.ok(*words, status=2)
        self.assertIn('no command "lst"', run("lst").stderr)

    def test_a_stopped_daemon_and_a_closed_pipe(self):
        with open("/dev/full", "w") as full:
            self.assertEqual(1, subprocess.run([VEKCTL, "count"], stdout=full, stderr=subprocess.DEVNULL).returncode)
        os.kill(self.pid, signal.SIGSTOP)
        self.ok("count", "--timeout", "0.2", status=4)
        self.ok("login", "--username", "a", "--timeout", "0.2", status=4)

    def test_a_full_table(self):
        reporter = socket.socket(socket.AF_UNIX)
        self.addCleanup(reporter.close)
        reporter.connect("/dev/user-notify")
        for i in range(1034):
            record = bytearray(EVENT_SIZE)
            struct.pack_into("i", record, 0, 1)
            record[108:108 + 5] = b"u%04d" % i
            reporter.send(record)
            self.assertEqual(b"\0\0\0\0", reporter.recv(4))
        self.assertIn("refused", run("login", "--username", "late").stderr)
        self.ok("login", "--username", "late", status=1)
        self.assertEqual(1034, len(self.json("list")["sessions"]))


class WithoutDaemon(unittest.TestCase):
    def test_nobody_there(self):
        for words in (("count",), ("login", "--username", "a"), ("config",), ("lockouts",), ("stations",), ("config", "set", "max_idle_minute=1")):
            result = run(*words)
            self.assertEqual((3, 1), (result.returncode, result.stderr.count("\n")), (words, result.stderr))

    def test_an_answer_that_is_none(self):
        server = socket.socket(socket.AF_UNIX)
        self.addCleanup(server.close)
        if os.path.exists("/dev/user-request"):
            os.unlink("/dev/user-request")  # a daemon leaves its names
        server.bind("/dev/user-request")
        server.listen()
        asking = subprocess.Popen([VEKCTL, "count"], stderr=subprocess.PIPE, text=True)
        connection, _ = server.accept()
        self.addCleanup(connection.close)
        connection.recv(72)
        connection.send(b"\xff" * (EVENT_SIZE + 4))
        self.assertIn("vekctl: ", asking.communicate(timeout=10)[1])
        self.assertEqual(5, asking.returncode)
        os.unlink("/dev/user-request")

    def test_the_manual_names_every_option(self):
        manual = read(f"{SOURCE}/docs/man/vekctl.1.md").replace("\\-", "-")
        options = set()
        for words in ([], *([c] for c in re.findall(r"^  (\S+) {3,}", run("--help").stdout.split("Subcommands:")[1], re.M))):
            self.assertRegex(manual, rf"\*\*{words[0]}[* ]" if words else "vekctl")
            text = run(*words, "--help").stdout
            self.assertIn("Example: " if words else "Usage: ", text)
            options |= set(re.findall(r"--[a-z][\w-]+", text.split("Example:")[0]))
        self.assertEqual(set(), options - set(re.findall(r"--[a-z][\w-]+", manual)), "missing in the manual")
        self.assertEqual(set(), set(re.findall(r"\*\*(--[a-z][\w-]+)", manual)) - options - {"--all", "--dry-run"}, "only in the manual")

    def test_the_protocol_document_has_the_layouts(self):
        document = read(f"{SOURCE}/docs/protocol.md")
        for record, size in (("vek_event", 1136), ("user_info", 968)):
            table = re.search(r"## %s, %d bytes.*?\n\n(\|.*?)\n\n" % (record, size), document, re.S).group(1)
            rows = [[c.strip(" `") for c in row.split("|")[1:-1]] for row in table.splitlines()[2:]]
            at = 0
            for offset, length, *_ in rows:
                self.assertEqual(at, int(offset), record)
                at += int(length)
            self.assertEqual(size, at)
            self.assertEqual(fields_of(record), [row[2] for row in rows if row[3] != "padding"])
            asserted = dict(re.findall(r"VEK_AT\(%s, (\w+), (\d+)\)" % record, read(f"{SOURCE}/include/vek.h")))
            self.assertEqual(asserted, {row[2]: row[0] for row in rows if row[3] != "padding"})


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[5:])
