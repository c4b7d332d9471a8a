"""device.py: what a run against the real daemon needs: starting and ending it, ticks, its clients, the system log,
and stand-ins for what it finds on a device. Only inside scripts/sandbox: everything here sits at the real paths. What
waits here waits for a condition, at most LIMIT seconds. By hand, in this directory:

    ../../scripts/sandbox python3 -B -m unittest sessions_test.Road

BUILD names the build (build/release unless set), VEKD another daemon."""
import contextlib, ctypes, errno, functools, itertools, multiprocessing, os, pathlib, re, select, shutil, signal, socket
import subprocess, sys, time, unittest

import vek

BUILD = os.environ.get("BUILD", f"{vek.SOURCE}/build/release")
VEKD = os.environ.setdefault("VEKD", f"{BUILD}/vekd")
SANITIZED = b"__asan_init" in pathlib.Path(VEKD).read_bytes()
SLOWER = 4 if SANITIZED else 1  # than the release build, where a time is measured
LIMIT = 10
SCRATCH = "/dev/shm/drive/"  # where no run puts anything in the daemon's way
PLATFORM = "/etc/vekd/platform.conf"

LIBRARY = ctypes.CDLL(f"{BUILD}/tests/daemon/libvek_test_client.so", use_errno=True)
LIBRARY.vek_client_open_notify.restype = LIBRARY.vek_client_open_request.restype = ctypes.c_void_p
EACH = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.POINTER(vek.user_info), ctypes.c_void_p)
LIBC = ctypes.CDLL(None, use_errno=True)
LIBC.shmat.restype = ctypes.c_ssize_t
IPC_CREAT, IPC_RMID, GETVAL, SETVAL, PR_SET_CHILD_SUBREAPER = 0o1000, 0, 12, 16, 36


def checked(result):
    if result is None or result < 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))
    return result


def wait_for(condition, limit=LIMIT):
    end = time.monotonic() + limit
    while not (found := condition()):
        assert time.monotonic() < end, "waited in vain"
        time.sleep(0.002)
    return found


def lasting(seconds):
    """Over and over for so long: the seconds that have passed."""
    start = time.monotonic()
    while (passed := time.monotonic() - start) < seconds:
        yield passed


def setting(name, otherwise):
    """From the environment, for runs that are also tools."""
    return int(os.environ.get(name, otherwise))


# ---- files ----

def read(path):
    """The text, empty when there is no such file."""
    with contextlib.suppress(OSError):
        return pathlib.Path(path).read_text(errors="surrogateescape")
    return ""


def write(path, text, mode=0o644):
    pathlib.Path(path).write_text(text)
    os.chmod(path, mode)


def stand_in(program, script):
    """A shell script in a program's place."""
    write(program, "#!/bin/sh\n" + script, 0o755)


@contextlib.contextmanager
def without_room(option, *paths):
    """File systems that take nothing: full, or with the option "ro" not to be written."""
    for path in paths:
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=4k," + option, "tmpfs", path], check=True)
        with contextlib.suppress(OSError):
            pathlib.Path(path, "filler").write_bytes(bytes(65536))
    try:
        yield
    finally:
        for path in paths:
            subprocess.run(["umount", "-l", path], check=True)


# ---- processes ----

# Other users than root, where the sandbox has more than one: hostile ones and honest ones.
NOBODY, SOMEBODY = (65534, 33) if int(read("/proc/self/uid_map").split()[2]) > 65534 else (0, 0)
with_users = unittest.skipUnless(NOBODY, "there is no other user here")


@contextlib.contextmanager
def acting_as(user):
    before = os.geteuid()
    os.seteuid(user)
    try:
        yield
    finally:
        os.seteuid(before)


def alive(pid):
    """Which a zombie is not. One that was left to us is reaped."""
    with contextlib.suppress(ChildProcessError):
        os.waitpid(pid, os.WNOHANG)
    return read(f"/proc/{pid}/stat").rpartition(") ")[2][:1] not in ("", "Z", "X")


