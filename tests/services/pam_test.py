"""pam_test.py: the module by itself, in a program that does with libpam what servers do: what is reported of whom, who
is locked out, and what neither may depend on. The servers themselves are in logins_test.py."""
import multiprocessing

from host import *

PAM = ctypes.CDLL("libpam.so.0")
PAM.pam_strerror.restype = ctypes.c_char_p
SERVICE, USER, TTY, RHOST = 1, 2, 3, 4  # of pam_set_item
SUCCESS, AUTH_ERR, SESSION_ERR = 0, 7, 14


class Message(ctypes.Structure):
    _fields_ = [("style", ctypes.c_int), ("text", ctypes.c_char_p)]


class Response(ctypes.Structure):
    _fields_ = [("text", ctypes.c_void_p), ("code", ctypes.c_int)]


CONVERSATION = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_int, ctypes.POINTER(ctypes.POINTER(Message)),
                                ctypes.POINTER(ctypes.POINTER(Response)), ctypes.c_void_p)


class Conversation(ctypes.Structure):
    _fields_ = [("talk", CONVERSATION), ("data", ctypes.c_void_p)]


LIBC.calloc.restype = LIBC.strdup.restype = ctypes.c_void_p


class Program:
    """One login of a user: a handle of libpam. `asked` is how often it was asked for the password."""
    def __init__(self, user="alice", service="sshd", tty=None, rhost="192.0.2.7", password=PASSWORD):
        self.asked, self.handle = 0, ctypes.c_void_p()
        def talk(count, messages, responses, data):
            self.asked += 1
            responses[0] = ctypes.cast(LIBC.calloc(count, ctypes.sizeof(Response)), ctypes.POINTER(Response))
            for i in range(count):
                responses[0][i].text = LIBC.strdup(password.encode())
            return SUCCESS
        self.conversation = Conversation(CONVERSATION(talk), None)
        assert PAM.pam_start(service.encode(), user.encode(), ctypes.byref(self.conversation),
                             ctypes.byref(self.handle)) == SUCCESS
        for item, value in (TTY, tty), (RHOST, rhost):
            if value is not None:
                PAM.pam_set_item(self.handle, item, value.encode("utf-8", "surrogateescape"))

    def __getattr__(self, call):
        return lambda: getattr(PAM, "pam_" + call)(self.handle, 0)

    def log_in(self):
        return self.authenticate() or self.acct_mgmt() or self.setcred() or self.open_session()


