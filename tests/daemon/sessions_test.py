"""sessions_test.py: sessions through the real sockets: the status, copy, log line and answers of each login and
logout, the full table, and what a device's day ends and changes. That all of it is wired up is shown here, once each;
its cases are the unit tests'."""
import resource

import vek
from device import *


class Road(OnDevice):
    def test_logins_and_logouts_are_copied_logged_and_answered(self):
        home, loopback = vek.in4("10.0.0.5"), vek.in6("::1")
        road = {"console": {"ip": home}, "ssh": {"ip": home},  # the users have the names of their services
                "ftp": {"ip6": loopback, "event_flag": vek.EVENT_FLAG_USED_IPV6_ADDR}}
        self.start()
        # So many, each three times, that to tell all of them takes its time.
        subscribers = [Client("request", user) for user in [SOMEBODY] * 2 + [0] * 98]
        for subscriber in subscribers:
            for _ in range(2):
                subscriber.write(vek.request(vek.LISTEN))
            subscriber.subscribe()
        for user, address in road.items():
            self.assertEqual(0, self.service.login(user, user, "u", **address))
            for subscriber in subscribers * 3:
                copy = subscriber.next()
                self.assertEqual((vek.EVENT_USER_LOGIN, user), (copy.event, copy.real_username))
                self.assertNotEqual(0, copy.attribute, "it is the user database's copy")
        self.assertEqual(3, self.ask.count())
        for names, *query in (
                (["console", "ftp", "ssh"], "all"), (["ssh"], "name", b"ssh"), (["ftp"], "ip6", loopback),
                (["console", "ssh"], "ip", home), (["console"], "ip_first", home)):
            self.assertEqual(names, users(self.ask.query(*query)))
        for user, address in road.items():
            self.assertEqual(0, self.service.logout(user, user, "u", **address))
            for _ in range(3):
                self.assertEqual(vek.EVENT_USER_LOGOUT, subscribers[0].next().event)
            self.assertEqual(1, self.service.logout(user, user, "u", **address), "nobody is left to log out")
        self.assertFalse(subscribers[0].pending())
        self.assertEqual(0, self.ask.count())
        for line in ("console console login.", "ssh ssh login.", "ftp ftp login.", "ssh ssh logout",
                     "ftp (IP:  [::1] ) ftp logout."):
            self.logged("User " + line)
        last = Client("request").subscribe()
        for _ in range(50):
            self.service.login("http/https", "amy")
            self.assertTrue(last.pending(), "a copy is there before the status")
            last.next()

    def test_revocable_logout_waits_and_can_be_revoked(self):
        self.start()

        def left_after(seconds):
            self.advance(seconds)
            self.settle()
            return self.ask.count()

        self.service.login("ssh", "alice")
        for number in (vek.EVENT_USER_LOGOUT_REVOCABLE, vek.EVENT_USER_LOGOUT_REVOKE):
            self.assertEqual(1, self.service.report(number, "ssh", "alice"))
        self.assertEqual(1, left_after(60))
        self.service.logout("ssh", "alice")

        def takes(seconds):
            self.service.login("ssh", "alice")
            self.service.report(vek.EVENT_USER_LOGOUT_REVOCABLE, "ssh", "alice")
            self.assertEqual(1, left_after(seconds), "not before the time is over")
            self.assertEqual(0, left_after(1))

        # The time comes from a file that others plant.
        takes(vek.DEFAULT_LOGOUT_DEFER_TIME)
        write(vek.LOGOUT_DEFER_TIME, "2\n")
        takes(2)
        self.assertFalse(os.path.exists(vek.LOGOUT_DEFER_TIME))
        os.mkfifo(vek.LOGOUT_DEFER_TIME)  # not opened, which could take for ever
        takes(vek.DEFAULT_LOGOUT_DEFER_TIME)

        # As many wait as there can be sessions; one more is carried out at once.
        self.service.login("ssh", "alice")
        for user in ["nobody"] * vek.MAX_USERS + ["alice"]:
            self.assertEqual(user == "nobody", self.service.report(vek.EVENT_USER_LOGOUT_REVOCABLE, "ssh", user))
        self.assertEqual(0, self.ask.count())


