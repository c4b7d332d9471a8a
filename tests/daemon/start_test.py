"""start_test.py: starts: with something in the way, beside a daemon that runs, and after a kill at any point of its
work, by the way of the unit and the init script (VEKD_PID names the helper of both, unless it is this tree's).
RESTARTS: how many kills (20); RESTART_SEED: another run of the same."""
import fcntl, random, resource

import vek
from device import *

HELPER = os.environ.get("VEKD_PID", f"{vek.SOURCE}/packaging/vekd-pid")


class StartUp(OnDevice):
    def test_obstacles_end_it_and_touch_nobodys_blocks(self):
        usage = f"{VEKD} [-d] [-d] [-h]\n"
        version = "vekd " + re.search(r"project\(vekd VERSION (\S+)", read(f"{vek.SOURCE}/CMakeLists.txt"))[1] + "\n"
        for option, status, said in (("-dh", 0, usage), ("--help", 0, usage), ("--vision", 2, usage),
                                     ("--help=all", 2, usage), ("-xV", 0, version), ("--version", 0, version)):
            self.assertEqual((status, said), (exit_status(self.spawn(option)), self.output()), option)
        os.symlink(SCRATCH + "elsewhere", vek.PID_FILE)  # seen as none, and not followed
        self.assertEqual(255, exit_status(self.spawn("-dd")))
        self.assertFalse(os.path.exists(SCRATCH + "elsewhere"))
        self.assertEqual(1, self.output().count("enter debugging mode: level: 2\n"))
        self.assertFalse(blocks_exist())
        os.unlink(vek.PID_FILE)

        others = self.shared(vek.user_lock, vek.USER_LOCK_IPC_KEY, IPC_CREAT)
        others.attempt_count = 77
        for path, message in ((vek.PID_FILE, "Another vek daemon is running\n"),
                              (vek.ADDRESS_NOTIFY, "notify: Address already in use\nCan't init vek daemon!\n"),
                              (vek.ADDRESS_REQUEST, "request: Address already in use\nCan't init vek daemon!\n")):
            pathlib.Path(path).unlink(missing_ok=True)  # of a start before
            os.mkdir(path)
            self.assertEqual(255, exit_status(self.spawn()), path)
            self.assertTrue(self.output().endswith(message), self.output())
            self.assertEqual(77, self.shared(vek.user_lock, vek.USER_LOCK_IPC_KEY).attempt_count)
            os.rmdir(path)

        crowded = subprocess.run(["bash", "-c", 'for i in {3..131}; do eval "exec $i</dev/null"; done; exec $VEKD'])
        self.assertEqual(255, crowded.returncode, "its sockets would have numbers too high to be watched")

    def test_needs_a_pid_file(self):
        for option in ("rw", "ro"):
            with without_room(option, "/var/run"):
                self.assertEqual(255, exit_status(self.spawn("-d")))
                self.assertFalse(os.path.exists(vek.PID_FILE))
                self.assertFalse(blocks_exist())
        no_bytes = subprocess.run(["bash", "-c", "ulimit -f 0; exec $VEKD -d"], stderr=subprocess.DEVNULL)
        self.assertEqual(255, no_bytes.returncode)
        self.assertFalse(os.path.exists(vek.PID_FILE))

    def test_removes_only_its_own_pid_file(self):
        self.start()
        write(vek.PID_FILE, "1000000")  # of a daemon that found none
        self.stop()
        self.assertEqual("1000000", read(vek.PID_FILE))

    def test_removes_its_pid_file_without_a_free_descriptor(self):
        self.start()
        free = next(fd for fd in itertools.count() if not os.path.lexists(f"/proc/{self.pid}/fd/{fd}"))
        resource.prlimit(self.pid, resource.RLIMIT_NOFILE, (free, free))
        self.kill(signal.SIGTERM)
        self.assertEqual(0, exit_status(self.pid))
        self.pid = None
        self.assertFalse(os.path.exists(vek.PID_FILE))

    def test_block_that_cannot_be_used(self):
        """Somebody's gives way; root's stays, and the log says so."""
        for user in sorted({NOBODY, 0}, reverse=True):
            with self.subTest(user):
                with acting_as(user):
                    planted = checked(LIBC.shmget(vek.USER_CONFIG_IPC_KEY, 8, IPC_CREAT | 0o666))
                self.start()
                self.service.login("ssh", "bob")  # whose line comes after
                wait_for(lambda: "bob" in log_lines())
                usable = LIBC.shmget(vek.USER_CONFIG_IPC_KEY, ctypes.sizeof(vek.user_config), 0) >= 0
                self.stop()
                LIBC.shmctl(planted, IPC_RMID, None)
                self.assertEqual((bool(user), not user), (usable, "<25>" in log_lines()))

    def test_one_of_two_starts_at_once_serves(self):
        """Whatever they inherit. A second one would be found when the test ends."""
        def start_two():
            signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGTERM, signal.SIGALRM])
            os.system("exec <&- >&- 2>&-; $VEKD & $VEKD & wait")

        for _ in range(10):
            self.process(start_two).join()
            self.assertEqual(0, Client("notify").login("ssh", "bob"))
            self.assertEqual(1, Client("request").count())
            pid = int(read(vek.PID_FILE))
            os.kill(pid, signal.SIGTERM)
            wait_for(lambda: not alive(pid))

    def test_end_waits_for_anothers_start(self):
        """Which could take over the blocks that the end removes."""
        self.start()
        with open("/var/run/vekd.lock") as starting:
            fcntl.flock(starting, fcntl.LOCK_EX)
            self.kill(signal.SIGTERM)
            for _ in lasting(0.2):
                self.assertTrue(blocks_exist() and os.path.exists(vek.PID_FILE))
        self.assertEqual(0, exit_status(self.pid))
        self.pid = None

    def test_second_start_leaves_the_first_alone(self):
        self.start()
        self.service.fill(3)
        lockout = self.shared(vek.user_lock, vek.USER_LOCK_IPC_KEY)
        lockout.attempt_count = 9
        self.assertEqual(255, exit_status(self.spawn()))
        self.assertEqual(str(self.pid), read(vek.PID_FILE))
        self.assertEqual(0, Client("notify").login("ssh", "after"))
        self.assertEqual(4, Client("request").count())
        self.assertEqual(9, self.shared(vek.user_lock, vek.USER_LOCK_IPC_KEY).attempt_count)


