"""clients_test.py: clients that send what is no record, that read late, slowly or never, and what that costs the
others: about a second of waiting, and nobody's data."""
import vek
from device import *

INT_MIN, INT_MAX = -2 ** 31, 2 ** 31 - 1


class BadInput(OnDevice):
    def after_bad_numbers(self, kind, record, numbers):
        """Half a record ends a connection. On the one returned, numbers that nobody may send got no answer."""
        half, fed = Client(kind), Client(kind)
        half.write(record, ctypes.sizeof(record) - 1)
        self.assertEqual(b"", half.read())
        self.assertTrue(half.ended())
        for number in numbers:
            fed.write(type(record)(number))
        return fed

    def test_records_that_are_none(self):
        self.start()
        success = bytes(vek.response(vek.RESPONSE_SUCCESS))
        event = notice(vek.EVENT_USER_LOGIN, "ssh", "bob\n<25>eve\x1b[2J\u009b2Jé")
        reporting = self.after_bad_numbers("notify", event, (0, 6, 9, 12, 18, 23, 31, 33, 39, -1, INT_MIN, INT_MAX))
        reporting.write(event)
        self.assertEqual(success, reporting.read(len(success)))
        self.assertFalse(reporting.pending(), "that is the only answer")
        self.logged("User bob\\x0a<25>eve\\x1b[2J\\xc2\\x9b2Jé ssh login.")  # a name forges no line

        # Text without an end.
        endless = vek.event.from_buffer_copy(b"A" * ctypes.sizeof(event))
        endless.event, endless.type, endless.event_flag = vek.EVENT_USER_LOGIN, vek.USER_TYPE, 0
        endless.define_name = ""
        reporting.write(endless)
        self.assertEqual(success, reporting.read(len(success)))
        self.logged(f"User {'A' * 63} {'A' * 31} login.")

        request = vek.request.from_buffer_copy(b"B" * ctypes.sizeof(vek.request))
        request.method, request.req_flags = vek.QUERY_NAME, 0
        asking = self.after_bad_numbers("request", request, (0, 7, -1, INT_MIN, INT_MAX))
        asking.write(request)
        answer = asking.read(ctypes.sizeof(event))
        self.assertEqual(1, answer.count(b"B" * 63 + b"\0"), "of the whole name's length")


def read_copies(user, ready, most):
    """For one that does nothing else."""
    os.setuid(user)
    subscription = Client("request").subscribe()
    ready.value = 1
    copies = len(subscription.copies(most))
    assert copies == most, f"{copies} of {most} copies"


def monitor(user, pace):
    """Asks for everybody each second, and spends so long on each record."""
    os.setuid(user)
    one, size = Client("request"), ctypes.sizeof(vek.user_info)
    for i in range(5):
        begin = time.monotonic()
        one.write(vek.request(vek.QUERY_ALL))
        header = vek.event.from_buffer_copy(one.read(ctypes.sizeof(vek.event)))
        for record in range(header.count):
            assert len(one.read(size)) == size, f"answer {i}: {record} of {header.count} records"
            time.sleep(pace)
        time.sleep(max(0, begin + 1 - time.monotonic()))


