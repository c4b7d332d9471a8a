"""neighbours_test.py: what else runs on the device has stopped working: the log, semaphores, shared memory, the
file systems, the tools. Each wait has its bound, and no session is lost."""
import vek
from device import *

# Seconds that each may cost: the log in any one second, a semaphore once, a tool at each start, and all tools together
# in a pass before what can wait does.
LOG, SEMAPHORE, TOOL, STATIONS, TURN = 0.1, 1, 1, 3, 0.25


class Neighbours(OnDevice):
    @contextlib.contextmanager
    def within(self, bound):
        """Not longer than the bound, and what the machine needs for the rest."""
        start = time.monotonic()
        yield
        self.assertLess(time.monotonic() - start, bound + SLOWER)

    def test_log_that_stopped_reading(self):
        self.start()
        os.kill(self.log_reader.pid, signal.SIGSTOP)
        with self.within(LOG):  # all of them, since it waits no more while lines are lost
            for _ in range(vek.MAX_USERS):
                self.assertEqual(0, self.service.login("ssh", "bob"))
        self.assertEqual(vek.MAX_USERS, self.ask.count())
        os.kill(self.log_reader.pid, signal.SIGCONT)
        # It reads again: what is missing is said, so that every line is accounted for.
        reports = vek.MAX_USERS

        def all_are_accounted_for():
            nonlocal reports
            reports += self.service.login("ssh", "late")  # refused
            time.sleep(0.01)
            lost = [int(number) for number in re.findall(r"^<\d+>(\d+) messages were lost", log_lines(), re.M)]
            return lost and reports == log_lines().count("\n") - len(lost) + sum(lost)

        wait_for(all_are_accounted_for)

        # It is gone for a while, and its socket is another one then.
        self.log_reader.kill()
        self.log_reader.join()
        os.unlink("/dev/log")
        with self.within(0):
            self.assertEqual(0, self.service.logout("ssh", "bob"))
        self.log_reader = self.process(read_log)
        wait_for(lambda: os.path.exists("/dev/log"))
        self.service.login("ssh", "eve")
        wait_for(lambda: re.search(r"^<28>1 messages were lost\n<\d+>.*eve.*\n\Z", log_lines(), re.M))

    def test_semaphores_that_are_never_released(self):
        stand_in("/util/suexec", 'exec "$@"\n')
        self.start("-d")
        server = self.process()
        clients, lock = self.ftp_clients((server.pid, "bob", "0.0.0.0"))
        LIBC.semctl(LIBC.semget(vek.USER_LOCK_IPC_KEY, 1, 0), 0, SETVAL, 0)

        names = ("bob", "bob2", "bob3", "bob4")
        for user in names:
            self.service.login("ftp", user)
        with self.within(SEMAPHORE):  # waited for once
            self.assertEqual([0] * 4, [self.service.logout("ftp", user) for user in names])
        wait_for(lambda: not alive(server.pid))
        self.assertEqual(0, clients.size)
        self.assertEqual(0, LIBC.semctl(lock, 0, GETVAL), "what was not taken was given back")
        # Whoever holds it for a moment is waited for even now.
        clients.size = 1
        for _ in range(100):
            self.service.login("ftp", "bob")
            LIBC.semctl(lock, 0, SETVAL, 0)
            start = time.monotonic()
            self.service.write(notice(vek.EVENT_USER_LOGOUT, "ftp", "bob"))
            time.sleep(0.02)
            held = clients.size
            LIBC.semctl(lock, 0, SETVAL, 1)
            in_time = time.monotonic() - start < 0.04
            self.assertEqual(4, len(self.service.read(4)))
            if in_time:
                break
            clients.size = 1
        self.assertEqual((1, 0), (held, clients.size), "changed under its holder")
        with self.within(SEMAPHORE):
            self.tick(11)
        self.tick(11)
        self.assertIn("can't do locking!\n", self.output())

    def test_shared_blocks_removed(self):
        self.start("-d")
        self.service.fill(3)

        def live(complaint):
            with self.within(0):
                self.kill(signal.SIGHUP)
                self.tick(22)
                self.service.login("ftp", "bob")  # whose server has no table
                self.assertEqual(0, self.service.logout("ftp", "bob"))
            self.assertIn(complaint, self.output())
            self.assertEqual(3, self.ask.count())

        for key in (vek.USER_CONFIG_IPC_KEY, vek.USER_LOCK_IPC_KEY):
            LIBC.shmctl(checked(LIBC.shmget(key, 0, 0)), IPC_RMID, None)
        live("Can't get shm!\n")
        again = self.shared(vek.user_lock, vek.USER_LOCK_IPC_KEY, IPC_CREAT)  # which is followed
        again.enable = again.lockout_rec[7].inuse = 1
        live("")
        self.assertEqual(0, again.lockout_rec[7].inuse)
        LIBC.semctl(LIBC.semget(vek.USER_LOCK_IPC_KEY, 1, 0), 0, IPC_RMID)
        live("can't get lock\n")

    def test_file_systems_full_and_read_only(self):
        kills = SCRATCH + "kills"
        stand_in("/util/suexec", f"echo killed >{kills}\n")
        stand_in("/bin/ps", "yes '1 136,1 -qzsh' | head -c 100000\n")
        self.start()
        self.service.fill(3)

        def live():
            self.assertEqual(1, self.service.report(vek.EVENT_USER_LOGOUT_REVOCABLE, "", "nobody"))
            self.service.login("telnet", "bob", "pts/1")
            self.assertEqual(0, self.service.logout("telnet", "bob", "pts/1"))
            self.kill(signal.SIGUSR1)  # the dump of stations
            self.settle()
            self.assertEqual(3, self.ask.count())

        for option in ("rw", "ro"):
            with without_room(option, "/tmp", "/var"):
                with self.within(0):
                    live()
                self.assertFalse(os.path.exists(kills), "there is no listing")
        live()
        self.assertTrue(os.path.exists(kills))
        self.assertEqual(1, read(vek.RBTREE_DUMP).count("print end"))

    def test_tools_that_are_slow(self):
        """Each takes its time, and what is left for it is used up: the rest waits, not the clients."""
        killed, lists, ends = SCRATCH + "killed", 0.3, 0.02
        stand_in("/util/suexec", f"sleep {ends}; echo $2 >>{killed}\n")
        write(SCRATCH + "listing", "PID\n" + "".join(f"{1000 + i} 136,{i} -qzsh\n" for i in range(41)))
        stand_in("/bin/ps", f"sleep {lists}; cat {SCRATCH}listing\n")
        self.start()
        for i in range(40):
            self.service.login("telnet", "bob", f"pts/{i}")
            self.service.login("telnet", "bob", f"nowhere {i}")
        self.service.login("telnet", "old", "pts/1")  # of whom nobody has told that he is gone
        self.service.login("ssh", "bob")
        self.service.report(vek.EVENT_UPDATE_SSH_TTY, "ssh", "bob", ssh_tty="pts/40")
        write("/tmp/sshcon_pts.txt", "40")
        stand_in("/usr/local/bin/qzsh", f"echo $4 >>{killed}\n")
        self.tick()
        with self.within(lists + ends):
            self.assertEqual(1, self.service.report(vek.EVENT_WEB_USER_LOGOUT, "", "bob"))
        self.service.login("telnet", "eve", "pts/40")  # who gets the terminal that is free again

        def all_are_killed():
            with self.within(lists + TURN + ends):
                self.assertEqual(2, self.ask.count())
            return "sshcon" in read(killed)

        wait_for(all_are_killed)
        self.settle()
        self.assertEqual([str(1000 + i) for i in range(40)] + ["sshcon", "disable"], read(killed).split())

        for i in range(40):
            self.service.login("telnet", "bob", f"pts/{i}")
        os.unlink(killed)
        self.service.report(vek.EVENT_WEB_USER_LOGOUT, "telnet", "bob")
        self.stop()
        self.assertEqual([str(1000 + i) for i in range(40)], read(killed).split())

    def test_launcher_that_is_slow_with_ftp_sessions(self):
        killed, ends, pids = SCRATCH + "killed", 0.05, list(range(2000000, 2000049))
        stand_in("/util/suexec", f"sleep {ends}; echo $2 >>{killed}\n")
        _, lock = self.ftp_clients(*((pid, "bob", "0.0.0.0") for pid in pids))
        LIBC.semctl(lock, 0, SETVAL, 1)
        self.start()
        for _ in pids:
            self.service.login("ftp", "bob")
        with self.within(TURN + ends):
            self.assertEqual(1, self.service.report(vek.EVENT_WEB_USER_LOGOUT, "", "bob"))

        # Nobody asks it anything meanwhile, and it goes on all the same.
        with self.within(len(pids) * (ends + 0.02)):
            wait_for(lambda: len(read(killed).split()) == len(pids), 30)
        self.assertEqual(pids, [int(pid) for pid in read(killed).split()])
        self.assertEqual(0, self.ask.count())

    @with_users
    def test_reporters_whose_tools_are_slow(self):
        """Hold no service up, and what lies there in time is not too late because of them."""
        ends = 0.1
        stand_in("/util/suexec", f"sleep {ends}\n")
        stand_in("/bin/ps", "echo; " + "".join(f"echo {i} 136,{i} -qzsh; " for i in range(15)))
        self.start()
        reports = [(vek.EVENT_USER_LOGOUT, "telnet", "bob", f"pts/{i}") for i in range(15)]
        reports[7] = (vek.EVENT_USER_LOGOUT_REVOKE, "ssh", "alice")
        for report in reports:
            self.service.login(*report[1:])
        self.service.report(vek.EVENT_USER_LOGOUT_REVOCABLE, "ssh", "alice")
        reporters = [Client("notify", SOMEBODY) for _ in reports]
        service = Client("notify")  # behind them all
        self.stopped()
        for reporter, report in zip(reporters, reports):
            reporter.write(notice(*report))
        self.advance(vek.DEFAULT_LOGOUT_DEFER_TIME + 1)
        self.kill(signal.SIGCONT)
        with self.within(ends + TURN + ends):
            self.assertEqual(1, service.logout("ssh", "nobody"))
        for reporter in reporters:
            self.assertEqual(4, len(reporter.read(4)))
        self.assertEqual(["alice"], users(self.ask.query("all")))

    def test_tools_that_never_end(self):
        pids = SCRATCH + "pids"
        forever = f"trap '' TERM HUP; echo $$ >>{pids}; sleep 1000 & echo $! >>{pids}; wait; sleep 1000\n"
        write(PLATFORM, "mode cloud\n")
        for tool in ("/util/suexec", "/usr/local/bin/dbctl", "/usr/local/bin/qzsh"):
            stand_in(tool, forever)
        stand_in("/bin/ps", "echo; echo 1 136,1 -qzsh\n")
        write("/tmp/sshcon_pts.txt", "1")
        self.start()
        self.service.fill(vek.MAX_USERS - 2)
        self.service.login("ssh", "alice")
        self.service.report(vek.EVENT_UPDATE_SSH_TTY, "", "alice", ssh_tty="pts/1")
        self.service.login("telnet", "bob", "pts/1")

        for report, status, tools, started in (
                # Both station lists at once; the launcher; the listing.
                ((vek.EVENT_USER_LOGIN, "captive portal", "late"), 1, 1, 4),
                ((vek.EVENT_USER_LOGOUT, "ssh", "alice"), 0, 1, 2),
                ((vek.EVENT_USER_LOGOUT, "telnet", "bob", "pts/1"), 0, 1, 2)):
            if "telnet" in report:
                # It is tried again, for the one over whom it hung.
                stand_in("/util/suexec", f"echo $2 >{SCRATCH}killed\n")
                stand_in("/usr/local/bin/qzsh", "")
                self.tick(11)
                wait_for(lambda: os.path.exists(SCRATCH + "killed"))
                stand_in("/bin/ps", forever)
            with self.within(STATIONS if status else tools * TOOL):
                self.assertEqual(status, self.service.report(*report))
            with self.within(0):  # for a while it is not tried again
                self.service.login(*report[1:])
                self.assertEqual(status, self.service.report(*report))
            seen = read(pids).split()
            self.assertEqual(started, len(seen))
            for pid in seen:
                wait_for(lambda: not alive(int(pid)), 1)
            os.unlink(pids)
        self.assertEqual(vek.MAX_USERS - 2, self.ask.count())
        wait_for(lambda: log_lines().count("<25>Failed login attempt to ") == 3)
        # It is tried again, once for the one over whom it hung, and for those who ended meanwhile.
        self.service.login("telnet", "bob", "pts/2")
        self.service.logout("telnet", "bob", "pts/2")
        with self.within(TOOL):
            self.tick(11)
            wait_for(lambda: os.path.exists(pids))
        stand_in("/bin/ps", "echo; echo 1 136,1 -qzsh; echo 2 136,2 -qzsh\n")
        stand_in("/util/suexec", f"echo $2 >>{pids}\n")
        os.unlink(pids)
        self.tick(22)
        wait_for(lambda: read(pids) == "2\n")

    def test_tools_that_are_slow_once(self):
        """Whom that hit is ended in the end, unless somebody else has got his terminal."""
        slow, done = SCRATCH + "slow", SCRATCH + "done"
        write("/tmp/sshcon_pts.txt", "1")
        self.start()
        for hit in ("/bin/ps", "/util/suexec", "/usr/local/bin/qzsh"):
            with self.subTest(hit):
                for tool, then in (("/bin/ps", "echo; echo 11 136,1 -qzsh; echo 12 136,2 -qzsh; echo 13 136,3 -qzsh"),
                                   ("/util/suexec", f"echo $2 >>{done}"),
                                   ("/usr/local/bin/qzsh", f"echo sshcon >>{done}")):
                    stand_in(tool, (tool == hit) * f"[ -e {slow} ] || {{ echo >{slow}; sleep 1.3; }}\n" + then + "\n")
                for path in (slow, done):
                    pathlib.Path(path).unlink(missing_ok=True)
                for name in ("alice", "bob"):
                    self.service.login("ssh", name)
                self.service.report(vek.EVENT_UPDATE_SSH_TTY, "ssh", "bob", ssh_tty="pts/1")
                for number in "23":
                    self.service.login("telnet", "carl", "pts/" + number)
                self.tick(2)
                self.service.logout("ssh", "bob")
                for number in "23":
                    self.service.logout("telnet", "carl", "pts/" + number)
                if put_off := hit != "/usr/local/bin/qzsh":
                    self.assertEqual(0, self.service.report(vek.EVENT_UPDATE_SSH_TTY, "ssh", "alice", ssh_tty="pts/2"))
                self.tick(22)
                ended = {"11", "13", "sshcon"} | (set() if put_off else {"12"})
                wait_for(lambda: ended <= set(read(done).split()))
                self.settle()
                self.assertEqual(ended, set(read(done).split()))
                self.service.report(vek.EVENT_WEB_USER_LOGOUT, "", "alice")

    def test_listing_of_megabytes(self):
        write(SCRATCH + "listing", "PID\n7 136,3 -qzsh\n" + "1 136,9999 -qzsh\n" * 1000000)
        stand_in("/bin/ps", f"cat {SCRATCH}listing\n")
        stand_in("/util/suexec", f"echo $2 >>{SCRATCH}killed\n")
        self.start()
        for i in range(600):
            self.service.login("telnet", "bob", f"pts/{i}")
        waits = Waits()
        waits.of(self.service.report, vek.EVENT_WEB_USER_LOGOUT, "telnet", "bob")
        for _ in lasting(2):
            waits.of(self.ask.count)
        waits.print("beside a listing of megabytes")
        self.assertEqual("7\n", read(SCRATCH + "killed"))
        self.assertLess(waits.percentile(100), 1000 * SLOWER)
