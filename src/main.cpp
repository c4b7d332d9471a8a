// main.cpp: the process: command line, start-up in its fixed order, the loop, shut-down. The bus, the socket
// loop, the endpoints and the modules do the work; signal handlers only set flags that the loop acts on.
#include <fcntl.h>
#include <getopt.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

#include "daemon.h"
#include "deferred_logout.h"
#include "endpoint.h"
#include "init.h"
#include "misc.h"
#include "qzlog.h"
#include "rbtree.h"
#include "sock_event.h"
#include "terminator.h"
#include "userdb.h"
#include "vek_event.h"
#include "veklog.h"

int debug;
std::uint64_t seconds_since_boot;
volatile std::sig_atomic_t vek_need_exit, vek_do_timer, vek_config_change;

constexpr int SECONDS_GET_CURRENT = 180;
constexpr int DEFAULT_VEK_NICE_VALUE = 19;
constexpr int TICKS_PER_10SECONDS_EVENT = 11;
constexpr int INHERITABLE = 1024;             // descriptors, the usual limit of a process
constexpr int LAST_JOBS_MS = 2000;            // for what was deferred, before the daemon ends
constexpr char START_LOCK[] = "/var/run/vekd.lock";

static int ticks_since_reread = SECONDS_GET_CURRENT;
static int ticks_since_10seconds;
static int pid_file = -1; // kept open: when it is to be removed, there may be no descriptor left
static int start_lock = -1;

struct module {
	const char *name;
	int (*start)();
};
constexpr module initcalls[] = {{"user database", userdb_init},      {"event listener", listener_init},
				{"query responder", responder_init}, {"session log", logger_init},
				{"terminator", terminator_init},     {"lockout", lockout_init}};
constexpr int (*exitcalls[])() = {userdb_exit, lockout_exit};

static void dispatch_own(int number)
{
	vek_event event = vek_new_event(number);
	vek_dispatch_event(&event, nullptr);
}

// ---- signals ----

static void vek_set_exit(int) { vek_need_exit = 1; }
static void vek_set_timer(int) { vek_do_timer = 1; }
static void vek_set_config_change(int) { vek_config_change = 1; }

// Not restarting: a signal must end the wait of the socket pass.
static void handle_signal(int signal, void (*handler)(int))
{
	struct sigaction action {};
	action.sa_handler = handler;
	sigemptyset(&action.sa_mask);
	sigaction(signal, &action, nullptr);
}

// ---- the pid file ----

static bool vek_pid_file_exists() { return access(VEK_PID_FILE, F_OK) == 0; }

