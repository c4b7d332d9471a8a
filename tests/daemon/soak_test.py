"""soak_test.py: simulated days: ticks by signal, a clock that goes with them, sessions that come and go in every way.
At the end the daemon holds what it held after the first lives. SOAK_SECONDS: how long (30); SOAK_LIVES: or so many
lives."""
import random

import vek
from device import *

WARM_UP = 10000  # lives; by then every path has been gone and every buffer has its size
WAVE = 300  # lives at a time
# Pages that the kernel counts late or the allocator took for one burst. A leak of a byte a life is far more.
TOLERANCE_KB = 256


class Soak(OnDevice):
    chance = random.Random(1)
    lives = 0

    def number(self, first, last):
        return first + int(self.chance.random() * (last + 1 - first))

    def live(self):
        """A wave of sessions, each with another end, and the time until all have come to it."""
        for i in range(WAVE):
            user = f"user{self.number(0, 99)}"
            login = {"service": "captive portal" if i % 2 else "http/https", "user": user, "unique": str(i),
                     "ip": self.number(1, 50), "sta_mac": f"02:00:00:00:00:{self.number(10, 99)}",
                     "ssid_profile_name": "vap-1"}
            if i % 5 == 0:
                login |= {"ip6": vek.in6(f"::{self.number(1, 50):x}"), "event_flag": vek.EVENT_FLAG_USED_IPV6_ADDR}
            # Of its own accord in four ways, told in three, in the end by idle detection.
            more, end = (
                ({"default_lease_time": 1}, 0), ({"default_reauth_time": 1}, 0),
                ({"session_timeout": self.number(1, 60)}, 0),
                ({"idle_timeout_form_acct_flag": 1, "idle_timeout": self.number(0, 59)}, 0),
                ({}, vek.EVENT_USER_LOGOUT_REVOCABLE), ({}, vek.EVENT_WEB_USER_LOGOUT), ({}, vek.EVENT_USER_LOGOUT),
                ({}, 0))[i % 8]
            login |= more
            self.assertEqual(0, self.service.login(**login))
            if end:
                self.service.report(end, "", user)
            if i % 7 == 0:
                login["ip"] = self.number(1, 50)
                self.service.report(vek.EVENT_UPDATE_ROAMING_STA_IP, **login)
                self.service.report(vek.EVENT_UPDATE_IDLE_TIME, ip=login["ip"])
            if i % 20 == 0:
                Client("request").subscribe()  # comes and goes
                self.ask.query("all")
            self.take_copies()
        self.lives += WAVE
        for _ in range(75):  # a minute, and the eleven until it is looked at
            self.advance(1)
            self.tick()
            self.take_copies()
        self.kill(signal.SIGHUP)
        self.kill(signal.SIGUSR1)
        self.settle()
        write(SCRATCH + "log", "")

    def take_copies(self):
        while self.copies.pending():
            self.copies.next()

    def holds(self):
        """Sessions, descriptors, bytes of the heap in use, resident kilobytes."""
        heap = pages = 0
        if not SANITIZED:  # which keeps what was freed
            pathlib.Path("/tmp/heap").unlink(missing_ok=True)
            # It waits for clients: no call of malloc is under way.
            wait_for(lambda: ") S " in read(f"/proc/{self.pid}/stat"))
            self.kill(signal.SIGUSR2)
            wait_for(lambda: read("/tmp/heap").endswith("\n"))
            heap = int(read("/tmp/heap"))
            pages = int(read(f"/proc/{self.pid}/statm").split()[1])
        return self.ask.count(), self.descriptors(), heap, pages * os.sysconf("SC_PAGE_SIZE") // 1024

    def test_holds_at_the_end_what_it_held_at_the_start(self):
        write(PLATFORM, "mode cloud\n")
        if not SANITIZED:
            os.environ["LD_PRELOAD"] = f"{BUILD}/tests/daemon/libvek_heap.so"
            os.environ["GLIBC_TUNABLES"] = "glibc.malloc.tcache_count=0"  # cached pieces would count as in use
        self.start()
        # Once as many as there can be, since what the daemon keeps for the next ones grows to that.
        for i in range(vek.MAX_USERS):
            self.service.login("captive portal", "crowd", str(i))
        self.service.report(vek.EVENT_WEB_USER_LOGOUT, "", "crowd")
        self.copies = Client("request").subscribe()
        config = self.shared(vek.user_config, vek.USER_CONFIG_IPC_KEY)
        config.enable_idle_detection = config.max_idle_minute = 1
        start, start_time = time.monotonic(), self.now
        while self.lives < WARM_UP:
            self.live()
        warm = self.lives
        *first, first_kb = self.holds()
        wanted, seconds = setting("SOAK_LIVES", 0), setting("SOAK_SECONDS", 30)
        while self.lives < wanted if wanted else time.monotonic() - start < seconds:
            self.live()
        *last, last_kb = self.holds()
        print(f"{self.lives} lives, {self.now - start_time} seconds of the daemon's;",
              f"resident {first_kb} kB, then {last_kb} kB; heap {last[2]}")
        self.assertLessEqual(last_kb, first_kb + TOLERANCE_KB)
        self.assertEqual(first, last)
        self.assertGreater(self.lives, warm, "nothing was measured")

