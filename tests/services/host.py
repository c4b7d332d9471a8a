"""host.py: a plain Debian host for one test: its accounts, PAM with the module's profiles enabled, the servers of the
services and their clients, over the daemon of device.py. Only inside scripts/sandbox. The programs are Debian's own,
unpacked in DEBIAN, and what this tree installs, in STAGE; both lie over the sandbox's /usr. By hand, from this directory:

    PYTHONPATH=../daemon ../../scripts/sandbox python3 -B -m unittest logins_test.Ssh

after scripts/services has built and unpacked all that, with BUILD naming one of its builds."""
import crypt, fcntl, functools, os, pathlib, pty, re, select, shutil, signal, socket, subprocess, sys, time

import vek
from device import *

STAGE = f"{BUILD}/stage"
DEBIAN = f"{vek.SOURCE}/build/debian"
SHELL = "/util/qzsh"
PASSWORD = "open sesame"
PROFILES = ("vekd", "vekd-lockout", "vekd-lockout-count")
USERS = {"alice": 1000, "bob": 1001, "carol": 1002}
GROUPS = {"wheel": (2000, "bob"), "helpdesk": (2001, "carol")}

# What the device has instead: a listing with the numbers of terminals, and a launcher. An interactive shell ends by
# the signal of a terminal that hung up; it ignores the one that kill sends.
LISTING = r"""
for stat in /proc/[0-9]*/stat; do
	read -r line <$stat 2>/dev/null || continue
	set -- ${line##*) }
	[ "$5" != 0 ] || continue
	pid=${stat#/proc/} pid=${pid%/stat}
	echo "$pid $(($5 >> 8 & 4095)),$(($5 & 255 | $5 >> 12 & 0xfff00)) $(tr '\0' ' ' </proc/$pid/cmdline)"
done 2>/dev/null | sed '1iPID TT COMMAND'
"""
LAUNCHER = '[ "$1" = /bin/kill ] && kill "$2" && kill -HUP "$2"\n'


def own(path):
    """A file or directory of the host's /etc that may be changed here."""
    path = pathlib.Path("/etc", path)
    if path.is_symlink():
        host = path.resolve()
        path.unlink()
        if host.is_dir():
            shutil.copytree(host, path, symlinks=True)
        elif host.exists():
            shutil.copy2(host, path)
    return path


def add_accounts():
    hashed = crypt.crypt(PASSWORD, crypt.mksalt(crypt.METHOD_SHA256, rounds=1000))
    system = {"root": (0, 0, "/root", "/bin/bash"), "sshd": (100, 65534, "/run/sshd", "/usr/sbin/nologin"),
              "ftp": (101, 65534, "/srv/ftp", "/usr/sbin/nologin"), "freerad": (102, 102, "/", "/usr/sbin/nologin"),
              "nobody": (65534, 65534, "/", "/usr/sbin/nologin")}
    passwd = [f"{name}:x:{uid}:{gid}::{home}:{shell}" for name, (uid, gid, home, shell) in system.items()]
    passwd += [f"{name}:x:{uid}:{uid}::/tmp/{name}:{SHELL}" for name, uid in USERS.items()]
    groups = ["root:x:0:", "tty:x:5:", "utmp:x:43:", "shadow:x:42:", "freerad:x:102:", "nogroup:x:65534:"]
    groups += [f"{name}:x:{uid}:" for name, uid in USERS.items()]
    groups += [f"{name}:x:{gid}:{member}" for name, (gid, member) in GROUPS.items()]
    shadow = [f"{name}:*:19000:0:99999:7:::" for name in system] + \
             [f"{name}:{hashed}:19000:0:99999:7:::" for name in USERS]
    for name, lines in (("passwd", passwd), ("group", groups), ("shadow", shadow)):
        own(name).write_text("\n".join(lines) + "\n")
    os.chmod("/etc/shadow", 0o640)
    own("shells").write_text(f"/bin/bash\n{SHELL}\n")
    for name, uid in USERS.items():
        os.makedirs(f"/tmp/{name}", exist_ok=True)
        os.chown(f"/tmp/{name}", uid, uid)
        write(f"/tmp/{name}/.hushlogin", "")
    os.path.lexists(SHELL) or os.symlink("/bin/bash", SHELL)


def run(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, errors="surrogateescape",
                          stdin=options.pop("stdin", subprocess.DEVNULL), **options).stdout


def enable_profiles(*profiles):
    """As the administrator does: with what decides on Debian which lines /etc/pam.d gets."""
    os.makedirs("/var/lib/pam", exist_ok=True)
    os.makedirs("/var/cache/debconf", exist_ok=True)
    os.environ["DEBIAN_FRONTEND"] = "noninteractive"
    subprocess.run(["debconf-communicate", "libpam-runtime"], check=True, stdout=subprocess.DEVNULL, text=True,
                   input=f"X_LOADTEMPLATEFILE {DEBIAN}/DEBIAN/libpam-runtime/templates libpam-runtime\n")
    run("/usr/sbin/pam-auth-update", "--force", "--package")
    run("/usr/sbin/pam-auth-update", "--enable", *profiles)


