"""logins_test.py: people log in by ssh, telnet, on the console and by ftp, through Debian's own servers and the module.
What holds for each of them is in Logins; the classes say how one logs in there, and what is its own."""
import ftplib

from host import *


class Logins:
    """`login(user)` gives a client with ended() and close(); FIELDS is what its session has."""
    WORDS = "timeout=500"  # for the module
    SEVERAL = True  # at a time

    def setUp(self):
        super().setUp()
        pam_words(self.WORDS)
        self.serve()

    def restart_daemon(self):
        self.kill(signal.SIGKILL)
        exit_status(self.pid)
        os.unlink(vek.PID_FILE)
        self.start()

    def words(self, words):
        pam_words(words, "common-session")

    def test_appears_and_is_ended(self):
        alice, bob = self.login("alice"), self.login("bob")
        session = self.session("alice", **self.FIELDS)
        self.assertEqual((vek.USER_TYPE, "alice"), (session.type, session.virtual_username))
        self.session("bob", **self.FIELDS)
        self.assertIn("alice", self.vekctl("list"))
        self.vekctl("logout", "--username", "alice")
        wait_for(alice.ended)
        self.assertFalse(bob.ended())
        self.assertEqual(["bob"], users(self.sessions()))
        bob.leave()
        wait_for(bob.ended)
        wait_for(lambda: not self.sessions())

    def test_groups_and_times(self):
        self.words("admin=wheel limited=helpdesk lease=60 idle=600 session=7200")
        for user, type in ("alice", vek.USER_TYPE), ("bob", vek.ADMIN_TYPE), ("carol", vek.LIMIT_TYPE):
            self.login(user)
            session = self.session(user, type=type)
            self.assertEqual((60, 600, self.now + 7200),
                             (session.lease_minute, session.idle_timeout, session.session_timeout))

    def test_session_timeout(self):
        self.words("session=60")
        alice = self.login("alice")
        self.session("alice", **self.FIELDS)
        self.tick(61)
        self.assertEqual([], self.sessions())
        wait_for(alice.ended)

    def test_without_daemon(self):
        self.stop()
        alice = self.login("alice")
        wait_for(lambda: "who is let in nonetheless: Connection refused" in read(SCRATCH + "log"))
        self.assertFalse(alice.ended())
        self.words("on_error=deny")
        self.denied("bob")
        wait_for(lambda: "bob, who is not let in: Connection refused" in read(SCRATCH + "log"))
        self.start()
        alice.leave()
        wait_for(alice.ended)
        wait_for(lambda: not self.sessions())

    def test_daemon_hangs(self):
        self.kill(signal.SIGSTOP)
        start = time.monotonic()
        alice = self.login("alice")
        self.assertLess(time.monotonic() - start, self.USUAL + 0.5 * SLOWER)
        wait_for(lambda: "nonetheless: Connection timed out" in read(SCRATCH + "log"))
        if self.SEVERAL:
            self.words("on_error=deny")
            self.denied("bob")
        self.kill(signal.SIGCONT)
        self.session("alice", **self.FIELDS)  # the daemon read it after all; and of bob what took it back
        self.assertEqual(["alice"], users(self.sessions()))
        self.kill(signal.SIGSTOP)
        alice.leave()
        wait_for(alice.ended)
        wait_for(lambda: "logout of alice: Connection timed out" in read(SCRATCH + "log"))
        self.kill(signal.SIGCONT)
        wait_for(lambda: not self.sessions())

    def test_daemon_restarts(self):
        alice = self.login("alice")
        self.session("alice", **self.FIELDS)
        self.restart_daemon()
        bob = self.login("bob")
        self.session("bob", **self.FIELDS)
        alice.leave()
        wait_for(alice.ended)
        self.assertEqual(["bob"], users(self.sessions()))
        self.assertFalse(bob.ended())


class Typing(Terminal):
    """A login shell on a terminal, whose prompt has come."""
    def arrive(self):
        self.expect("$ ")
        self.type("tty")
        self.expect("/dev/")
        self.tty = self.expect("\r\n").strip()
        self.expect("$ ")
        return self

    def leave(self):
        self.type("exit")


class OnTerminal(Logins):
    TERMINAL = Typing

    def login(self, user):
        return self.connect(user).arrive()

    def denied(self, user):
        client = self.connect(user)
        wait_for(client.ended)
        self.assertNotIn("$ ", client.text)