class Pam(OnHost):
    def setUp(self):
        super().setUp()
        write("/etc/pam.d/other", "auth required pam_permit.so\naccount required pam_permit.so\n")
        for service in "sshd", "login", "vsftpd", "ppp", "odd", "su":
            self.lines(service)
        os.environ.pop("TZ", None)

    def lines(self, service, session="timeout=500", lockout="attempts=5 period=30"):
        """The profiles' lines, without what is between them on Debian and takes seconds."""
        write(f"/etc/pam.d/{service}", f"""
            auth [auth_err=die default=ignore] pam_vekd.so preauth {lockout}
            auth [success=2 default=ignore] pam_unix.so nodelay
            auth [default=ignore] pam_vekd.so authfail {lockout}
            auth requisite pam_deny.so
            auth required pam_permit.so
            account required pam_permit.so
            account [default=ignore] pam_vekd.so
            session required pam_permit.so
            session [session_err=bad default=ignore] pam_vekd.so keeper=/bin/true {session}""")

    def says(self, text):
        """In the system log, whose reader may be behind."""
        wait_for(lambda: text in log_lines())

    def opened(self, *keys, **items):
        """What the daemon has of a session that was opened so, and the program."""
        program = Program(*keys, **items)
        self.assertEqual(SUCCESS, program.open_session())
        found = self.sessions()
        self.assertEqual(1, len(found), log_lines())
        return found[0], program

    def test_what_is_reported(self):
        self.lines("odd", "map=odd:web,map=x map=su:dialin timeout=500 nonsense lease=x on_error=perhaps map=:")
        master, slave = os.openpty()
        self.addCleanup(os.close, master)
        self.addCleanup(os.close, slave)
        pts, me = os.ttyname(slave)[5:], str(os.getpid())
        for items, service, unique in (
                ({"service": "sshd", "tty": "ssh"}, "ssh", me),
                ({"service": "login", "tty": "/dev/" + pts, "rhost": ""}, "console", pts),
                ({"service": "login", "tty": pts}, "telnet", pts),
                ({"service": "login", "tty": "pts/9999", "rhost": None}, "console", me),
                ({"service": "vsftpd", "tty": "ftp"}, "ftp", me),
                ({"service": "ppp", "tty": "/dev/" + pts}, "dialin", pts),
                ({"service": "odd", "tty": "x" * 200}, "web,map=x", me),
                ({"service": "su", "tty": None}, "unknown", me)):
            with self.subTest(**items):
                session, program = self.opened(**items)
                self.assertEqual((service, unique, "alice", "alice", vek.USER_TYPE),
                                 (session.service, session.unique, session.username, session.virtual_username,
                                  session.type))
                self.assertEqual(SUCCESS, program.close_session())
                self.assertEqual([], self.sessions())
        for wrong in "nonsense", "lease=x", "on_error=perhaps", "map=:":
            self.says(f"not an option, or not a value of it: {wrong}\n")

    def test_addresses(self):
        own("hosts").write_text("192.0.2.9 elsewhere\n2001:db8::9 elsewhere6\n")
        own("nsswitch.conf").write_text("passwd: files\ngroup: files\nshadow: files\nhosts: files\n")
        for rhost, ip, ip6 in (("192.0.2.7", "192.0.2.7", "::"), ("2001:db8::7", "0.0.0.0", "2001:db8::7"),
                               ("::ffff:192.0.2.8", "192.0.2.8", "::"), ("fe80::1%eth0", "0.0.0.0", "fe80::1"),
                               ("elsewhere", "0.0.0.0", "::"), ("192.0.2.7.example.org", "0.0.0.0", "::"),
                               ("1" * 500, "0.0.0.0", "::"), ("", "0.0.0.0", "::"), ("%", "0.0.0.0", "::")):
            with self.subTest(rhost):
                session, program = self.opened(rhost=rhost)
                self.assertEqual((vek.in4(ip), list(vek.in6(ip6))), (session.ip, list(session.ip6)))
                program.close_session()
                self.assertEqual([], self.sessions())
        self.lines("sshd", "resolve timeout=500")
        for rhost in "elsewhere", "elsewhere6", "nowhere":
            session, program = self.opened(rhost=rhost)
            self.assertEqual(rhost == "elsewhere", session.ip == vek.in4("192.0.2.9"))
            self.assertEqual(rhost == "elsewhere6", list(session.ip6) == list(vek.in6("2001:db8::9")))
            program.close_session()

    def test_only(self):
        self.lines("su", "only=ssh,ftp map=su:ss timeout=500")
        self.lines("sshd", "only=ftp,ssh")
        self.assertEqual(SUCCESS, Program(service="su").open_session())
        self.assertEqual([], self.sessions())
        self.opened()

    def test_closed_by_another_process(self):
        first, program = self.opened()
        child = multiprocessing.get_context("fork").Process(target=program.close_session)
        child.start()
        child.join()
        self.assertEqual([], self.sessions())
        # One that knows nothing of the opening: as long as it is clear which is meant.
        self.opened()
        self.assertEqual(SUCCESS, Program(user="bob").close_session())
        self.assertEqual(SUCCESS, Program(rhost="192.0.2.8").close_session())
        self.assertEqual(["alice"], users(self.sessions()))
        self.service.login("ssh", "alice", "another", vek.in4("192.0.2.7"))
        Program().close_session()
        self.assertEqual(2, len(self.sessions()))
        self.service.logout("ssh", "alice", "another", vek.in4("192.0.2.7"))
        Program().close_session()
        self.assertEqual([], self.sessions())
        master, slave = os.openpty()
        items = {"service": "login", "tty": os.ttyname(slave)}
        self.opened(**items)
        self.service.login("telnet", "alice", "pts/77", vek.in4("192.0.2.7"))
        Program(**items).close_session()
        self.assertEqual(["pts/77"], [s.unique for s in self.sessions()])
        os.close(master)
        os.close(slave)

    def test_full_table(self):
        self.service.fill(vek.MAX_USERS)
        self.assertEqual(SUCCESS, Program().open_session())
        self.says("vekd refuses the login of alice, who is let in nonetheless\n")
        self.lines("sshd", "on_error=deny")
        self.assertEqual(SESSION_ERR, Program("bob").open_session())
        self.says("vekd refuses the login of bob, who is not let in\n")
        self.assertEqual([], self.sessions("alice") + self.sessions("bob"))

    def ftp_table(self):
        return self.shared(vek.ClientTerminateList, vek.PUREFTP_IPC_SHM_KEY)

    def ftp_session(self, user="alice", **items):
        """Of a process of its own, which ends it on SIGTERM."""
        def serve(ready):
            program = Program(user, service="vsftpd", **items)
            ended = lambda *_: os._exit(program.close_session())
            signal.signal(signal.SIGTERM, ended)
            program.open_session()
            ready.set()
            while True:
                signal.pause()
        ready = multiprocessing.get_context("fork").Event()
        process = self.process(serve, ready)
        assert ready.wait(LIMIT)
        return process

    def test_ftp_table(self):
        # Two sessions of one user from one address: the end of one is not the other's.
        first, second = self.ftp_session(), self.ftp_session()
        bob = self.ftp_session("bob", rhost="2001:db8::7")
        table = self.ftp_table()
        self.assertEqual([(first.pid, "alice", "192.0.2.7"), (second.pid, "alice", "192.0.2.7"),
                          (bob.pid, "bob", "0.0.0.0")],
                         [(e.pid, e.username, e.ipaddr) for e in table.list[:table.size]])
        os.kill(second.pid, signal.SIGTERM)
        second.join()
        self.assertEqual((SUCCESS, True, 2), (second.exitcode, first.is_alive(), table.size))
        self.assertEqual(["alice", "bob"], sorted(users(self.sessions())))
        # A daemon that is not there leaves the entry to the module, and what was killed to the next who comes.
        third = self.ftp_session()
        self.stop()
        os.kill(third.pid, signal.SIGTERM)
        third.join()
        self.assertEqual([first.pid, bob.pid], [e.pid for e in table.list[:table.size]])
        end(first)
        self.start()
        again = self.ftp_session()
        self.assertEqual([bob.pid, again.pid], [e.pid for e in table.list[:table.size]])
        carol = self.ftp_session("carol", rhost="2001:db8::8")
        self.vekctl("logout", "--username", "carol")
        wait_for(lambda: not carol.is_alive())
        # Full, as far as the daemon looks; garbage; and held by somebody.
        table.size = vek.DEFAULT_MAX_USERS - 1
        for entry in table.list[:table.size]:
            entry.pid = again.pid
        self.ftp_session("carol")
        self.says("the table of ftp clients is full\n")
        table.size = 1 << 40
        carol = self.ftp_session("carol", rhost="192.0.2.9")
        self.assertEqual([carol.pid], [e.pid for e in table.list[:table.size]])
        lock = checked(LIBC.semget(vek.PUREFTP_IPC_KEY, 1, 0))
        self.assertEqual(1, LIBC.semctl(lock, 0, GETVAL))
        LIBC.semctl(lock, 0, SETVAL, 0)
        start = time.monotonic()
        self.ftp_session("carol")
        self.assertTrue(1 <= time.monotonic() - start < 2)
        LIBC.semctl(lock, 0, SETVAL, 1)
        self.addCleanup(LIBC.semctl, lock, 0, IPC_RMID)
        self.addCleanup(LIBC.shmctl, checked(LIBC.shmget(vek.PUREFTP_IPC_SHM_KEY, 0, 0)), IPC_RMID, None)

    # ---- lockouts ----

    def guess(self, times=1, **items):
        for _ in range(times):
            program = Program(password="wrong", **items)
            self.assertEqual(AUTH_ERR, program.authenticate())
        return program

    def lock_table(self):
        return self.shared(vek.user_lock, vek.USER_LOCK_IPC_KEY)

    def in_use(self, records):
        return [record for record in records if record.inuse]

    def test_attempts_lock_the_address(self):
        self.assertEqual(1, self.guess(4).asked)
        self.assertEqual(SUCCESS, Program("bob").log_in())  # a success clears
        self.assertEqual([], self.in_use(self.lock_table().attempt_rec))
        self.guess(4)
        self.guess(4, rhost="192.0.2.8")
        self.guess(4, rhost="2001:db8::7")
        self.guess(1, user="nobody-at-all")
        for service in "sshd", "vsftpd", "login":
            locked = Program("bob", service=service)
            self.assertEqual((AUTH_ERR, 0), (locked.authenticate(), locked.asked))
        self.assertEqual(SUCCESS, Program(rhost="192.0.2.8").log_in())
        self.assertEqual(SUCCESS, Program(rhost="2001:db8::9").log_in())
        [lockout] = self.in_use(self.lock_table().lockout_rec)
        self.assertEqual((vek.in4("192.0.2.7"), "nobody-at-all", self.now + 30),
                         (lockout.ip, lockout.username, lockout.time))
        self.assertIn("192.0.2.7", self.vekctl("lockouts"))
        self.vekctl("lockouts", "clear", "192.0.2.7")
        self.guess(4)
        self.assertEqual(SUCCESS, Program().log_in())
        # Its end, with a daemon that cannot age the table.
        self.guess(5)
        self.kill(signal.SIGSTOP)
        self.advance(29)
        self.assertEqual(AUTH_ERR, Program().authenticate())
        self.advance(1)
        self.assertEqual(SUCCESS, Program().authenticate())
        self.guess(4)
        self.advance(60)
        self.guess(4)
        self.assertEqual(SUCCESS, Program().authenticate())
        self.kill(signal.SIGCONT)

    def test_user_without_address(self):
        self.guess(5, service="login", rhost="")
        self.assertEqual(AUTH_ERR, Program(rhost="192.0.2.8").authenticate())
        self.assertEqual(SUCCESS, Program("bob", service="login", rhost="").authenticate())
        self.assertIn("alice", self.vekctl("lockouts", "clear", "alice"))
        self.assertEqual(SUCCESS, Program(service="login", rhost="").authenticate())

    def test_full_lockout_table(self):
        table = self.lock_table()
        for i, record in enumerate(table.lockout_rec):
            record.inuse, record.ip, record.time = 1, i + 1, self.now + 1000 + i
        for i, record in enumerate(table.attempt_rec):
            record.inuse, record.ip, record.time, record.count = 1, i + 1, self.now - i % 50, 65535
        self.guess(5)
        self.assertEqual(AUTH_ERR, Program().authenticate())
        self.assertEqual((vek.MAX_LOCKOUT_RECORD, 1), (len(self.in_use(table.lockout_rec)), table.enable))
        self.assertNotIn(1, [record.ip for record in table.lockout_rec])  # the one that would have ended first

    def test_nobody_is_locked_out_by_what_is_missing(self):
        self.guess(5)
        table = self.lock_table()
        table.enable = 0
        self.lines("su", lockout="")  # as the table says
        self.assertEqual(SUCCESS, Program(service="su").authenticate())
        self.guess(9, service="su", rhost="192.0.2.8")
        self.assertEqual(SUCCESS, Program(rhost="192.0.2.8").authenticate())
        self.assertEqual(AUTH_ERR, Program().authenticate())
        lock = checked(LIBC.semget(vek.USER_LOCK_IPC_KEY, 1, 0))
        LIBC.semctl(lock, 0, SETVAL, 0)
        start = time.monotonic()
        self.assertEqual(SUCCESS, Program().authenticate())
        self.assertTrue(1 <= time.monotonic() - start < 2)
        self.says("nobody is locked out")
        LIBC.semctl(lock, 0, SETVAL, 1)
        self.stop()
        self.guess(6)
        self.assertEqual(SUCCESS, Program().authenticate())
        # Another user's table is none, whatever is in it.
        def plant():
            os.setuid(NOBODY)
            planted = self.shared(vek.user_lock, vek.USER_LOCK_IPC_KEY, IPC_CREAT)
            planted.enable = planted.lockout_rec[0].inuse = 1
            planted.lockout_rec[0].ip, planted.lockout_rec[0].time = vek.in4("192.0.2.7"), 1 << 60
        child = multiprocessing.get_context("fork").Process(target=plant)
        child.start()
        child.join()
        self.addCleanup(LIBC.shmctl, checked(LIBC.shmget(vek.USER_LOCK_IPC_KEY, 0, 0)), IPC_RMID, None)
        self.assertEqual(SUCCESS, Program().authenticate())

    def test_same_answer_and_time(self):
        """As a wrong password. Only here it takes its seconds."""
        times = {}
        for lockout in "attempts=100", "attempts=1":
            self.lines("sshd", lockout=lockout)
            file = pathlib.Path("/etc/pam.d/sshd")
            file.write_text(file.read_text().replace(" nodelay", ""))
            self.guess() if lockout == "attempts=1" else None
            start = time.monotonic()
            self.guess()
            times[lockout] = time.monotonic() - start
        for seconds in times.values():  # libpam varies the two seconds by up to a half
            self.assertTrue(0.9 < seconds < 3.1 + 0.2 * SLOWER, times)
