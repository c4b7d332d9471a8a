"""hostile_test.py: clients that do everything wrong, all at once, and a service beside them that must not notice.
HOSTILE_SECONDS: how long (10)."""
import struct

import vek
from device import *

PLACES = 120  # connections that fit into the daemon's table, roughly
KINDS = ("request", "notify")


def hostile(user, way, *arguments):
    """A hostile process, until it is ended."""
    os.setuid(user)
    while True:
        with contextlib.suppress(OSError):  # turned away, or shut down: again
            way(*arguments)


def stay_silent(connections):
    silent = []
    while True:
        silent = [one for one in silent if not one.ended()]
        while len(silent) < connections:
            silent.append(Client(KINDS[len(silent) % 2]))
        time.sleep(0.02)


def send_halves():
    for i in range(6):
        Client(KINDS[i % 2]).write(vek.event(), i % 3 * 50)  # or connects for nothing


def flood_unknown_numbers():
    notify, asking = Client("notify"), Client("request")
    for i in range(2000):
        number = (64 if i % 2 else -1000000) * (i + 1)  # none that is known
        notify.write(vek.event(number))
        asking.write(vek.request(number))


def never_read(kind, record, pause):
    """Asks, subscribes or reports, and never reads."""
    one = Client(kind)
    while True:
        one.write(record)
        time.sleep(pause)


def read_late():
    """Asks for everything and reads it all, just before it would be given up, with the next request sent already."""
    one, request = Client("request"), vek.request(vek.QUERY_ALL)
    one.write(request)
    while True:
        one.write(request)
        time.sleep(0.45)
        one.read(ctypes.sizeof(vek.event) + 1000 * ctypes.sizeof(vek.user_info))


class Hostile(OnDevice):
    def test_nobody_holds_a_service_up(self):
        self.start("-d")
        self.service.fill(1000)
        silent = PLACES if NOBODY else PLACES // 2  # for user 0, places are left free
        others = [self.process(hostile, NOBODY, *way) for way in (
            (stay_silent, silent), (send_halves,), (flood_unknown_numbers,), (read_late,), (read_late,),
            (never_read, "request", vek.request(vek.QUERY_ALL), 0.001),
            (never_read, "notify", notice(vek.EVENT_USER_LOGOUT, "ssh", "nobody"), 0.001),
            (never_read, "request", vek.request(vek.LISTEN), 0.1))]
        waits, warm = Waits(), False
        for i, passed in enumerate(lasting(setting("HOSTILE_SECONDS", 10))):
            if not warm and passed > 2:  # the first shut-downs are over
                waits, warm = Waits(), True
            # Now and then the service is restarted: a newcomer gets a place too.
            if i % 50 == 49:
                self.service = self.ask = None
                self.service, self.ask = waits.of(Client, "notify"), waits.of(Client, "request")
            user = f"healthy{i}"
            keys = ("http/https", user, user)
            self.assertEqual(0, waits.of(self.service.login, *keys))
            self.assertEqual(user, waits.of(self.ask.query, "name", user.encode())[0].unique)
            self.assertEqual(1001, waits.of(self.ask.count))
            self.assertEqual(1001, len(waits.of(self.ask.query, "all")))
            self.assertEqual(0, waits.of(self.service.logout, *keys))
            self.assertEqual(1, waits.of(self.service.logout, *keys))
            self.assertEqual([], waits.of(self.ask.query, "name", user.encode()))
        waits.print("beside hostile clients")
        self.assertLess(waits.percentile(100), 1500 * SLOWER)
        self.assertTrue(all(other.is_alive() for other in others))
        end(*others)
        for what in ("request", "notify"):
            self.assertRegex(self.output(), f"shut down {what} .* did not read")
        self.assertEqual(1000, self.ask.count())
        wait_for(lambda: self.settle() or self.descriptors() < 16, 60)  # or something of them stays

    @unittest.skipUnless(NOBODY, "there is no other user here")
    def test_descriptors_that_linger_hold_nobody_up(self):
        """Each holds whoever closes it last for an hour, or for up to a second: until a signal comes."""
        server = socket.socket()
        self.addCleanup(server.close)
        server.bind(("127.0.0.1", 0))
        server.listen()
        self.start()
        os.seteuid(NOBODY)
        clients = [Client("notify") for _ in range(20)]
        os.seteuid(0)
        self.kill(signal.SIGSTOP)  # so that it is the one who closes them last
        for client in clients:
            lingers = socket.socket()
            lingers.connect(server.getsockname())
            lingers.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 3600))
            lingers.setblocking(False)
            with contextlib.suppress(BlockingIOError):
                while True:
                    lingers.send(bytes(1 << 20))
            with socket.socket(fileno=os.dup(client.fd)) as way:
                socket.send_fds(way, [notice(vek.EVENT_UPDATE_IDLE_TIME, "ssh", "nobody", ip=1)], [lingers.fileno()])
            lingers.close()
        self.kill(signal.SIGCONT)
        start = time.monotonic()
        for client in clients:
            self.assertEqual(4, len(client.read(4)))
        self.assertLess(time.monotonic() - start, SLOWER)

    def test_late_readers_put_nobody_off(self):
        self.start()
        self.service.fill(1000)
        before = self.descriptors()
        self.process(hostile, 0, read_late)
        wait_for(lambda: self.descriptors() > before)
        ask, waits = Client("request"), Waits()  # whose turn is after the late one's
        for _ in lasting(2):
            self.assertEqual(1000, len(waits.of(ask.query, "all")))
        self.assertLess(waits.percentile(100), 1500 * SLOWER)

    def test_a_service_that_is_slow_time_and_again_is_waited_for(self):
        self.start()
        self.service.fill(1000)
        size = ctypes.sizeof(vek.event) + 1000 * ctypes.sizeof(vek.user_info)
        slow = Client("request")
        for _ in range(12):
            slow.write(vek.request(vek.QUERY_ALL))
            time.sleep(0.15)
            self.assertEqual(size, len(slow.read(size)))

    @unittest.skipUnless(NOBODY, "no second user in this sandbox")
    def test_silent_connections_shut_services_out_only_of_their_kind(self):
        asked = multiprocessing.Value("L")

        def keep_asking():
            os.setuid(NOBODY)
            one = Client("request")
            with contextlib.suppress(ConnectionError):
                while True:
                    one.count()
                    asked.value += 1

        self.start()
        before = self.descriptors()
        asking = self.process(keep_asking)
        wait_for(lambda: self.descriptors() > before)
        self.process(hostile, NOBODY, stay_silent, PLACES + 50)
        wait_for(lambda: self.descriptors() >= 128)
        before = asked.value
        wait_for(lambda: asked.value > before + 1)  # it has been heard since they came

        def be_turned_away():
            os.setuid(NOBODY)
            one = Client("request")
            with contextlib.suppress(ConnectionError):  # if that was before
                one.write(vek.request(vek.QUERY_TOTAL_USER_NUM))
            self.assertTrue(one.read(1) == b"" and one.ended())

        self.assertEqual(0, exit_status(self.process(be_turned_away).pid))
        # Services of user 0 get in, more of them than there ever were places left, and stay: also when others of user
        # 0 want more places than there are.
        services = [Client("notify") for _ in range(40)]
        self.assertEqual([0] * 40, [service.login("ssh", "root") for service in services])
        self.assertTrue(asking.is_alive(), "is not silent, and keeps its place")
        others = [Client("request") for _ in range(PLACES + 50)]
        self.assertEqual([0] * 40, [service.login("ssh", "again") for service in services])
        del others