def be_a_service():
    """Reports, asks and subscribes until it is ended; that the daemon goes away under it is what is expected."""
    while True:
        with contextlib.suppress(OSError):
            service, ask, copies = Client("notify"), Client("request"), Client("request").subscribe()
            for i in itertools.count():
                user = str(i // 4)
                service.login("ssh" if i % 2 else "captive portal", user)
                service.report(vek.EVENT_USER_LOGOUT_REVOCABLE, "", user)
                ask.query("all")
                if i % 4 == 0:
                    service.report(vek.EVENT_WEB_USER_LOGOUT, "", user)
                while copies.pending():
                    copies.next()


class Restart(OnDevice):
    def test_after_a_kill_at_any_point(self):
        chance, starts = random.Random(setting("RESTART_SEED", 1)), Waits()
        self.start()
        for _ in range(setting("RESTARTS", 20)):
            load = [self.process(be_a_service) for _ in range(3)]
            time.sleep(chance.uniform(0, 0.04))  # the random point
            lockout = self.shared(vek.user_lock, vek.USER_LOCK_IPC_KEY)
            lockout.enable = lockout.attempt_count = lockout.lockout_rec[0].inuse = 1
            config = self.shared(vek.user_config, vek.USER_CONFIG_IPC_KEY)
            config.enable_idle_detection = config.max_idle_minute = 1
            self.stop(signal.SIGKILL)
            end(*load)
            self.assertEqual(255, exit_status(self.spawn()), "without the helper it is taken for one that runs")
            subprocess.run([HELPER, "prepare"], check=True, env={**os.environ, "DAEMON": VEKD})
            starts.of(self.start)

            self.assertEqual(0, self.ask.count(), "sessions of the life before")
            lockout = self.shared(vek.user_lock, vek.USER_LOCK_IPC_KEY)
            self.assertEqual((vek.DEFAULT_ATTEMPT_COUNT, 0, 0),
                             (lockout.attempt_count, lockout.enable, lockout.lockout_rec[0].inuse))
            config = self.shared(vek.user_config, vek.USER_CONFIG_IPC_KEY)
            self.assertEqual((3, 0), (config.max_idle_minute, config.enable_idle_detection))
            self.assertEqual(0, self.service.login("ssh", "alice"))
            self.assertEqual(["alice"], users(self.ask.query("all")))
        self.assertIn("captive portal login.", log_lines(), "there was no load")
        starts.print("from the start to the first answer")
        self.assertLess(starts.percentile(50), 50 * SLOWER)
        self.assertLess(starts.percentile(90), 500 * SLOWER)  # it starts with a low priority beside whatever runs
