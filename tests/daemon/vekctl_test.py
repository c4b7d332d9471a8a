"""vekctl_test.py: vekctl against the real daemon: every command, the JSON shapes, every exit status, and that the
documents say what is so."""
import json, shlex

import vek
from device import *

VEKCTL = f"{BUILD}/tools/vekctl"


def run(line, **options):
    return subprocess.run([VEKCTL, *shlex.split(line)], stderr=subprocess.PIPE, text=True, errors="surrogateescape",
                          timeout=60, **{"stdout": subprocess.PIPE, **options})


class Vekctl(OnDevice):
    def setUp(self):
        super().setUp()
        self.start()

    def ok(self, line, status=0, **options):
        result = run(line, **options)
        self.assertEqual(status, result.returncode, f"{line}: {result.stdout}{result.stderr}")
        if status:
            self.assertRegex(result.stderr, r"\Avekctl: [^\n]+\n\Z", line)
        return result.stdout

    def json(self, line):
        value = json.loads(self.ok(line + " --json"))
        self.assertEqual(1, value["version"])
        return value

    def names(self, line="list"):
        return [session["username"] for session in self.json(line)["sessions"]]

    def test_sessions(self):
        self.ok("login --service ssh --username alice --type user --ip 192.0.2.7 --unique a1 --default-lease-time 60")
        self.ok("login --service telnet --username bob --type user --ip6 2001:db8::7 --real_username robert")
        self.ok("login --service ssh --username carol --type guest --ip 192.0.2.7 --session-timeout 30")

        alice = self.json("list")["sessions"][0]
        self.assertEqual(list(vek.LAYOUTS["user_info"]), list(alice))
        self.assertEqual(("ssh", "192.0.2.7", "::", 60), tuple(alice[f] for f in "service ip ip6 lease_minute".split()))
        for options, names in (
                ("", "alice carol robert"), ("--sort -username", "robert carol alice"), ("--user robert", "robert"),
                ("--user nobody", ""), ("--ip 192.0.2.7", "alice carol"), ("--ip 192.0.2.7 --first", "alice"),
                ("--ip 2001:db8::7", "robert"), ("--service telnet", "robert"), ("--type guest", "carol")):
            self.assertEqual(names.split(), self.names("list " + options), options)
        self.assertRegex(self.ok("list"), r"\AUSERNAME +SERVICE +TYPE +ADDRESS .*\n"
                         r"alice +ssh +user +192\.0\.2\.7 +a1 +\d+s ago +expires in (1h|59m)")
        self.assertRegex(self.ok("list --no-header --columns username,ip"), r"\Aalice +192\.0\.2\.7 *\n")
        shown = dict(line.split(None, 1) for line in self.ok("show 2001:db8::7 --no-header").splitlines())
        self.assertEqual(list(vek.LAYOUTS["user_info"]), list(shown))

        self.assertEqual(("3\n", 3), (self.ok("count"), self.json("count")["count"]))
        stats = self.json("stats")
        self.assertEqual((3, 1034), (stats["sessions"], stats["table_size"]))
        self.assertEqual([("ssh", 2), ("telnet", 1)], [(s["service"], s["sessions"]) for s in stats["by_service"]])
        self.assertEqual({"lease_time": "alice", "session_timeout": "carol"},
                         {due["deadline"]: due["username"] for due in stats["next_deadlines"]})
        prometheus = self.ok("stats --prometheus")
        self.assertIn('vekd_sessions{service="ssh",type="guest",family="ipv4"} 1\n', prometheus)
        self.assertRegex(prometheus, r"\A(# (HELP|TYPE) .*\n|\w+(\{.*\})? -?\d+\n)+\Z")

    def wait_until_it_asked(self, watch):
        # Its connection is there and it sleeps.
        wait_for(lambda: re.search(r" 03 .*/dev/user-request$", read("/proc/net/unix"), re.M)
                 and ") S " in read(f"/proc/{watch.pid}/stat"))

    def test_watch(self):
        watch = subprocess.Popen([VEKCTL, "watch", "--json", "--count", "3"], stdout=subprocess.PIPE, text=True)
        self.wait_until_it_asked(watch)
        self.ok("login --username alice")
        line = json.loads(watch.stdout.readline())
        self.assertEqual({"version", "time", "event_name", *vek.LAYOUTS["vek_event"]}, set(line))
        self.assertEqual((1, "login", "alice"), tuple(line[f] for f in ("event", "event_name", "username")))

        self.assertEqual(0, self.stop())  # its end is noticed, its successor found, the gap marked
        self.start()
        self.assertIs(True, json.loads(watch.stdout.readline())["gap"])
        self.ok("login --username bob")
        self.ok("logout --username bob")
        rest = watch.communicate(timeout=10)[0]
        self.assertEqual(["login", "logout"], [json.loads(line)["event_name"] for line in rest.splitlines()])
        self.assertEqual(0, watch.returncode)
        self.ok("watch --for 0.1 --count 1", status=4)
        self.kill(signal.SIGSTOP)
        watch = subprocess.Popen([VEKCTL, "watch", "--timeout", "60"])
        self.wait_until_it_asked(watch)
        watch.terminate()  # which does not have to wait for an answer
        self.assertEqual(0, watch.wait(10))
        self.kill(signal.SIGCONT)

    def test_blocks(self):
        config = self.json("config")["config"]
        self.ok("config set enable_idle_detection=1 nonsense=1", status=2)
        self.assertEqual(config, self.json("config show")["config"])  # nothing half done
        self.ok("config set enable_idle_detection=1 max_idle_minute=9")
        self.assertEqual(9, self.json("config")["config"]["max_idle_minute"])
        self.ok("login --service 'captive portal' --username ev\x1b[2Jil\udcff --sta-mac aa:bb:cc:dd:ee:01")
        self.assertEqual([("ev?[2Jil\ufffd", "aa:bb:cc:dd:ee:01", "root")],
                         [(s["username"], s["sta_mac"], s["place"]) for s in self.json("stations")["stations"]])
        self.assertEqual(["ev\x1b[2Jil\ufffd"], self.names())
        self.assertNotRegex(self.ok("list") + self.ok("stations"), "[\x1b\udcff]")
        self.assertEqual(5, self.json("lockouts")["attempt_count"])
        self.ok("lockouts clear alice", status=1)

    def test_logouts(self):
        for name in "abc":
            self.ok(f"login --service ssh --username {name} --type user --unique {name}1 --ip 192.0.2.7")
        self.assertEqual("would end a (ssh, user) from 192.0.2.7\n", self.ok("logout --username a --dry-run"))
        self.assertEqual("ended a (ssh, user) from 192.0.2.7\n", self.ok("logout --username a"))
        self.ok("logout --username a", status=1)
        self.assertEqual(["b"], self.names("web-logout --unique b1"))
        self.ok("logout --username c --revocable")
        self.ok("revoke --username c")
        self.assertEqual(["c"], self.names())
        # Whom nothing names but a station's address, which without a name would mean other sessions.
        nameless = "report login --service ssh --unique 02:00:00:00:00:01"
        self.ok(nameless)
        self.ok("logout --all")
        self.assertEqual({"version": 1, "dry_run": False, "sessions": []}, self.json("logout --all"))
        self.ok(nameless)
        self.ok("report login --username left --real-username left")
        subprocess.run([f"{BUILD}/client/vek_example"], check=True, timeout=30, capture_output=True)  # ends what it began
        self.assertEqual(["left"], self.names())

    def test_updates(self):
        write(PLATFORM, "mode cloud\n")
        self.ok("login --service 802.1x --username a --sta-mac aa:bb:cc:dd:ee:01 --radius-profile-name old")
        for update, field, value in (
                ("lease --username a --minutes 5", "lease_minute", 5),
                ("reauth --username a --minutes 7", "reauth_minute", 7),
                ("accounting --username a --accounting-status 3", "accounting_status", 3),
                ("profile --old-radius-profile-name old --radius-profile-name new", "radius_profile_name", "new"),
                ("tty --username a --ssh-tty pts/3", "ssh_tty", "pts/3"),
                ("roaming --username a --sta-mac aa:bb:cc:dd:ee:01 --ip 192.0.2.8", "ip", "192.0.2.8"),
                ("idle --ip 192.0.2.8", "username", "a")):
            self.assertEqual(0, self.json("update " + update)["status"])
            self.assertEqual(value, self.json("list")["sessions"][0][field], update)
        self.ok("update lease --username nobody --minutes 5", status=1)

    def test_statuses(self):
        for line in ("list --nonsense", "list --columns nonsense", "list --ip 1.2.3", "list --timeout 0", "lst",
                     "logout", "login --username " + "x" * 64, "login --username a --type king",
                     "login --username a --ip 1.2.3.4 --ip6 ::1", "stats --json --prometheus", "config set max_idle_minute=x"):
            self.ok(line, status=2)
        self.assertIn('no command "lst"', run("--timeout 1 lst").stderr)
        with open("/dev/full", "w") as full:
            self.ok("count", status=1, stdout=full)
        self.kill(signal.SIGSTOP)
        self.ok("count --timeout 0.2", status=4)
        self.kill(signal.SIGCONT)

        self.assertEqual(0, self.stop())  # nobody there, and then somebody else
        for line in ("count", "login --username a", "config", "lockouts", "stations"):
            self.ok(line, status=3)
        os.unlink("/dev/user-request")  # a daemon leaves its names
        with socket.create_server("/dev/user-request", family=socket.AF_UNIX) as server:
            asking = subprocess.Popen([VEKCTL, "count"])
            with server.accept()[0] as connection:
                connection.send(b"\xff" * 1140)
                self.assertEqual(5, asking.wait(10))

    def test_the_manual_names_every_option(self):
        manual = read(f"{vek.SOURCE}/docs/man/vekctl.1.md").replace("\\-", "-")
        usage = run("--help").stdout
        for command in re.findall(r"^  (\S+) {3,}", usage.split("Subcommands:")[1], re.M):
            self.assertRegex(manual, rf"\*\*{command}[* ]")
            usage += run(command + " --help").stdout.split("Example: ")[0]
        option = r"--[a-z][\w-]+"
        options = set(re.findall(option, usage))
        self.assertEqual(set(), options - set(re.findall(option, manual)), "missing in the manual")
        self.assertEqual(set(), set(re.findall(rf"\*\*({option})", manual)) - options, "only in the manual")

    def test_the_protocol_document_has_the_layouts(self):
        document = read(f"{vek.SOURCE}/docs/protocol.md")
        for record, size in (("vek_event", 1136), ("user_info", 968)):
            table = re.search(r"## %s, %d bytes.*?\n\n(\|.*?)\n\n" % (record, size), document, re.S).group(1)
            rows = [[c.strip(" `") for c in row.split("|")[1:-1]] for row in table.splitlines()[2:]]
            ends = [int(offset) + int(length) for offset, length, *_ in rows]
            self.assertEqual([0, *ends], [*(int(row[0]) for row in rows), size], record)
            self.assertEqual(vek.LAYOUTS[record], {row[2]: int(row[0]) for row in rows if row[3] != "padding"})