def set_mode(mode):
    """It is looked at once in each tick of the kernel's coarse clock."""
    write(PLATFORM, f"mode {mode}\n")
    coarse = functools.partial(time.clock_gettime, 6)
    wait_for(lambda now=coarse(): coarse() != now)


class FullPool(OnDevice):
    def test_refuses_displaces_and_cleans_up(self):
        write(PLATFORM, "mode cloud\n")
        # The stations that are there. It takes its time, rightly, and there are two calls of it.
        stand_in("/usr/local/bin/dbctl", "sleep 1.2; echo x 02:00:00:00:00:02\n")
        self.start()
        self.service.fill(vek.MAX_USERS)
        copies = Client("request").subscribe()
        self.assertEqual(vek.MAX_USERS, len(set(users(self.ask.query("all")))))
        for service in ("ssh", "captive portal"):  # with no station to log out
            self.assertEqual(1, self.service.login(service, "late"))
        self.logged(f"Failed login attempt to {socket.gethostname()} from ssh (reach the maximum number of user)", 25)
        self.assertFalse(copies.pending())
        self.assertEqual(0, self.service.login("ssh", "admin"))
        self.assertEqual(0, self.service.logout("ssh", "admin"))
        station = {"sta_mac": "02:00:00:00:00:01", "ssid_profile_name": "vap-1"}
        self.assertEqual(0, self.service.login("captive portal", "gone", **station))
        self.assertEqual(0, self.service.login("captive portal", "new"))
        for user in ("0", "admin", "admin", "gone", "gone", "new"):
            self.assertEqual(user, copies.next().real_username)
        self.assertEqual(vek.MAX_USERS, self.ask.count())

    def test_the_clean_up_tells_of_the_one_session_that_it_ends(self):
        """Also when a logout by its station would not find it, or would find its successor."""
        stand_in("/usr/local/bin/dbctl", "")
        write(PLATFORM, "mode cloud\n")
        self.start()
        self.service.fill(vek.MAX_USERS - 2)
        copies = Client("request").subscribe()
        first, second = ({"sta_mac": f"02:00:00:00:00:0{i}", "ssid_profile_name": "vap-1"} for i in "12")
        # In which mode the one whose turn it is came, what is known of his station, and of his account's other one.
        for mode, gone, other in (("cloud", first, second), ("cloud", first | {"ssid_profile_name": ""}, second),
                                  ("cloud", first | {"sta_mac": ""}, second), ("standalone", first, first)):
            with self.subTest(mode=mode, **gone):
                set_mode(mode)
                for unique, station in (("1", gone), ("2", other)):
                    keys = ("captive portal", "roams", unique, vek.in4("10.0.0." + unique))
                    self.assertEqual(0, self.service.login(*keys, **station, auth_time=unique,
                                                           usr_from=vek.FOREIGN_AUTHENTICATED_USER))
                    set_mode("cloud")
                self.assertEqual(0, self.service.login("captive portal", "new", "3"))
                self.settle()
                told = [copies.next() for _ in iter(copies.pending, False)]
                self.assertEqual([("1", 1), ("2", 2), ("1", 1), ("3", 0)],
                                 [(copy.unique, copy.ip >> 24) for copy in told])
                self.assertEqual(["2"], [session.unique for session in self.ask.query("name", b"roams")])
                for user in ("roams", "new"):
                    self.service.report(vek.EVENT_WEB_USER_LOGOUT, "", user)
                    copies.next()