def exit_status(pid):
    """Of a child that ends, or has; the number of a signal that ended it is negative."""
    end = wait_for(lambda: os.waitid(os.P_PID, pid, os.WEXITED | os.WNOHANG))
    return end.si_status if end.si_code == os.CLD_EXITED else -end.si_status


def end(*children):
    for child in children:
        child.kill()
        child.join()


def again_and_again(user, way, *arguments):
    """A process that goes on until it is ended: turned away, or shut down, it begins again. At the daemon's priority,
    so that it competes for what is tested and not for the machine."""
    os.nice(19 - os.nice(0))
    os.setuid(user)
    while True:
        with contextlib.suppress(OSError):
            way(*arguments)


def other_processes():
    """Of this sandbox, beside its first and this one."""
    pids = {int(pid) for pid in os.listdir("/proc") if pid.isdigit()} - {1, os.getpid()}
    return [read(f"/proc/{pid}/cmdline") for pid in pids if alive(pid)]


# ---- clients ----

def notice(number, service="", user="", unique="", ip=0, **fields):
    """An event of a user, by both names."""
    return vek.event(event=number, service=service, username=user, real_username=user, unique=unique, ip=ip,
                     type=vek.USER_TYPE, **fields)


class Client:
    """A user's connection to the notify or the request socket, closed with its last reference."""
    _as_parameter_ = None

    def __init__(self, kind, user=None):
        with acting_as(os.geteuid() if user is None else user):
            self._as_parameter_ = ctypes.c_void_p(checked(getattr(LIBRARY, "vek_client_open_" + kind)(LIMIT * 1000)))
        self.fd = LIBRARY.vek_client_fd(self)

    def __del__(self):
        LIBRARY.vek_client_close(self)

    def report(self, *keys, **fields):
        return checked(LIBRARY.vek_client_report(self, ctypes.byref(notice(*keys, **fields))))

    def login(self, *keys, **fields):
        return self.report(vek.EVENT_USER_LOGIN, *keys, **fields)

    def logout(self, *keys, **fields):
        return self.report(vek.EVENT_USER_LOGOUT, *keys, **fields)

    def fill(self, sessions, **fields):
        """Of users "0", "1", ... of the web interface."""
        for i in range(sessions):
            assert self.login("http/https", str(i), **fields) == 0

    def count(self):
        return checked(LIBRARY.vek_client_count(self))

    def query(self, what, *keys):
        found = []
        each = EACH(lambda session, _: found.append(vek.user_info.from_buffer_copy(session[0])) or 0)
        checked(getattr(LIBRARY, "vek_client_query_" + what)(self, *keys, each, None))
        return found

    def subscribe(self):
        checked(LIBRARY.vek_client_subscribe(self))
        return self

    def next(self):
        event = vek.event()
        checked(LIBRARY.vek_client_next(self, ctypes.byref(event)))
        return event

    def pending(self, events=select.POLLIN, seconds=0):
        """Something is there. Each copy is written before the reporting service gets its status."""
        poll = select.poll()
        poll.register(self.fd, events)
        return bool(poll.poll(seconds * 1000))

    # For what the client library would not do.
    def write(self, record, size=None):
        """If there is room."""
        with contextlib.suppress(BlockingIOError):
            os.write(self.fd, bytes(record)[:size])

    def read(self, most=sys.maxsize):
        """Waits for so much, or for the daemon to end it."""
        text = b""
        with contextlib.suppress(OSError):
            while len(text) < most and self.pending(seconds=LIMIT):
                if not (part := os.read(self.fd, min(65536, most - len(text)))):
                    break
                text += part
        return text

    def copies(self, most):
        """So many, or those that come before the daemon ends it."""
        text, size = self.read(most * ctypes.sizeof(vek.event)), ctypes.sizeof(vek.event)
        assert len(text) % size == 0, "a copy came in part"
        return [vek.event.from_buffer_copy(text, at) for at in range(0, len(text), size)]

    def ended(self):
        """By the daemon, even if what it sent is unread."""
        return self.pending(select.POLLRDHUP)


