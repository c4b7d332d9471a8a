"""hostile_test.py: programs that do everything wrong, all at once, at the daemon's own priority, and services beside
them that must not notice. HOSTILE_SECONDS: how long (10)."""
import stat, struct, tempfile, unittest.mock

import vek
from device import *

PLACES = 120  # connections that fit into the daemon's table, roughly
KINDS = ("request", "notify")
EVERYBODY = vek.request(vek.QUERY_ALL)


def never_read(connections, kinds, record=b"", pause=0.02):
    """So many that ask, subscribe or report, or are silent."""
    kept = []
    while True:
        kept = [one for one in kept if not one.ended()]
        while len(kept) < connections:
            kept.append(Client(kinds[len(kept) % len(kinds)]))
        for one in kept if record else ():
            one.write(record)
        time.sleep(pause)


def come_and_go():
    """Waits in the queue of those who connect, with no pause between two tries."""
    for path in (vek.ADDRESS_NOTIFY, vek.ADDRESS_REQUEST):
        with socket.socket(socket.AF_UNIX) as one:
            one.connect(path)


def send_halves():
    for i in range(6):
        Client(KINDS[i % 2]).write(vek.event(), i % 3 * 50)  # or connects for nothing


def flood_unknown_numbers():
    notify, asking = Client("notify"), Client("request")
    for i in range(2000):
        number = (64 if i % 2 else -1000000) * (i + 1)  # none that is known
        notify.write(vek.event(number))
        asking.write(vek.request(number))


def flood_reports():
    notify = Client("notify")
    while True:
        notify.login("ssh", "flood")
        notify.logout("ssh", "flood")


def read_late():
    """Asks for everything and reads it all, just before it would be given up, with the next request sent already."""
    one = Client("request")
    one.write(EVERYBODY)
    while True:
        one.write(EVERYBODY)
        time.sleep(0.45)
        one.read(ctypes.sizeof(vek.event) + 1000 * ctypes.sizeof(vek.user_info))


def pass_descriptors():
    with socket.socket(fileno=os.dup(Client("notify").fd)) as way:
        while True:
            socket.send_fds(way, [notice(vek.EVENT_UPDATE_IDLE_TIME, "ssh", "nobody", ip=1)],
                            [LIBC.inotify_init() for _ in range(100)])


def be_healthy(user, copies):
    """Reports, asks and comes anew; and counts the copies that it causes."""
    os.setuid(user)
    name, waits = f"healthy{user}", {what: Waits() for what in ("report", "query", "connect")}
    for i, _ in enumerate(lasting(setting("HOSTILE_SECONDS", 10))):
        if i % 4 == 0:
            notify, request = (waits["connect"].of(Client, kind) for kind in ("notify", "request"))
        unique = str(i)
        assert waits["report"].of(notify.login, "ssh", name, unique) == 0
        found = waits["query"].of(request.query, "name", name.encode())
        assert [session.unique for session in found] == [unique]
        if i % 100 == 99:  # which may have to wait for some who do not read
            assert len(request.query("all")) > 1000
        assert waits["report"].of(notify.logout, "ssh", name, unique) == 0
        copies.value += 2
    for what, each in waits.items():
        each.print(f"{what} of user {user}")
    for each in waits.values():
        assert each.percentile(100) < 1000 * SLOWER and each.percentile(99) < 200 * SLOWER


def follow(user, ready, copies):
    """Counts what the healthy ones cause, until the last of it."""
    os.setuid(user)
    subscription = Client("request").subscribe()
    ready.value = 1
    while (name := subscription.next().username) != "last":
        copies.value += name.startswith("healthy")