class Day(OnDevice):
    def test_sessions_end_with_their_processes(self):
        stand_in("/util/suexec", 'exec "$@"\n')
        stand_in("/usr/local/bin/qzsh", f'echo "$@" >>{SCRATCH}commands\n')
        # Some of those have a terminal whose number begins like another's, or are not its shell.
        ftp, ssh, telnet, dialin, console, *bystanders = (self.process().pid for _ in range(9))
        write("/proc/consoles", "netcon -W- (E p) 9:9\nttyX0 -W- (EC p a)    204:65\n")
        shells = ((bystanders[0], "136,22 -qzsh"), (bystanders[1], "136,1 /usr/bin/vi"), (telnet, "136,1 -qzsh"),
                  (ssh, "136,2 -qzsh"), (dialin, "136,3 -qzsh"), (console, "204,65 -qzsh"))
        write(SCRATCH + "listing", "PID TT COMMAND\n" + "".join(f"{pid} {shell}\n" for pid, shell in shells))
        stand_in("/bin/ps", f"cd {SCRATCH}; ls /proc/self/fd >fds; cat /proc/self/status >status; cat listing\n")
        # Another's by a longer name, one from elsewhere, the session's.
        clients, lock = self.ftp_clients((bystanders[2], "ftpp", "10.0.0.7"), (bystanders[3], "ftp", "10.0.0.77"),
                                         (ftp, "ftp", "10.0.0.7"))
        LIBC.semctl(lock, 0, SETVAL, 1)
        resource.setrlimit(resource.RLIMIT_NOFILE, (2000, resource.getrlimit(resource.RLIMIT_NOFILE)[1]))
        os.dup2(os.open("/dev/null", os.O_RDONLY), 1999)
        self.start()
        copies = Client("request").subscribe()
        idle = {"idle_timeout_form_acct_flag": 1, "idle_timeout": 60}
        self.assertEqual(0, self.service.login("telnet", "telnet", "pts/1", session_timeout=60))
        self.assertEqual(0, self.service.login("ftp", "ftp", "f1", vek.in4("10.0.0.7"), **idle))
        self.service.login("console", "console", "console")
        self.service.login("dialin", "dialin", "/dev/pts/3")
        for user in ("console", "dialin"):
            self.assertEqual(0, self.service.logout(user, user))
        for _ in range(6):
            copies.next()
        self.tick(30)
        self.assertFalse(copies.pending())
        self.tick(30 + 22)  # idle sessions are looked for on every eleventh tick only
        self.assertEqual(vek.EVENT_USER_LOGOUT2, copies.next().event)
        self.assertEqual(vek.EVENT_USER_IDLE_TIMEOUT, copies.next().event)
        self.logged("User telnet telnet logout (sessoin timeout)")
        self.logged("User ftp ftp logout (idle timeout).")

        # An ssh session's terminal is what its shell told; the feature that was on for it goes off.
        write("/tmp/sshcon_pts.txt", "2\n")
        self.assertEqual(0, self.service.login("ssh", "alice"))
        self.assertEqual(0, self.service.report(vek.EVENT_UPDATE_SSH_TTY, "ssh", "alice", ssh_tty="pts/2"))
        self.assertEqual(0, self.service.logout("ssh", "alice"))
        self.assertEqual("-p 100 -e sshcon disable\n", read(SCRATCH + "commands"))
        for pid in (telnet, ftp, ssh, dialin, console):
            wait_for(lambda: not alive(pid))
        for pid in bystanders:
            self.assertTrue(alive(pid))
        self.assertEqual(2, clients.size)

        # The daemon's children inherit nothing of it, or of who started it; it has one thread.
        self.assertEqual(1, len(os.listdir(f"/proc/{self.pid}/task")))
        self.assertEqual("0\n1\n2\n3\n", read(SCRATCH + "fds"), "3 is the listing's own")
        masks = re.findall(r"^Sig(?:Blk|Ign):\t(\w+)$", read(SCRATCH + "status"), re.M)
        # The C library keeps two of the signals to itself.
        self.assertEqual([0, 0], [int(mask, 16) & 0x7fffffff for mask in masks])

    def test_idle_detection_is_switched_when_told(self):
        self.start()
        config = self.shared(vek.user_config, vek.USER_CONFIG_IPC_KEY)
        self.service.login("http/https", "amy")
        for on in (True, False):
            config.enable_idle_detection = on
            self.assertEqual(not on, self.ask.query("all")[0].idle_time != 0)
            self.kill(signal.SIGHUP)
            self.settle()
            self.assertEqual(on, self.ask.query("all")[0].idle_time != 0)