def pam_words(words, *files):
    """The module's lines get these words too. Without files: all of them."""
    for file in files or os.listdir("/etc/pam.d"):
        path = pathlib.Path("/etc/pam.d", file)
        path.write_text(re.sub(r"(pam_vekd\.so.*)", rf"\1 {words}", path.read_text()))


@functools.cache
def set_up_host():
    if "scripts/sandbox" not in read("/proc/1/cmdline"):
        sys.exit("only inside scripts/sandbox")
    subprocess.run(["mount", "-t", "overlay", "overlay", "-o", f"lowerdir={STAGE}/usr:{DEBIAN}/usr:/usr", "/usr"],
                   check=True)
    if SANITIZED:  # the module is loaded into programs that know nothing of it
        # It also takes the place of what libcrypt has, and looks for that when it is loaded.
        libraries = [run("cc", "-print-file-name=" + name).strip() for name in ("libasan.so", "libcrypt.so.1")]
        options = f"log_path={SCRATCH}report:detect_leaks=0"  # the leaks would be other people's
        write("/etc/ld.so.preload", "\n".join(libraries))
        own("environment").write_text(f"ASAN_OPTIONS={options}\n")
        OnHost.ASAN_OPTIONS = os.environ["ASAN_OPTIONS"] = options
    add_accounts()
    shutil.copytree(f"{DEBIAN}/etc/pam.d", own("pam.d"), dirs_exist_ok=True)
    enable_profiles(*PROFILES)
    shutil.copytree("/etc/pam.d", "/tmp/pam.d")


def wait_for_port(port):
    """That somebody listens there, of either family."""
    local = f":{int(port):04X} "
    wait_for(lambda: any(local in line and " 0A " in line for family in ("tcp", "tcp6")
                         for line in read("/proc/net/" + family).splitlines()))


class Terminal:
    """A program on a terminal of its own, with somebody who types."""
    def __init__(self, *command, **environment):
        self.pid, self.fd = pty.fork()
        if self.pid == 0:
            os.environ.update(environment)
            os.execvp(command[0], command)
        self.text = ""

    def read(self, seconds=0):
        if select.select([self.fd], [], [], seconds)[0]:
            try:
                part = os.read(self.fd, 65536).decode(errors="replace")
            except OSError:  # its programs have gone
                part = ""
            self.text += part
            return bool(part)
        return True

    def expect(self, text, limit=LIMIT):
        """Waits for it, and forgets everything up to it. Nothing is to be said in vain."""
        end = time.monotonic() + limit
        while text not in self.text:
            assert self.read(0.1) and time.monotonic() < end, f"no {text!r} in {self.text!r}"
        before, _, self.text = self.text.partition(text)
        return before

    def type(self, line):
        os.write(self.fd, line.encode() + b"\n")

    def number(self):
        """Of its pseudo-terminal."""
        return fcntl.ioctl(self.fd, 0x80045430, bytes(4))[0]  # TIOCGPTN

    def ended(self):
        while self.read(0) and select.select([self.fd], [], [], 0)[0]:
            pass
        return not alive(self.pid)

    def close(self):
        if alive(self.pid):
            os.kill(self.pid, signal.SIGKILL)
        os.close(self.fd)


class OnHost(OnDevice):
    """Each test has the daemon, fresh PAM files, and vekctl."""
    ASAN_OPTIONS = ""

    def setUp(self):
        set_up_host()
        super().setUp()
        shutil.rmtree("/etc/pam.d")
        shutil.copytree("/tmp/pam.d", "/etc/pam.d")
        stand_in("/bin/ps", LISTING)
        stand_in("/util/suexec", LAUNCHER)
        if SANITIZED:
            os.environ["ASAN_OPTIONS"] = self.ASAN_OPTIONS
        self.start()

    def background(self, *command, **options):
        """A server in the foreground, ended with the test."""
        log = open(SCRATCH + os.path.basename(command[0]), "ab")
        server = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log, **options)
        def finish():
            server.terminate()
            server.wait(LIMIT)
            log.close()
        self.addCleanup(finish)
        return server

    def terminal(self, *command, **environment):
        terminal = self.TERMINAL(*command, **environment)
        self.addCleanup(terminal.close)
        return terminal

    def sessions(self, user=None):
        return self.ask.query("all") if user is None else [s for s in self.ask.query("all") if s.username == user]

    def session(self, user, limit=LIMIT, **fields):
        """Waits for the one session of the user, with these fields."""
        def found():
            sessions = self.sessions(user)
            return len(sessions) == 1 and all(getattr(sessions[0], f) == v for f, v in fields.items()) and sessions[0]
        return wait_for(found, limit)

    def vekctl(self, *arguments):
        return run(f"{BUILD}/tools/vekctl", *arguments)