def users(sessions):
    return [session.username for session in sessions]


class Waits:
    """How long calls took, in milliseconds."""
    def __init__(self):
        self.all = []

    def of(self, call, *arguments):
        start = time.monotonic()
        result = call(*arguments)
        self.all.append((time.monotonic() - start) * 1000)
        return result

    def percentile(self, part):
        return sorted(self.all)[int(part / 100 * (len(self.all) - 1))]

    def print(self, what):
        print(f"{what}: {len(self.all)} calls, median {self.percentile(50):.2f} ms,",
              f"p99 {self.percentile(99):.2f} ms, worst {self.percentile(100):.2f} ms", flush=True)


# ---- a test on a device of its own ----

def read_log():
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as log, open(SCRATCH + "log", "ab", buffering=0) as file:
        log.bind("/dev/log")
        while line := log.recv(8192):
            file.write(line + b"\n")


def log_lines():
    """Each as "<priority>text": without the time and the program, which stand between them."""
    return re.sub(r"^(<\d+>).*?\]: ", r"\1", read(SCRATCH + "log"), flags=re.M)


def blocks_exist(kind="shm"):
    """Any of the daemon's segments; or of its semaphores ("sem")."""
    keys = {int(line.split()[0]) for line in read("/proc/sysvipc/" + kind).splitlines()[1:]}
    return bool(keys & {vek.USER_CONFIG_IPC_KEY, vek.USER_LOCK_IPC_KEY})


@functools.cache
def set_up_sandbox():
    if "scripts/sandbox" not in read("/proc/1/cmdline"):  # not on a real machine
        sys.exit("only inside scripts/sandbox")
    LIBC.prctl(PR_SET_CHILD_SUBREAPER, 1)  # the detached daemon's end can be waited for, and nothing lives on unseen
    os.environ["ASAN_OPTIONS"] = f"log_path={SCRATCH}report"
    os.environ["UBSAN_OPTIONS"] = f"print_stacktrace=1:log_path={SCRATCH}report"
    for path in ("/bin/ps", "/proc/uptime", "/proc/consoles"):
        ours = "/dev/shm/" + os.path.basename(path)
        write(ours, "")
        subprocess.run(["mount", "--bind", ours, path], check=True)