class Ssh(OnTerminal, OnHost):
    PORT, USUAL = "2222", 1
    FIELDS = {"service": "ssh", "ip": vek.in4("127.0.0.1")}

    def serve(self):
        os.makedirs("/run/sshd", exist_ok=True)
        if not os.path.exists("/tmp/key"):
            run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", "/tmp/key")
        write("/tmp/sshd_config", f"""Port {self.PORT}
            HostKey /tmp/key
            UsePAM yes
            KbdInteractiveAuthentication no
            PidFile none
            """)
        write("/tmp/ask", f"#!/bin/sh\necho {PASSWORD}\n", 0o755)
        write("/tmp/ask-wrong", "#!/bin/sh\necho no idea\n", 0o755)
        self.background("/usr/sbin/sshd", "-D", "-e", "-f", "/tmp/sshd_config")
        wait_for_port(self.PORT)

    def connect(self, user, *words, host="127.0.0.1", ask="/tmp/ask"):
        return self.terminal("ssh", "-F", "none", "-p", self.PORT, "-o", "StrictHostKeyChecking=no", "-o",
                             "LogLevel=ERROR", "-o", "UserKnownHostsFile=/dev/null", "-o", "NumberOfPasswordPrompts=1",
                             f"{user}@{host}", *words, SSH_ASKPASS=ask, SSH_ASKPASS_REQUIRE="force")


    def test_ipv6(self):
        alice = self.connect("alice", host="::1").arrive()
        session = self.session("alice", ssh_tty=alice.tty)
        self.assertEqual(list(vek.in6("::1")), list(session.ip6))
        self.vekctl("logout", "--ip6", "::1")
        wait_for(alice.ended)

    def test_without_terminal(self):
        """No shell that the daemon could find."""
        alice = self.connect("alice", "cat")
        self.session("alice", ssh_tty="")
        self.vekctl("logout", "--username", "alice")
        wait_for(alice.ended)

    def test_outlives_daemon_and_server(self):
        alice = self.login("alice")
        self.session("alice", ssh_tty=alice.tty)
        self.restart_daemon()
        session = self.session("alice", 3 * LIMIT, ssh_tty=alice.tty, **self.FIELDS)
        os.kill(int(session.unique), signal.SIGKILL)
        wait_for(lambda: not self.sessions())

    def test_wrong_passwords_lock(self):
        auth = pathlib.Path("/etc/pam.d/common-auth")
        auth.write_text(re.sub("(pam_unix.so.*)", r"\1 nodelay", auth.read_text()))
        for _ in range(5):
            wait_for(self.connect("alice", ask="/tmp/ask-wrong").ended)
        self.denied("bob")
        self.assertIn("127.0.0.1", self.vekctl("lockouts"))
        self.connect("carol", host="::1").arrive()
        self.assertIn("cleared the lockout of alice", self.vekctl("lockouts", "clear", "127.0.0.1"))
        self.login("bob")


class Telnet(OnTerminal, OnHost):
    PORT, USUAL = "2323", 1
    FIELDS = {"service": "telnet", "ip": vek.in4("127.0.0.1")}
    WORDS = Logins.WORDS + " resolve"  # the server says the name

    def serve(self):
        server = socket.create_server(("127.0.0.1", int(self.PORT)))
        self.addCleanup(server.close)
        self.process(self.serve_telnet, server)

    @staticmethod
    def serve_telnet(server):
        signal.signal(signal.SIGCHLD, signal.SIG_IGN)
        while True:
            client, _ = server.accept()
            ends = [(os.POSIX_SPAWN_DUP2, client.fileno(), fd) for fd in range(3)]
            os.posix_spawn("/usr/sbin/telnetd", ["telnetd"], os.environ, file_actions=ends)
            client.close()

    def connect(self, user):
        client = self.terminal("/usr/bin/inetutils-telnet", "127.0.0.1", self.PORT, TERM="dumb")
        client.expect("login: ")
        client.type(user)
        client.expect("Password: ")
        client.type(PASSWORD)
        return client


class Console(OnTerminal, OnHost):
    USUAL = 1
    FIELDS = {"service": "console", "ip": 0}
    SEVERAL = False

    def serve(self):
        pass

    def connect(self, user):
        console = self.terminal("/bin/login", TERM="dumb")
        # Where the kernel has its console is where the daemon looks for the shell.
        if user == "alice":
            write("/proc/consoles", f"tty0 -WU (EC p ) 136:{console.number()}\n")
        console.expect("login: ")
        console.type(user)
        console.expect("Password: ")
        console.type(PASSWORD)
        return console


class FtpClient(ftplib.FTP):
    def ended(self):
        poll = select.poll()
        poll.register(self.sock, select.POLLIN | select.POLLRDHUP)
        return bool(poll.poll(0))

    def leave(self):
        self.putcmd("QUIT")


@unittest.skipIf(SANITIZED, "the server allows itself less memory than a sanitizer takes")
class Ftp(Logins, OnHost):
    PORT, USUAL = "2121", 1
    FIELDS = {"service": "ftp", "ip": vek.in4("127.0.0.1")}

    def serve(self):
        os.makedirs("/run/vsftpd/empty", exist_ok=True)
        write("/tmp/vsftpd.conf", f"""listen=YES
listen_port={self.PORT}
local_enable=YES
anonymous_enable=NO
session_support=YES
pam_service_name=vsftpd
secure_chroot_dir=/run/vsftpd/empty
background=NO
isolate=NO
""")
        self.background("/usr/sbin/vsftpd", "/tmp/vsftpd.conf")
        wait_for_port(self.PORT)

    def login(self, user):
        client = FtpClient()
        self.addCleanup(client.close)
        client.connect("127.0.0.1", int(self.PORT), LIMIT)
        client.login(user, PASSWORD)
        return client

    def denied(self, user):
        with self.assertRaises((ftplib.Error, EOFError)):
            self.login(user)
