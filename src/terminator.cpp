// terminator.cpp: ends what still serves a session on this device when the session has ended: the login shell of a
// console, telnet, ssh or dial-in session, and the ftp server's process. Both are jobs of one queue, whose front
// is worked off at once while tools have time, and otherwise by the main loop. The privileged launcher does the
// killing. Also the daemon's child reaper. Which session ended is what the user database wrote into the event
// before this handler runs; process_list.h and ftp_table.h find the processes.
#include "terminator.h"

#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "child.h"
#include "fairness.h"
#include "ftp_table.h"
#include "init.h"
#include "misc.h"
#include "process_list.h"
#include "sock_event.h"
#include "stream.h"
#include "userdb.h"
#include "vek_event.h"

namespace {

constinit vek_tool launcher, sshcon;

// ---- terminals of sessions ----

// Where a session sits: on the console, or on the pseudo-terminal of this number.
struct seat {
	bool console;
	char number[TTY_TEXT];

	bool operator==(const seat &) const = default;
	terminal_number terminal() const
	{
		if (console)
			return console_terminal();
		terminal_number terminal{TTY_SSH_TELNET_1, {}, false};
		copy_text(terminal.minor, number);
		return terminal;
	}
};

// The name of the terminal of a session, or of the event that ended it; an empty text when it has none.
template <class Session> const char *tty_of(const Session &session)
{
	const std::string_view service = session.service;
	if (service == SERVICE_NAME_CONSOLE || service == SERVICE_NAME_TELNET ||
	    service == SERVICE_NAME_DIALIN)
		return session.unique;
	return service == SERVICE_NAME_SSH ? session.ssh_tty : "";
}

template <class Session> std::optional<seat> seat_of(const Session &session)
{
	const char *tty = tty_of(session);
	if (*tty == '\0')
		return {};
	seat taken{strcmp(session.service, SERVICE_NAME_CONSOLE) == 0, {}};
	if (taken.console)
		return taken;
	const char *slash = strrchr(tty, '/');
	if (slash == nullptr || slash[1] == '\0')
		return {};
	// A number too long for any terminal is none, rather than the one it begins with.
	if (strlen(slash + 1) < sizeof taken.number)
		copy_text(taken.number, slash + 1);
	return taken;
}

// ---- the queue ----

// The shell on a terminal, or a process of the ftp server.
struct job {
	bool is_shell = false;
	bool ssh = false;      // of a shell: its session may have had sshcon on
	bool deferred = false; // not done at once: somebody may have logged in on the terminal since
	bool tried = false;    // a tool hung over it once
	bool killed = false;   // only sshcon is left to be done
	std::optional<listed_shell> shell{};
	seat shell_on{};
	std::uint64_t ended = 0; // when its session did, in seconds since boot
	ftp_process process{};