class SlowClients(OnDevice):
    def test_who_never_reads_costs_the_others_nothing(self):
        """A subscriber is shut down in the end. Answers wait, each until the one before has been read."""
        self.start("-d")
        self.service.fill(vek.MAX_USERS)
        subscriber, *asking = [Client("request") for _ in range(4)]
        subscriber.write(vek.request(vek.LISTEN))
        for client in asking * 4:
            client.write(vek.request(vek.QUERY_ALL))
        self.settle()
        waits = Waits()

        def is_ended():
            self.assertEqual(0, waits.of(self.service.logout, "http/https", "1"))
            self.assertEqual(vek.MAX_USERS - 1, waits.of(self.ask.count))
            self.assertEqual(0, waits.of(self.service.login, "http/https", "1"))
            return subscriber.ended()

        wait_for(is_ended)
        waits.print("beside stalled clients")
        self.assertLess(waits.percentile(100), 200 * SLOWER)
        said = re.findall(rf"shut down request .* of process {os.getpid()}, user 0: did not read", self.output())
        self.assertEqual(1, len(said))
        self.assertEqual(0, len(subscriber.read()) % ctypes.sizeof(vek.event), "a copy came in part")
        size = ctypes.sizeof(vek.event) + vek.MAX_USERS * ctypes.sizeof(vek.user_info)
        for client in asking * 4:
            self.assertEqual(size, len(client.read(size)))

    def test_everybody_arrives_at_slow_monitors(self):
        self.start()
        self.service.fill(vek.MAX_USERS)
        monitors = [self.process(monitor, *each) for each in [(SOMEBODY, 0.0003)] * 3 + [(0, 0.0006)]]
        for each in monitors:
            each.join()
        self.assertEqual([0] * 4, [each.exitcode for each in monitors])

    def test_tick_that_ends_everybody_arrives_at_all_who_read(self):
        """Late, or beside one who does not read."""
        self.start()
        self.service.fill(vek.MAX_USERS, session_timeout=500)
        stalled, *late = [Client("request", user).subscribe() for user in (NOBODY, SOMEBODY, 0)]
        ready = multiprocessing.Value("L")
        reader = self.process(read_copies, SOMEBODY, ready, vek.MAX_USERS)
        wait_for(lambda: ready.value)
        self.advance(1000)
        self.tick(181)  # the uptime is read anew
        time.sleep(0.6)
        self.assertEqual([vek.MAX_USERS] * 2, [len(one.copies(vek.MAX_USERS)) for one in late])
        reader.join(LIMIT)
        self.assertEqual((0, 0), (reader.exitcode, self.ask.count()))
        del stalled

    def test_whole_records_of_one_who_has_gone_are_handled(self):
        self.start()
        for user in (0, SOMEBODY):
            self.service.fill(3)
            one = Client("notify", user)
            self.stopped()
            for i in range(3):
                one.write(notice(vek.EVENT_USER_LOGOUT, "http/https", str(i)))
            del one
            self.kill(signal.SIGCONT)
            with contextlib.suppress(AssertionError):
                wait_for(lambda: self.ask.count() == 0, 1)
            self.assertEqual(0, self.ask.count())

    def test_a_full_queue_is_left_in_the_order_it_was_joined(self):
        pathlib.Path(vek.ADDRESS_NOTIFY).unlink(missing_ok=True)
        with socket.create_server(vek.ADDRESS_NOTIFY, family=socket.AF_UNIX, backlog=0) as server:
            server.settimeout(LIMIT)
            queue = []
            for _ in range(12):
                client = self.process(Client, "notify")
                queue.append(client.pid)  # all but the first find the queue full
                wait_for(lambda: ") S " in read(f"/proc/{client.pid}/stat") or not alive(client.pid))
            for pid in queue:
                with server.accept()[0] as accepted:
                    peer = accepted.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 4)
                    self.assertEqual(pid, int.from_bytes(peer, sys.byteorder))

    def test_reports_from_an_event_loop(self):
        pathlib.Path(vek.ADDRESS_NOTIFY).unlink(missing_ok=True)
        with socket.create_server(vek.ADDRESS_NOTIFY, family=socket.AF_UNIX) as server:
            client = Client("notify")
            daemon = server.accept()[0]
            self.addCleanup(daemon.close)
            nameless = notice(vek.EVENT_USER_LOGIN, "ssh")

            def call(name, *arguments):
                result = getattr(LIBRARY, "vek_client_" + name)(client, *arguments)
                return result if result >= 0 else errno.errorcode[ctypes.get_errno()]

            self.assertEqual(("EINVAL", "EINVAL"), (call("answer"), call("report", ctypes.byref(nameless))))
            self.assertEqual((0, "EBUSY"), (call("send", ctypes.byref(nameless)), call("send", ctypes.byref(nameless))))
            self.assertEqual(bytes(nameless), daemon.recv(9999), "once")
            for part, status in ((b"\1\0", "EAGAIN"), (b"\0\0", 1), (b"", "EINVAL")):
                daemon.send(part)
                self.assertEqual(status, call("answer"))
            self.assertEqual(0, call("send", ctypes.byref(nameless)))
            daemon.close()
            self.assertEqual(("ECONNRESET", "ENOTCONN"), (call("answer"), call("answer")))