class Hostile(OnDevice):
    priority = 19  # which it gave itself

    def test_nobody_holds_a_service_up(self):
        users = (0, SOMEBODY)
        ready, seen, caused = ([multiprocessing.Value("L") for _ in users] for _ in range(3))
        self.start()
        self.service.fill(1000)
        followers = [self.process(follow, *each) for each in zip(users, ready, seen)]
        wait_for(lambda: all(each.value for each in ready))
        others = [self.process(again_and_again, NOBODY, *way) for way in (
            (never_read, 30, KINDS), (send_halves,), (flood_unknown_numbers,), (flood_reports,), (pass_descriptors,),
            (never_read, 2, ("request",), vek.request(vek.LISTEN), 0.001),
            (never_read, 2, ("notify",), notice(vek.EVENT_USER_LOGOUT, "ssh", "nobody"), 0.001),
            *[(never_read, 1, ("request",), EVERYBODY)] * 20, *[(read_late,)] * 2, *[(come_and_go,)] * 10)]
        services = [self.process(be_healthy, *each) for each in zip(users, caused)]
        for service in services:
            service.join()
        self.assertTrue(all(other.is_alive() for other in others))
        end(*others)
        self.assertEqual(0, Client("notify").login("ssh", "last"))
        for follower in followers:
            follower.join(LIMIT)
        self.assertEqual(([0, 0], [0, 0]), tuple([one.exitcode for one in some] for some in (services, followers)))
        self.assertEqual([sum(each.value for each in caused)] * 2, [each.value for each in seen])
        self.assertIn(self.ask.count(), (1001, 1002))  # with the last of the flood
        wait_for(lambda: self.settle() or self.descriptors() < 16, 60)  # or something of them stays

    def test_a_short_question_waits_behind_no_long_ones(self):
        self.start()
        self.service.fill(vek.MAX_USERS)
        self.process(again_and_again, NOBODY, never_read, 100, ("request",), EVERYBODY)
        wait_for(lambda: self.descriptors() > 100)
        ask, waits = Client("request", SOMEBODY), Waits()
        for _ in lasting(2):
            self.assertEqual(["7"], users(waits.of(ask.query, "name", b"7")))
        waits.print("a name beside 100 who ask for everybody")
        self.assertLess(waits.percentile(100), 500 * SLOWER)

    def test_a_subscriber_that_keeps_up_beside_a_flood(self):
        self.start()
        subscription = Client("request").subscribe()
        for _ in range(5):
            self.process(again_and_again, NOBODY, flood_reports)
        for passed in lasting(4):
            self.assertEqual(10, len(subscription.copies(10)), f"ended after {passed:.2f} s")
            time.sleep(0.02)

    @with_users
    def test_a_crowd_costs_nobody_else_his_place_and_nobody_a_record(self):
        ready, seen = multiprocessing.Value("L"), multiprocessing.Value("L")
        self.start()
        quiet = self.process(follow, SOMEBODY, ready, seen)
        wait_for(lambda: ready.value)
        crowd = []
        with contextlib.suppress(ConnectionError):  # until one is turned away
            while True:
                crowd.append(Client("notify", NOBODY))
                crowd[-1].login("ssh", "healthy", str(len(crowd) - 1))
        sessions = self.ask.count()
        self.assertGreater(sessions, 100)
        # Five services come before what the crowd sends is read.
        self.stopped()
        for i in range(sessions):
            crowd[i].write(notice(vek.EVENT_USER_LOGOUT, "ssh", "healthy", str(i)))
        services = [Client("notify") for _ in range(5)]
        self.kill(signal.SIGCONT)
        services += [Client("notify") for _ in range(35)]
        self.assertEqual([0] * 40, [service.login("ssh", "root") for service in services])
        self.assertEqual(40, self.ask.count(), "or a logout was lost")
        services[-1].login("ssh", "last")
        quiet.join(LIMIT)
        self.assertEqual((0, 2 * sessions), (quiet.exitcode, seen.value))
        # They stay, also when others of user 0 want more places than there are.
        others = [Client("request") for _ in range(PLACES + 50)]
        self.assertEqual([0] * 40, [service.login("ssh", "again") for service in services])
        del others


# ---- descriptors that programs pass along ----

def inotifies():
    """Each costs whoever closes it last some milliseconds."""
    made = [wait_for(lambda: max(0, LIBC.inotify_init())) for _ in range(120)]  # of 128 that a user may have
    return [LIBC.inotify_add_watch(fd, b"/tmp", 2) and fd for fd in made]


def lingering(server):
    """Each holds whoever closes it last for an hour, or until a signal comes; but nobody who exits."""
    made = [socket.create_connection(server.getsockname()) for _ in range(40)]
    for one in made:
        one.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 3600))
        one.setblocking(False)
        with contextlib.suppress(BlockingIOError):
            while True:
                one.send(bytes(1 << 20))
    return [one.detach() for one in made]


def nested():
    """Each in a message to a socket in a message to a socket."""
    descriptors = inotifies()
    for i in [*range(len(descriptors))] * 2:
        way, end = socket.socketpair()
        socket.send_fds(way, [b"x"], [descriptors[i]])
        way.close()
        os.close(descriptors[i])
        descriptors[i] = end.detach()
    return descriptors