	bool is_same(const job &other) const
	{
		return is_shell == other.is_shell &&
		       (is_shell ? shell_on == other.shell_on : process == other.process);
	}
};

// In the order in which the sessions ended, each terminal and each process once.
job jobs[VEK_MAX_USERS];
int count_jobs;

// True if a session has come to this terminal since: the shell found there is its own. Its login may be older, so
// no session is left out.
bool is_taken(const job &job)
{
	for (const user_list *ulist : userdb_use_list)
		if (ulist->terminal_since >= job.ended && seat_of(*ulist->uinfo) == job.shell_on)
			return true;
	return false;
}

// Turns the command-line shell's sshcon feature off when it was on for the terminal of the shell that ended,
// or for one whose shell has gone by itself.
vek_tool::result disable_sshcon(const std::optional<listed_shell> &shell)
{
	const int enabled_on = get_pts_num();
	if (enabled_on == RET_ERROR_RESOURCE_NOT_FOUND || (shell && shell->minor != enabled_on))
		return vek_tool::ENDED;
	return sshcon.run([] { return vek_run_shell("qzsh -p 100 -e \"sshcon disable\""); });
}

int number_of(const seat &terminal)
{
	return static_cast<int>(std::strtol(terminal.number, nullptr, 10)); // at most seven digits
}

vek_tool::result launch_kill(int pid, int *status)
{
	char text[8];
	const int length = std::snprintf(text, sizeof text, "%d", pid);
	if (pid <= 0 || length >= static_cast<int>(sizeof text))
		return vek_tool::FAILED;
	const char *const argv[] = {"/util/suexec", "/bin/kill", text, nullptr};
	return launcher.run([&] { return *status = vek_run(argv); });
}

vek_tool::result end_shell(job &job)
{
	int status;
	if (!job.killed && job.deferred && is_taken(job))
		job.shell = {0, number_of(job.shell_on)}; // not the shell, only its feature
	else if (!job.killed && job.shell && launch_kill(job.shell->pid, &status) == vek_tool::STALLED)
		return vek_tool::STALLED;
	job.killed = true;
	return job.ssh ? disable_sshcon(job.shell) : vek_tool::ENDED;
}

vek_tool::result end_process(const ftp_process &process)
{
	int status;
	return ftp_process_may_be_ended(process) ? launch_kill(process.pid, &status) : vek_tool::ENDED;
}

// Without these nothing of a kind can be ended.
bool can_run(const job &job)
{
	if (job.killed)
		return !sshcon.rests();
	return !launcher.rests() && !(job.is_shell && process_lister.rests());
}

// Looks for the shells of all jobs from this one on. False without a listing.
bool list_shells(int first, shell_search *searches)
{
	std::transform(jobs + first, jobs + count_jobs, searches + first, [](const job &job) -> shell_search {
		return {job.is_shell ? job.shell_on.terminal() : terminal_number{}, {}};
	});
	const open_file list = list_processes();
	if (list != nullptr)
		find_shells(list.get(), {searches + first, static_cast<std::size_t>(count_jobs - first)});
	fairness_turn_starts();
	return list != nullptr;
}

// Works off the queue until `enough` says so, with one listing for all the shells. A job over which a tool hangs
// keeps its place, once; whatever else happens to it, it is done.
template <class Enough> void run_jobs(Enough enough)
{
	static shell_search searches[VEK_MAX_USERS];
	bool listed = false, over = false;
	int kept = 0;
	for (int i = 0; i < count_jobs; i++) {
		job current = jobs[i];
		if (!over && can_run(current)) {
			const bool needs_list = current.is_shell && !current.killed;
			const bool failed = needs_list && !listed && !(listed = list_shells(i, searches));
			if (needs_list && !failed)
				current.shell = searches[i].shell;
			const vek_tool::result result = failed             ? vek_tool::STALLED
							: current.is_shell ? end_shell(current)
									   : end_process(current.process);
			over = failed || enough();
			const bool again = result == vek_tool::RESTS || (result == vek_tool::STALLED && !current.tried);
			if (!again)
				continue;
			current.tried |= result == vek_tool::STALLED;
		}
		current.deferred = true;
		jobs[kept++] = current;
	}
	count_jobs = kept;
}

void queue_job(const job &job, const vek_socket *sock)
{
	auto *const end = jobs + count_jobs;
	auto *const same = std::find_if(jobs, end, [&](const auto &other) { return other.is_same(job); });
	if (same != end) {
		same->ssh |= job.ssh;
		same->ended = job.ended;
		return;
	}
	if (count_jobs == VEK_MAX_USERS)
		run_jobs([] { return true; });
	if (count_jobs == VEK_MAX_USERS)
		return; // no tool works, and there are as many already as there can be sessions
	jobs[count_jobs++] = job;
	if (fairness_allows_tools(sock))
		run_jobs([sock] { return !fairness_allows_tools(sock); });
	else
		jobs[count_jobs - 1].deferred = true;
}

constexpr vek_registration registrations[] = {
    {VEK_EVENT_USER_LOGOUT, VEK_PRI_LOGOUT_TERMINATOR, terminator_clear_session},
    {VEK_EVENT_USER_LOGOUT2, VEK_PRI_LOGOUT_TERMINATOR, terminator_clear_session},
    {VEK_EVENT_USER_REAUTH_TIMEOUT, VEK_PRI_REAUTH_TIMEOUT_TERMINATOR, terminator_clear_session},
    {VEK_EVENT_USER_LEASE_TIMEOUT, VEK_PRI_LEASE_TIMEOUT_TERMINATOR, terminator_clear_session},
    {VEK_EVENT_USER_IDLE_TIMEOUT, VEK_PRI_IDLE_TIMEOUT_TERMINATOR, terminator_clear_session},
};
} // namespace

