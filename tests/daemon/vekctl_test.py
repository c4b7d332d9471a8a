"""vekctl_test.py: vekctl against the real daemon: every command, the JSON shapes, every exit status, and that the
documents say what is so."""
import json, shlex, termios, unicodedata

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
        self.assertEqual({*vek.LAYOUTS["user_info"], "type_name"}, set(alice))
        self.assertEqual(["ssh", "192.0.2.7", "::", 60, 1, "user"],
                         [alice[f] for f in "service ip ip6 lease_minute type type_name".split()])
        for options, names in (
                ("", "alice carol robert"), ("--sort -username", "robert carol alice"), ("--user robert", "robert"),
                ("--sort service,-username", "carol alice robert"), ("--user nobody", ""), ("--user-part ro", "carol robert"),
                ("--ip 192.0.2.7", "alice carol"), ("--ip 192.0.2.7 --first", "alice"), ("--client a1", "alice"),
                ("--ip 192.0.2.4/30", "alice carol"), ("--ip 192.0.2.8/29", ""), ("--ip6 2001:db8::/33", "robert"),
                ("--ip 2001:db8::7", "robert"), ("--ip 0.0.0.0/0", "alice carol"), ("--ip ::/0", "robert"),
                ("--service telnet", "robert"), ("--type guest", "carol"), ("--service ssh --username alice", "alice")):
            self.assertEqual(names.split(), self.names("list " + options), options)
            if "--sort" not in options and "--first" not in options:
                self.assertEqual(f"{len(names.split())}\n", self.ok("count " + options))
        self.assertEqual([{"type": 2, "type_name": "guest", "address": "192.0.2.7"}],
                         self.json("list --type guest --columns type,address")["sessions"])
        self.assertIn('no service is called "sshh" (did you mean ssh?)', run("list --service sshh").stderr)
        self.assertRegex(self.ok("list"), r"\AUSERNAME +SERVICE +TYPE +ADDRESS .*\n"
                         r"alice +ssh +user +192\.0\.2\.7 +a1 +\d+s +(1h|59m)")
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
        self.ok("login --username alice --type user")
        line = json.loads(watch.stdout.readline())
        self.assertEqual({"version", "time", "event_name", "type_name", *vek.LAYOUTS["vek_event"]}, set(line))
        self.assertEqual((1, "login", "alice"), tuple(line[f] for f in ("event", "event_name", "username")))

        self.assertEqual(0, self.stop())  # its end is noticed, its successor found, the gap marked
        self.start()
        self.assertIs(True, json.loads(watch.stdout.readline())["gap"])
        self.ok("login --username bob --type user")
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
        self.ok("login --service 'captive portal' --username ev\x1b[2Jil\udcff --type user --sta-mac aa:bb:cc:dd:ee:01")
        self.assertEqual([("ev?[2Jil\ufffd", "aa:bb:cc:dd:ee:01", "root")],
                         [(s["username"], s["sta_mac"], s["place"]) for s in self.json("stations")["stations"]])
        self.assertEqual(["ev\x1b[2Jil\ufffd"], self.names())
        self.ok("logout --all")
        for name in "root", "child is x":
            self.ok(f"report login --service 'captive portal' --username '{name}' --type guest")
        self.assertEqual([("root", "", "root"), ("child is x", "", "right child")],
                         [(s["username"], s["sta_mac"], s["place"]) for s in self.json("stations")["stations"]])
        self.assertNotRegex(self.ok("list") + self.ok("stations"), "[\x1b\udcff]")
        self.assertEqual("9\n", self.ok("config get max_idle_minute"))
        self.ok("lockouts enable --attempts 3 --period 60")
        self.assertEqual([1, 3, 60], [self.json("lockouts")[f] for f in ("enable", "attempt_count", "lockout_period")])
        self.ok("lockouts disable")
        self.assertEqual([0, 3, 60], [self.json("lockouts")[f] for f in ("enable", "attempt_count", "lockout_period")])
        self.ok("lockouts clear alice", status=1)

    def test_no_command_ends_more_than_it_says(self):
        for name, rest in (("a", "ssh --type user"), ("b", "ssh --type guest"), ("c", "telnet --type guest --ip6 2001:db8::7")):
            self.ok(f"login --username {name} --unique {name}1 --service {rest}")
        for line in ("logout", "web-logout", "revoke", "report logout", "report 34", "report WEB_USER_LOGOUT", "logout --ip6 ::",
                     "report logout --ip6 ::", "report update-lease-time --minutes 1", "logout --user ''", "logout --sta-mac ''",
                     "logout --service ssh --default-lease-time 1", "logout --type guest --revocable", "logout --all --user a", "logout --ip 0.0.0.0/32 --revocable",
                     "update lease --type guest --user a --minutes 5", "report logout --user-part a"):
            self.ok(line, status=2)
        self.ok("logout --ip 192.0.2.0/24", status=1)
        self.assertEqual(list("abc"), self.names())
        self.assertEqual("ended b (ssh, guest)\n", self.ok("logout --service ssh --type guest"))
        self.assertEqual("ended c (telnet, guest) from 2001:db8::7\n", self.ok("report USER_LOGOUT --unique c1"))
        self.ok("login --username a --unique a1 --service ssh --type guest")  # which the daemon cannot tell from the other
        self.ok("logout --type guest", status=1)
        self.assertEqual(["user", "guest"], [s["type_name"] for s in self.json("list")["sessions"]])
        self.assertEqual("ended a (ssh, user)\nended a (ssh, guest)\n", self.ok("report logout --all"))

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
        nameless = "report login --type user --service ssh --unique 02:00:00:00:00:01"
        self.ok(nameless)
        self.ok("logout --all")
        self.assertEqual({"version": 1, "dry_run": False, "sessions": []}, self.json("logout --all"))
        self.ok(nameless)
        self.ok("report login --username left --type user")
        subprocess.run([f"{BUILD}/client/vek_example"], check=True, timeout=30, capture_output=True)  # ends what it began
        self.assertEqual(["left"], self.names())

    def test_updates(self):
        write(PLATFORM, "mode cloud\n")
        self.ok("login --service 802.1x --type user --username a --sta-mac aa:bb:cc:dd:ee:01 --radius-profile-name old")
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
                     "logout", "login --username a", "login --username " + "x" * 64, "login --username a --type king",
                     "login --username a --type user --ip 1.2.3.4 --ip6 ::1", "stats --json --prometheus", "config set max_idle_minute=x"):
            self.ok(line, status=2)
        self.assertIn('no command "lst"', run("--timeout 1 lst").stderr)
        with open("/dev/full", "w") as full:
            self.ok("count", status=1, stdout=full)
        self.kill(signal.SIGSTOP)
        self.ok("count --timeout 0.2", status=4)
        self.kill(signal.SIGCONT)

        self.assertEqual(0, self.stop())  # nobody there, and then somebody else
        for line in ("count", "login --username a --type user", "config", "lockouts", "stations"):
            self.ok(line, status=3)
        os.unlink("/dev/user-request")  # a daemon leaves its names
        with socket.create_server("/dev/user-request", family=socket.AF_UNIX) as server:
            asking = subprocess.Popen([VEKCTL, "count"])
            with server.accept()[0] as connection:
                connection.send(b"\xff" * 1140)
                self.assertEqual(5, asking.wait(10))

    def test_the_manual_names_every_option(self):
        manual = read(f"{vek.SOURCE}/docs/man/vekctl.1.md").replace("\\-", "-")

        def helps(command=""):
            text = run(command + " --help").stdout
            yield text.split("Example: ")[0]
            for word in re.findall(r"^  (\S+) {3,}", text.partition("Subcommands:")[2], re.M):
                self.assertRegex(manual, rf"\*\*{(command + ' ' + word).split()[0]}[* ]")
                yield from helps(f"{command} {word}")

        usage = "".join(helps())
        option = r"--[a-z][\w-]+"
        options = set(re.findall(option, usage))
        self.assertEqual(set(), options - set(re.findall(option, manual)), "missing in the manual")
        self.assertEqual(set(), set(re.findall(rf"\*\*({option})", manual)) - options, "only in the manual")

    def test_the_protocol_document_has_the_layouts(self):
        document = read(f"{vek.SOURCE}/docs/protocol.md")
        for record, size in (("vek_event", 1136), ("user_info", 968)):
            table = re.search(r"## %s, %d bytes.*?\n\n(\|.*?)\n\n" % (record, size), document, re.S).group(1)
            rows = [[c.strip(" `") for c in row.split("|")[1:-1]] for row in table.splitlines()[2:]]
            sizes = {"i32": 4, "u32": 4, "u64": 8, "u8": 1, "IPv4": 4, "IPv6": 16}
            ends = [int(at) + (sizes.get(kind) or int(kind.split()[1])) for at, kind, *_ in rows]
            self.assertEqual([0, *ends], [*(int(row[0]) for row in rows), size], record)
            self.assertEqual(vek.LAYOUTS[record], {row[2]: int(row[0]) for row in rows if "pad" not in row[1]})

    def test_the_example_in_python_misses_nothing(self):
        def example(*arguments, **options):
            program = ["timeout", str(LIMIT), f"{vek.SOURCE}/client/example/vekd_protocol.py", *arguments]
            return subprocess.Popen(program, text=True, **options)

        self.assertEqual([0, 0], [example("login", "ssh", name, "1").wait(LIMIT) for name in ("alice", "bob")])
        following = example("follow", "2", stdout=subprocess.PIPE)
        self.assertEqual("logged in: ssh alice alice 1\n", following.stdout.readline())  # from here on all is seen
        self.assertEqual([0, 1], [example("logout", "ssh", "alice", key).wait(LIMIT) for key in "12"])
        self.assertEqual(0, example("login", "ssh", "eve", "1").wait(LIMIT))
        self.assertEqual("logged in: ssh bob bob 1\nevent 4: ssh alice 1\nevent 1: ssh eve 1\n",
                         following.stdout.read())
        self.assertEqual(0, following.wait(LIMIT))
        following.stdout.close()

    def test_tables_fit_the_terminal(self):
        name = "Александра-Константиновна-山田太郎"
        self.ok(f"login --service 'google authenticator' --username {name} --type ext-group --unique {'k' * 60} "
                "--ip6 2001:db8:1234:5678:9abc:def0:1234:5678 --default-lease-time 1439")
        self.ok("login --service ssh --username bob --type user")
        for width, language, full in itertools.product((60, 80, 200), ("C.UTF-8", "C"), ("", " --full")):
            ours, its = os.openpty()
            termios.tcsetwinsize(its, (2, width))
            environment = {**os.environ, "LC_ALL": language, "PAGER": "sed 's/^/paged: /'"}
            self.ok("list" + full, stdin=its, stdout=its, env=environment)
            os.close(its)
            with open(ours, "rb", 0) as terminal, contextlib.suppress(OSError):  # which ends its text
                text = b""
                while part := terminal.read(9999):
                    text += part
            lines = text.decode().splitlines()
            shown = [line.removeprefix("paged: ") for line in lines]
            self.assertNotEqual(shown, lines, "longer than the terminal")
            columns = [sum(2 if unicodedata.east_asian_width(c) == "W" else 1 for c in line) for line in shown]
            self.assertTrue(full or max(columns) <= width, shown)
            self.assertRegex("\n".join(shown), r" ext-group .* 23h\d\dm(\n|$)")
            self.assertEqual(language == "C", "".join(shown).isascii(), shown)
            self.assertTrue("k" * 60 in "".join(shown) or not full, shown)

    def test_status_says_what_is_wrong(self):
        def status(code):
            if self.pid:
                self.settle()  # until whoever asked before has gone
            said = json.loads(self.ok("status --json", status=code))
            return said["running"], said["answers"], said["sessions"], said["connections"], " ".join(said["problems"])

        self.ok("login --username a --type user")
        self.assertEqual((True, True, 1, 2, ""), status(0))  # the test's own connections
        self.ok("lockouts enable")
        self.addCleanup(subprocess.run, ["ipcrm", "-M", "0x11111112"], stderr=subprocess.DEVNULL)
        subprocess.run(["ipcrm", "-M", "0x11111112"], check=True)
        self.assertEqual((True, True, 1, 2, "there is no logon configuration block, which vekd makes when it starts"), status(3))
        subprocess.run(["python3", "-c", "import ctypes; ctypes.CDLL(None).shmget(0x11111112, 10, 0o1666)"], check=True)
        self.assertEqual((True, True, 1, 2, "the logon configuration block is not of vekd's size"), status(5))
        self.assertRegex(self.ok("status", status=5), r"lockouts +0, enabled\n")
        subprocess.run(["ipcrm", "-M", "0x11111112"], check=True)
        self.assertEqual(0, self.stop())
        self.assertEqual((False, False, None, 0), status(3)[:4])

    def test_completion_in_bash(self):
        script = ('. packaging/completion/vekctl.bash; COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)); _vekctl; '
                  'printf "%s\\n" "${COMPREPLY[@]}"')
        for words, completed in (
                ("vekctl lo", "login logout lockouts"), ("vekctl config s", "show set"), ("vekctl list --us", "--user --username --user-part"),
                ("vekctl list --service c", r"console captive\ portal"), ("vekctl list --service 'captive p'", r"captive\ portal"),
                ("vekctl list --columns type,usern", "type,username"), ("vekctl report user-tunnel-", "user-tunnel-up user-tunnel-down"),
                ("vekctl config set max_i", "max_idle_minute="), ("vekctl login --type = l", "limited"), ("vekctl list --user a", "")):
            found = subprocess.run(["bash", "-c", script, "-", *shlex.split(words)], cwd=vek.SOURCE, text=True, check=True,
                                   stdout=subprocess.PIPE, env={**os.environ, "PATH": f"{BUILD}/tools:{os.environ['PATH']}"})
            self.assertEqual(completed, found.stdout.strip().replace("\n", " "), words)