class OnDevice(unittest.TestCase):
    """A clock that stands still at an uptime, a reader of the system log, a daemon to start with a service and
    somebody who asks connected to it, and the check that nothing is left."""
    pid, output_file, priority = None, "", 0  # the daemon's
    starts = itertools.count()

    def setUp(self):
        set_up_sandbox()
        self.addCleanup(self.nothing_is_left)
        shutil.rmtree(SCRATCH, ignore_errors=True)
        os.mkdir(SCRATCH)
        for left in (PLATFORM, "/dev/log", "/util/suexec", vek.PID_FILE):
            pathlib.Path(left).unlink(missing_ok=True)
        stand_in("/bin/ps", "")
        self.uptime, self.now = os.open("/proc/uptime", os.O_WRONLY), 100000
        self.advance(0)
        self.log_reader = self.process(read_log)
        wait_for(lambda: os.path.exists("/dev/log"))
        self.addCleanup(self.end_daemon)

    def run(self, result=None):
        before = len(result.failures + result.errors)
        super().run(result)
        if len(result.failures + result.errors) > before:
            print("the daemon's output:", self.output()[-2000:], sep="\n")

    def end_daemon(self):
        if self.pid:
            self.assertTrue(alive(self.pid), "the daemon died")
            self.assertEqual(0, self.stop())
            self.assertFalse(os.path.exists(vek.PID_FILE))
            self.assertFalse(blocks_exist() or blocks_exist("sem"))

    def nothing_is_left(self):
        for report in pathlib.Path(SCRATCH).glob("report*"):  # of the sanitizers
            self.fail(read(report))
        with contextlib.suppress(AssertionError):  # what was killed may still be going
            wait_for(lambda: not other_processes(), 2)
        self.assertEqual([], other_processes())

    def spawn(self, *options):
        """The process that a start begins with."""
        self.output_file = f"{SCRATCH}output{next(self.starts)}"
        files = [(os.POSIX_SPAWN_OPEN, 0, "/dev/null", os.O_RDONLY, 0),
                 (os.POSIX_SPAWN_OPEN, 1, self.output_file, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o644),
                 (os.POSIX_SPAWN_DUP2, 1, 2)]
        return os.posix_spawn(VEKD, [VEKD, *options], os.environ, file_actions=files,
                              setsigdef=[signal.SIGPIPE, signal.SIGXFSZ])

    def start(self, *options):
        """Until it answers. It then gets a common priority, so that what else runs here decides nothing, unless the
        suite says otherwise."""
        started = self.spawn(*options)
        assert options or exit_status(started) == 0  # with "-d" it stays in the foreground
        self.pid = int(wait_for(lambda: read(vek.PID_FILE)))
        self.service, self.ask = Client("notify"), Client("request")
        self.ask.count()
        assert os.getpriority(os.PRIO_PROCESS, self.pid) == 19
        with contextlib.suppress(PermissionError):  # of a sandbox whose root is none outside
            os.setpriority(os.PRIO_PROCESS, self.pid, self.priority)

    def stop(self, number=signal.SIGTERM):
        """The status."""
        self.service = self.ask = None
        self.kill(number)
        pid, self.pid = self.pid, None
        return exit_status(pid)

    def kill(self, number):
        os.kill(self.pid, number)

    def advance(self, seconds):
        self.now += seconds
        os.pwrite(self.uptime, b"%d.00 1.00\n" % self.now, 0)  # at one length: nobody ever reads half of it

    def tick(self, seconds=1):
        """One second of the daemon's time each. Its own timer ticks beside it, and may swallow one."""
        for _ in range(seconds):
            self.kill(signal.SIGALRM)
            self.settle()

    def settle(self):
        """Two passes of its loop, after which a signal, or one record each of any connections, has been acted on: the
        first answer can be given in the pass that began before."""
        self.ask.count()
        self.ask.count()

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def output(self):
        """Of the latest start."""
        return read(self.output_file)

    def logged(self, text, priority=29):
        """Waits for a line of exactly this text at this priority (facility included)."""
        wait_for(lambda: f"\n<{priority}>{text}\n" in "\n" + log_lines())

    def stopped(self):
        """What is sent meanwhile lies whole before it when it goes on."""
        self.kill(signal.SIGSTOP)
        self.addCleanup(lambda: self.pid and self.kill(signal.SIGCONT))
        wait_for(lambda: read(f"/proc/{self.pid}/stat").rpartition(") ")[2][:1] == "T")

    def process(self, body=signal.pause, *arguments):
        """A child, ended with the test."""
        child = multiprocessing.get_context("fork").Process(target=body, args=arguments)
        child.start()
        self.addCleanup(end, child)
        return child

    def shared(self, record, key, flags=0):
        """A System V segment: one that is there, or with IPC_CREAT one of ours, removed at the end of the test."""
        segment = checked(LIBC.shmget(key, ctypes.sizeof(record), flags | 0o666))
        if flags:
            self.addCleanup(LIBC.shmctl, segment, IPC_RMID, None)
        return record.from_address(checked(LIBC.shmat(segment, None, 0)))

    def ftp_clients(self, *clients):
        """The ftp server's table of its clients, and the lock of it, which is taken as it is made."""
        table = self.shared(vek.ClientTerminateList, vek.PUREFTP_IPC_SHM_KEY, IPC_CREAT)
        table.size = len(clients)
        for i, client in enumerate(clients):
            table.list[i] = vek.ClientTerminateInformation(*client)
        lock = checked(LIBC.semget(vek.PUREFTP_IPC_KEY, 1, IPC_CREAT | 0o666))
        self.addCleanup(LIBC.semctl, lock, 0, IPC_RMID)
        return table, lock