static int vek_write_pid()
{
	pid_file = open(VEK_PID_FILE, O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
	if (pid_file < 0)
		return -1;
	fchmod(pid_file, 0644); // whatever the umask: configuration programs read it
	// An empty one would let a second daemon start beside this one.
	return dprintf(pid_file, "%d", static_cast<int>(getpid())) > 0 ? 0 : -1;
}

static void vek_remove_pid()
{
	if (pid_file < 0)
		return;
	char text[16]{};
	struct stat ours, found;
	// Somebody may have removed it or written to it, and another daemon may have written its own.
	if (pread(pid_file, text, sizeof(text) - 1, 0) >= 0 &&
	    (text[0] == '\0' || std::strtol(text, nullptr, 10) == getpid()) && fstat(pid_file, &ours) == 0 &&
	    lstat(VEK_PID_FILE, &found) == 0 && ours.st_ino == found.st_ino && ours.st_dev == found.st_dev)
		unlink(VEK_PID_FILE);
	close(pid_file);
	pid_file = -1;
}

// ---- the sockets ----

static int bind_endpoint(const char *path, int *listening_fd)
{
	*listening_fd = vek_bind_unix_address(path);
	const int error = *listening_fd < 0 ? errno : EMFILE; // what a number too high to be watched comes from
	if (*listening_fd < 0 || vek_sock_event_add_fd(*listening_fd, FD_READ, nullptr) < 0) {
		std::fprintf(stderr, "%s: %s\n", path, std::strerror(error));
		return -1;
	}
	chmod(path, 0777);
	return 0;
}

static int vek_init_binding()
{
	unlink(VEK_ADDRESS_NOTIFY);
	unlink(VEK_ADDRESS_REQUEST);
	if (bind_endpoint(VEK_ADDRESS_NOTIFY, &vek_notify_fd) < 0)
		return -1;
	return bind_endpoint(VEK_ADDRESS_REQUEST, &vek_request_fd);
}

static void vek_fini_binding()
{
	for (int *fd : {&vek_notify_fd, &vek_request_fd}) {
		if (*fd < 0)
			continue;
		vek_sock_event_del_fd(*fd);
		close(*fd);
		*fd = -1;
	}
	while (vek_socket *sock = vek_socket_list.front())
		vek_close_client(sock->fd, sock);
	while (vek_deferred_logout *parked = vek_deferred_logout_list.front())
		vek_free_deferred_logout(parked);
}

// ---- the life of the process ----

// What must not depend on who starts us: a socket with the number of a closed standard stream would be
// overwritten by detaching, what else is open is not for the tools that we run, and a blocked signal would
// never come.
static void adopt_surroundings()
{
	int fd;
	do
		fd = open("/dev/null", O_RDWR);
	while (fd >= 0 && fd <= STDERR_FILENO);
	if (fd >= 0)
		close(fd);
	// An older kernel is asked for one at a time.
	if (close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) < 0)
		for (fd = STDERR_FILENO + 1; fd < INHERITABLE; fd++)
			fcntl(fd, F_SETFD, FD_CLOEXEC);
	sigset_t none;
	sigemptyset(&none);
	sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Held from before the look for a pid file until ours is written, and while we end: of two starts at once one
// gives up, and none takes over blocks that are about to be removed. False when somebody else holds it for
// more than a second; where no lock can be made, the pid file decides alone.
static bool take_start_lock()
{
	constexpr int TRIES = 100;
	constexpr timespec BETWEEN{0, 10'000'000};
	start_lock = open(START_LOCK, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
	for (int i = 0; flock(start_lock, LOCK_EX | LOCK_NB) < 0 && errno == EWOULDBLOCK; i++) {
		if (i == TRIES)
			return false;
		nanosleep(&BETWEEN, nullptr);
	}
	return true;
}

static void release_start_lock()
{
	if (start_lock >= 0)
		close(start_lock);
	start_lock = -1;
}

static void usage(const char *program, std::FILE *to) { std::fprintf(to, "%s [-d] [-d] [-h]\n", program); }

static void shut_down()
{
	vek_remove_pid();
	vek_fini_binding();
	vek_fini_event();
	do_exitcalls();
}

// Gives up a start: what was begun is undone, and the status says so.
static int give_up(const char *message)
{
	std::fputs(message, stderr);
	shut_down();
	return -1;
}

// 0 when the daemon is ready for its loop.
static int start_up()
{
	adopt_surroundings();
	if (debug)
		std::fprintf(stderr, "enter debugging mode: level: %d\n", debug);
	vek_init_event();
	vek_init_sock_event();
	// Before the sockets: a daemon that runs keeps its names.
	if (!take_start_lock() || vek_pid_file_exists())
		return give_up("Another vek daemon is running\n");
	if (vek_init_binding() < 0)
		return give_up("Can't init vek daemon!\n");
	if (!debug && qzlog_init() != 0)
		return give_up("Can't init log system!\n");
	if (!debug && daemon(0, 0) < 0) {
		std::fprintf(stderr, "Can't run as daemon: %d\n", errno);
		return give_up("");
	}
	do_initcalls();

	handle_signal(SIGINT, vek_set_exit);
	handle_signal(SIGTERM, vek_set_exit);
	handle_signal(SIGPIPE, SIG_IGN);
	handle_signal(SIGXFSZ, SIG_IGN);
	handle_signal(SIGHUP, vek_set_config_change);
	vek_update_timer();
	handle_signal(SIGALRM, vek_set_timer);
	const itimerval every_second{{1, 0}, {1, 0}};
	setitimer(ITIMER_REAL, &every_second, nullptr);

	rb_root = create_rbtree();
	handle_signal(SIGUSR1, print_rb_tree);

	// From here on others may send all of these.
	if (vek_write_pid() < 0)
		return give_up("Can't write the pid file!\n");
	release_start_lock();
	// The result may rightly be -1; a daemon with its old priority still serves.
	if (nice(DEFAULT_VEK_NICE_VALUE) == -1)
		errno = 0;
	return 0;
}

static void run()
{
	while (!vek_need_exit) {
		vek_begin_pass();
		if (vek_sock_event_loop(&vek_skevent) < 0)
			break;
		// What lies in a socket by now comes first: it may revoke the logout, or renew a lease.
		const bool logout_is_due = vek_logout_is_due(), caught_up =
		    !(logout_is_due || vek_do_timer) || vek_catch_up();
		if (logout_is_due && caught_up)
			vek_run_deferred_logouts();
		if (vek_do_timer && caught_up) {
			vek_do_timer = 0; // first, so that a signal during the tick is the next one
			vek_tick();
			vek_tick_endpoints();
		}
		if (vek_config_change) {
			vek_config_change = 0;
			dispatch_own(VEK_EVENT_CONFIG_CHANGE);
		}
		if (rb_tree_dump_asked()) {
			const std::lock_guard lock(userdb_lock);
			DEBUG_print_tree(rb_root);
		}
		if (terminator_run_deferred())
			vek_sock_event_limit_wait(0);
	}
	terminator_finish(LAST_JOBS_MS);
}

void do_initcalls()
{
	// Standard error is gone by now, unless debugging.
	for (const auto &[name, start] : initcalls)
		if (start() < 0)
			VEK_ALERT(0, 0, "", "The %s of vekd did not start: see vekctl status", name);
}

void do_exitcalls()
{
	for (const auto stop : exitcalls)
		stop();
}

void vek_update_timer()
{
	if (ticks_since_reread++ < SECONDS_GET_CURRENT) {
		seconds_since_boot++;
		return;
	}
	seconds_since_boot = get_uptime();
	ticks_since_reread = 0;
}

void vek_tick()
{
	vek_update_timer();
	dispatch_own(VEK_EVENT_TIMER_SECOND);
	if (++ticks_since_10seconds >= TICKS_PER_10SECONDS_EVENT) {
		dispatch_own(VEK_EVENT_TIMER_10SECONDS);
		ticks_since_10seconds = 0;
	}
}

int vekd_main(int argc, char **argv)
{
	enum { HELP = 256, VERSION, USAGE_ERROR = 2 };
	constexpr option words[] = {
	    {"help", no_argument, nullptr, HELP}, {"version", no_argument, nullptr, VERSION}, {}};
	opterr = 0;
	for (int option; (option = getopt_long(argc, argv, "dhV", words, nullptr)) != -1;) {
		switch (option) {
		case 'd': debug++; break;
		case 'h':
		case HELP: usage(argv[0], stdout); return 0;
		case 'V':
		case VERSION: std::puts("vekd " VEK_VERSION); return 0;
		default: // of the letters an unknown one counts for nothing
			if (optopt > 0 && optopt < HELP)
				break;
			usage(argv[0], stderr);
			return USAGE_ERROR;
		}
	}
	if (start_up() < 0)
		return -1;
	run();
	take_start_lock();
	shut_down();
	return 0;
}