def serve_file(directory, silent):
    """By FUSE. When it falls silent, whoever closes the file last waits for ever, and no signal ends that."""
    device = os.open("/dev/fuse", os.O_RDWR)
    checked(LIBC.mount(b"fuse", directory.encode(), b"fuse", 0, b"fd=%d,rootmode=40000,user_id=0,group_id=0" % device))
    LOOKUP, GETATTR, OPEN, GETXATTR, INIT, WRITEBACK_CACHE = 1, 3, 14, 22, 26, 1 << 16
    attributes = struct.pack("=6Q10I", 2, *[0] * 5, *[0] * 3, 0o100666, 1, *[0] * 5)
    answers = {INIT: struct.pack("=4I2H2I2H8I", 7, 31, 65536, WRITEBACK_CACHE, 12, 12, 65536, 1, 16, 0, *[0] * 8),
               LOOKUP: struct.pack("=4Q2I", 2, 0, 100, 100, 0, 0) + attributes,
               OPEN: struct.pack("=Q2I", 1, 0, 0), GETATTR: struct.pack("=Q2I", 100, 0, 0) + attributes}
    while True:
        _, number, unique = struct.unpack_from("=IIQ", os.read(device, 1 << 17))
        if not silent.value:
            answer = answers.get(number, b"")
            os.write(device, struct.pack("=IiQ", 16 + len(answer), -38 * (number == GETXATTR), unique) + answer)


@with_users
class Passing(OnDevice):
    priority = 19

    def send(self, programs, make, *arguments):
        """To the stopped daemon, so that it would be the one who closes them last: with whole records, and with half
        ones after which something is left unread. Whether the kernel refuses that is the status."""
        clients, refused = [Client("notify", NOBODY) for _ in range(programs)], 0
        descriptors, text = make(*arguments), bytes(notice(vek.EVENT_UPDATE_IDLE_TIME, "ssh", "nobody", ip=1))
        self.stopped()
        for i, client in enumerate(clients * 2):
            part = text[:10] if i < programs // 2 else text
            with socket.socket(fileno=os.dup(client.fd)) as way:
                try:
                    socket.send_fds(way, [part], descriptors[i::2 * programs])
                except PermissionError:
                    refused = 1
                    client.write(part, len(part))
        sys.exit(refused)

    def hold_nobody_up(self, *statuses):
        silent, directory = multiprocessing.Value("L"), tempfile.mkdtemp()
        with contextlib.suppress(FileExistsError):
            os.mknod("/dev/fuse", 0o600 | stat.S_IFCHR, os.makedev(10, 229))
        self.process(serve_file, directory, silent)
        server = socket.create_server(("127.0.0.1", 0), backlog=40)
        self.addCleanup(server.close)

        def files():
            return [os.open(directory + "/file", os.O_RDWR) for _ in range(80)]

        self.service.login("ssh", "alice")  # it has a connection to the log from now on
        before = self.descriptors()
        for programs, make, *arguments in ((2, inotifies), (20, lingering, server), (2, nested), (40, files)):
            sender = self.process(self.send, programs, make, *arguments)
            sender.join()
            self.assertIn(sender.exitcode, statuses)
            if make == files:
                os.pwrite(files()[0], bytes(4096), 0)  # which has to go to the server before the file is closed
                silent.value = 1
            waits = Waits()
            self.kill(signal.SIGCONT)
            for user in (0, SOMEBODY):
                one = waits.of(Client, "notify", user)
                for _ in range(10):
                    self.assertEqual(0, waits.of(one.login, "ssh", "alice"))
            waits.print(f"beside {make.__name__} that are {('passed', 'refused')[sender.exitcode]}")
            self.assertLess(waits.percentile(100), 200 * SLOWER)
            del one
            wait_for(lambda: make == files or self.descriptors() <= before)
        self.assertLess(len(other_processes()), 30, "whoever waits for the server is one of few")

    def test_hold_nobody_up(self):
        self.start()
        self.hold_nobody_up(0, 1)

    def test_hold_nobody_up_on_an_older_kernel(self):
        with unittest.mock.patch.dict(os.environ, LD_PRELOAD=f"{BUILD}/tests/daemon/libvek_old_kernel.so",
                                      ASAN_OPTIONS=os.environ["ASAN_OPTIONS"] + ":verify_asan_link_order=0"):
            self.start()
        self.hold_nobody_up(0)
