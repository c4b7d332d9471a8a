"""shared_test.py: what other programs and the daemon share: the ftp server's table, the lockout table, listings of
processes, the dump of the portal's stations; whatever those programs put there."""
import vek
from device import *

SHM_HUGETLB, SHM_NORESERVE = 0o4000, 0o10000

class Shared(OnDevice):
    def setUp(self):
        super().setUp()
        # It says whom it was to end, and fails, after which it has to be tried again all the same.
        stand_in("/util/suexec", f'echo "$@" >>{SCRATCH}commands; exit 3\n')

    def log_out(self, *keys):
        """Whom a session's end ends."""
        write(SCRATCH + "commands", "")
        self.assertEqual(0, self.service.login(*keys))
        self.assertEqual(0, self.service.logout(*keys))
        return [int(pid) for pid in re.findall(r"^/bin/kill (.*)\n", read(SCRATCH + "commands"), re.M)]

    def test_the_ftp_servers_table(self):
        self.start()
        small = checked(LIBC.shmget(vek.PUREFTP_IPC_SHM_KEY, ctypes.sizeof(vek.ClientTerminateList) - 8, IPC_CREAT))
        table = vek.ClientTerminateList.from_address(checked(LIBC.shmat(small, None, 0)))
        table.size, table.list[0] = 1, vek.ClientTerminateInformation(2000000, "user0", "0.0.0.0")
        self.assertEqual([], self.log_out("ftp", "user0"))
        LIBC.shmctl(small, IPC_RMID, None)
        # Of pages that the machine most likely does not have: whoever touches one is killed.
        huge = LIBC.shmget(vek.PUREFTP_IPC_SHM_KEY, 2 << 20, IPC_CREAT | SHM_HUGETLB | SHM_NORESERVE)
        self.assertEqual([], self.log_out("ftp", "user0"))
        LIBC.shmctl(huge, IPC_RMID, None)
        table, lock = self.ftp_clients()
        LIBC.semctl(lock, 0, SETVAL, 1)

        def fill(size):
            table.size = size
            for i in range(50):
                table.list[i] = vek.ClientTerminateInformation(2000000 + i, f"user{i}", "10.0.0.1")

        def log_out(user, ip="10.0.0.1"):
            """Whom it ends, and how many entries are left."""
            return self.log_out("ftp", user, "", vek.in4(ip)), table.size

        fill(5)
        table.list[4].username = "user2"
        self.assertEqual(([2000002], 4), log_out("user2"))
        self.assertEqual(([2000004], 3), log_out("user2"))
        self.assertEqual(([2000003], 2), log_out("user3"))
        self.assertEqual(([], 2), log_out("user1", "10.0.0.2"))
        self.assertEqual(([], 2), log_out("user"))
        for pid in (0, -1, -2 ** 31 + 1, 1, self.pid):  # the entry goes, no group, init or vekd is ended
            fill(1)
            table.list[0].pid = pid
            self.assertEqual(([], 0), log_out("user0"), pid)
        for size in (0, 1, 49, 50, 2 ** 32 + 1, 2 ** 64 - 1):
            fill(size)
            usable = 1 <= size <= 49
            self.assertEqual(([2000000] * usable, size - usable), log_out("user0"), size)
        fill(49)
        self.assertEqual(([], 49), log_out("user49"), "behind the last")
        # What has no end is nobody's, also not together with what follows.
        ctypes.memset(ctypes.addressof(table.list[0]) + vek.ClientTerminateInformation.username.offset, ord("a"), 32)
        ctypes.memmove(ctypes.addressof(table.list[1]) + vek.ClientTerminateInformation.ipaddr.offset,
                       b"192.168.100.1000", 16)
        self.assertEqual(([], 49), log_out("a" * 32 + "10.0.0.1"))
        self.assertEqual(([], 49), log_out("user1", "192.168.100.100"))

    @with_users
    def test_an_ftp_table_of_somebody_ends_only_his_processes(self):
        """When they are ended, which may be a while after they were found, with another process of that id then."""
        stand_in("/util/suexec", f"echo $2 >>{SCRATCH}commands; sleep 0.3; until [ -e {SCRATCH}go$2 ]; do sleep 0.01; done\n")
        self.start()
        with acting_as(NOBODY):
            his, (table, lock) = [self.process() for _ in range(3)], self.ftp_clients()
        LIBC.semctl(lock, 0, SETVAL, 1)
        pids = [os.getpid(), *(process.pid for process in his)]
        table.size = len(pids)
        for i, pid in enumerate(pids):
            table.list[i] = vek.ClientTerminateInformation(pid, "bob", "0.0.0.0")
            self.service.login("ftp", "bob")
            write(f"{SCRATCH}go{pid}", "")
        os.unlink(f"{SCRATCH}go{pids[2]}")
        self.service.write(notice(vek.EVENT_WEB_USER_LOGOUT, "", "bob"))
        wait_for(lambda: read(SCRATCH + "commands").split() == [str(pid) for pid in pids[1:3]])
        end(his[2])
        pathlib.Path("/proc/sys/kernel/ns_last_pid").write_text(str(pids[3] - 1))
        self.assertEqual(pids[3], self.process().pid, "somebody else was faster")
        write(f"{SCRATCH}go{pids[2]}", "")
        self.assertEqual(4, len(self.service.read(4)))
        self.settle()
        self.assertEqual([str(pid) for pid in pids[1:3]], read(SCRATCH + "commands").split())

    def test_lockouts_age_at_the_boundary_seconds(self):
        self.start()
        table = self.shared(vek.user_lock, vek.USER_LOCK_IPC_KEY)
        lockout, attempt = table.lockout_rec[1023], table.attempt_rec[1023]
        # Seconds from now; in use, enabled, and whether the records go.
        for lockout_at, attempt_at, in_use, enable, go in (
                (0, -60, 1, 1, True), (1, -59, 7, 1, False), (0, -60, 0, 1, False), (0, -60, 1, 0, False),
                (-50, 1, 7, -1, True)):  # an attempt in the future counts as old
            table.enable = enable
            lockout.inuse = attempt.inuse = in_use
            lockout.ip = attempt.ip = 7
            lockout.time, attempt.time = self.now + lockout_at, self.now + attempt_at
            self.tick(22)
            self.assertEqual((go, go), (lockout.ip == 0, attempt.ip == 0), lockout_at)

    def test_the_shell_of_a_terminal_in_a_listing(self):
        self.start()
        write("/proc/consoles", "ttyS0 -W- (EC p a) 4:64\n")
        pts3, console = ("telnet", "bob", "pts/3"), ("console", "bob", "console")
        for listing, terminal, killed in (
                ("12 136,3 vi qzsh\n13 136,33 -qzsh\n14 136,4 -qzsh\n15 4,3 -qzsh\n  16 136,3   -qzsh -x\n", pts3, [16]),
                ("99999999999999 136,3 -qzsh\n0 136,3 -qzsh\n-5 136,3 -qzsh\nx 136,3 -qzsh\n12 136 -qzsh\n", pts3, []),
                # The rest of a line, chosen by its user, is no line of its own.
                (f"7 136,9 {'x' * 247}88 136,3 -qzsh\n9 136,3 -qzsh", pts3, [9]),
                ("5 4,6 -qzsh\n6 5,64 -qzsh\n7 4,640 -qzsh\n", console, [7])):  # begins with it
            write(SCRATCH + "listing", "PID TT COMMAND\n" + listing)
            stand_in("/bin/ps", f"cat {SCRATCH}listing\n")
            self.assertEqual(killed, self.log_out(*terminal), listing)

    def test_the_dump_of_stations(self):
        self.addCleanup(os.umask, os.umask(0o077))  # as the unit sets it; what it writes is for everybody
        self.start()
        self.assertEqual(0o644, os.stat(vek.PID_FILE).st_mode & 0o777)
        for user, mac, since in (("u\n2", "m1", "10"), ("eve", "m", "19"), ("eve", "m", "1")):  # a name forges no line
            self.service.login("captive portal", user, since, sta_mac=mac, ssid_profile_name="p", auth_time=since,
                               usr_from=vek.FOREIGN_AUTHENTICATED_USER)

        def dump():
            self.kill(signal.SIGUSR1)
            self.settle()
            return re.sub(r"^.{26}|0x\w+", "", read(vek.RBTREE_DUMP), flags=re.M)  # the time, and where a node is

        whole = ("=== DEBUG_print_tree-117 : print start ===\nu?2-m1(Black) is root\neve-m-1- is m1's left child\n"
                 "eve-m-19- is m1's right child\n=== DEBUG_print_tree-121 : print end ===\n")
        self.assertEqual(whole, dump())
        self.assertEqual(0o644, os.stat(vek.RBTREE_DUMP).st_mode & 0o777)
        write("/tmp/victim", "mine")
        os.unlink(vek.RBTREE_DUMP)
        os.symlink("/tmp/victim", vek.RBTREE_DUMP)
        self.assertEqual(whole, dump(), "takes the place of whatever is there")
        self.assertEqual("mine", read("/tmp/victim"))