int terminator_init()
{
	struct sigaction action = {};
	action.sa_handler = terminator_child_handler;
	action.sa_flags = SA_RESTART | SA_NOCLDSTOP;
	sigemptyset(&action.sa_mask);
	sigaction(SIGCHLD, &action, nullptr);
	return vek_register_events(registrations, "Can't register event for terminator!\n");
}

void terminator_child_handler(int)
{
	const int error = errno;
	for (pid_t pid; (pid = waitpid(-1, nullptr, WNOHANG)) > 0;)
		stream_child_ended(pid);
	errno = error;
}

int terminator_clear_session(vek_event *event, vek_socket *sock)
{
	if (strcmp(event->service, SERVICE_NAME_FTP) == 0) {
		if (const auto process = ftp_table_take(event))
			queue_job({.process = *process}, sock);
	} else if (const auto terminal = seat_of(*event)) {
		const bool ssh = strcmp(event->service, SERVICE_NAME_SSH) == 0;
		queue_job({.is_shell = true, .ssh = ssh, .shell_on = *terminal, .ended = seconds_since_boot}, sock);
	}
	return VEK_CONTINUE_DISPATCH;
}

bool terminator_run_deferred()
{
	const auto can_do_more = [] { return std::any_of(jobs, jobs + count_jobs, can_run); };
	if (!can_do_more())
		return false;
	if (fairness_may_take_turn(vek_sock_event_was_idle()))
		run_jobs(fairness_turn_is_over);
	return can_do_more();
}

void terminator_finish(int limit_ms)
{
	const std::int64_t limit = monotonic_ms() + limit_ms;
	while (std::any_of(jobs, jobs + count_jobs, can_run) && monotonic_ms() < limit)
		run_jobs([limit] { return monotonic_ms() >= limit; });
}

int pidkill(int pid)
{
	int status = -1;
	return launch_kill(pid, &status) == vek_tool::ENDED ? WEXITSTATUS(status) : -1;
}

int get_pts_num()
{
	char text[64];
	if (vek_read_planted(SSHCON_ENABLE_DEVPTS_FILE, text, sizeof text) < 0)
		return RET_ERROR_RESOURCE_NOT_FOUND;
	text[strcspn(text, "\n")] = '\0';
	return static_cast<int>(std::clamp<long>(std::strtol(text, nullptr, 10), INT_MIN, INT_MAX));
}

int check_sshcon_available(char *pszUserName)
{
	const int number = get_pts_num();
	if (number < 0)
		return RET_ERROR_RESOURCE_NOT_FOUND;
	char owner[16];
	const int length = std::snprintf(owner, sizeof owner, "%s@pts/%d", pszUserName, number);
	// A name that was cut would be another one; one of two lines would be two patterns.
	if (length < 0 || length >= static_cast<int>(sizeof owner) || strchr(owner, '\n') != nullptr)
		return RET_GENERAL_ERROR;
	char command[128] = "ps aux | grep -v grep | grep -wF -e '";
	char *end = command + strlen(command);
	for (const char *c = owner; *c != '\0'; c++)
		if (*c == '\'')
			end = stpcpy(end, "'\\''"); // out of the quotes, a quote, and in again
		else
			*end++ = *c;
	stpcpy(end, "'");
	vek_pipe lines;
	char line[256];
	return lines.start(command) && lines.read_line(line, sizeof line) ? RET_SUCCESS : RET_GENERAL_ERROR;
}
