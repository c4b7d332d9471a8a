// terminator.cpp: ends what still serves a session on this device when the session has ended: the login shell
// of a console, telnet, ssh or dial-in session, found in a process listing by its terminal, and the ftp
// server's process, found in the table which that server keeps in shared memory. The privileged launcher does
// the killing. Also the daemon's child reaper. Which session ended is what the user database wrote into the
// event before this handler runs.
//
// A wrong guess here kills a stranger's process, so what cannot be read exactly is no match.
#include "terminator.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "child.h"
#include "daemon.h"
#include "init.h"
#include "misc.h"
#include "userdb.h"
#include "vek_event.h"

namespace {
struct file_closer {
	void operator()(std::FILE *file) const { std::fclose(file); }
};
using file = std::unique_ptr<std::FILE, file_closer>;

// Reads a line without its end. What does not fit is skipped: the rest of a command line, which a user
// chooses, must never be read as a line of its own.
template <std::size_t N> bool read_line(std::FILE *from, char (&line)[N])
{
	std::size_t length = 0;
	int c;
	while ((c = getc_unlocked(from)) != EOF && c != '\n')
		if (length < N - 1)
			line[length++] = static_cast<char>(c);
	line[length] = '\0';
	return c != EOF || length > 0;
}

// ---- tools that may hang ----

class tool {
public:
	// Runs it by `start`, which gives its status. False when it was not run to its end.
	template <class Start> bool run(Start start)
	{
		if (rests())
			return false;
		const int status = start();
		if (status == VEK_CHILD_STALLED)
			stalled_.start();
		return status >= 0 && WIFEXITED(status);
	}
	bool rests() const { return stalled_.active(); }

private:
	vek_backoff stalled_;
};

constinit tool listing, launcher, sshcon;

// Without either of these no shell can be ended.
bool tools_rest() { return listing.rests() || launcher.rests(); }

// ---- the process listing ----

void skip_blanks(std::string_view *text)
{
	while (!text->empty() && std::isspace(static_cast<unsigned char>(text->front())))
		text->remove_prefix(1);
}

// Takes a number that fits off the front of a text.
bool take_number(std::string_view *text, int *number)
{
	skip_blanks(text);
	const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), *number);
	if (error != std::errc())
		return false;
	text->remove_prefix(static_cast<std::size_t>(end - text->data()));
	return true;
}

struct shell_line {
	listed_shell shell;
	int major;
	std::string_view minor; // as it stands there
};

// What a line "pid major,minor command" says, when it describes a login shell.
std::optional<shell_line> read_shell(std::string_view line)
{
	if (line.find("-qzsh") == line.npos) // as login shells of the command line are called
		return {};
	shell_line read;
	if (!take_number(&line, &read.shell.pid) || read.shell.pid <= 0 || !take_number(&line, &read.major) ||
	    line.empty() || line.front() != ',')
		return {};
	line.remove_prefix(1);
	skip_blanks(&line);
	const auto word_end =
	    std::find_if(line.begin(), line.end(), [](unsigned char c) { return std::isspace(c); });
	read.minor = {line.begin(), word_end};
	if (!take_number(&line, &read.shell.minor))
		return {};
	return read;
}

bool is_on(const shell_line &line, const terminal_number &terminal)
{
	const std::string_view wanted(terminal.minor);
	return line.major == terminal.major && !wanted.empty() &&
	       (terminal.prefix ? line.minor.starts_with(wanted) : line.minor == wanted);
}

// Empties the file of the listing. False when it cannot be.
bool clear_listing()
{
	const int fd = vek_open_planted(VEK_PSLIST, O_WRONLY | O_TRUNC);
	if (fd >= 0)
		close(fd);
	return fd >= 0 || errno == ENOENT;
}

// A fresh listing of all processes with a terminal, or null. An older list is none.
file list_processes()
{
	if (!clear_listing())
		return nullptr;
	if (!listing.run([] {
		    return vek_run_shell("/bin/ps -o 'pid,tty,args' | sed 1d | grep -v '?' > " VEK_PSLIST);
	    })) {
		clear_listing(); // there may be no end to what was written until it was killed
		return nullptr;
	}
	const int fd = vek_open_planted(VEK_PSLIST, O_RDONLY);
	if (fd < 0)
		return nullptr;
	file list(fdopen(fd, "r"));
	if (list == nullptr)
		close(fd);
	return list;
}

// ---- sessions on a terminal ----

terminal_number console_terminal()
{
	terminal_number terminal{TTY_CONSOLE_1, {}, true};
	if (access("/proc/consoles", F_OK) == 0) {
		char major[TTY_TEXT]{};
		get_tty_by_proc(major, terminal.minor);
		std::string_view text(major);
		if (!take_number(&text, &terminal.major))
			terminal.minor[0] = '\0';
	} else {
		copy_text(terminal.minor, TTY_CONSOLE_2);
	}
	return terminal;
}

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

// Turns the command-line shell's sshcon feature off when it was on for the terminal of the shell that ended,
// or for one whose shell has gone by itself.
void disable_sshcon(const std::optional<listed_shell> &shell)
{
	const int enabled_on = get_pts_num();
	if (enabled_on == RET_ERROR_RESOURCE_NOT_FOUND || (shell && shell->minor != enabled_on))
		return;
	sshcon.run([] { return vek_run_shell("qzsh -p 100 -e \"sshcon disable\""); });
}

void end_shell(const std::optional<listed_shell> &shell, bool ssh)
{
	if (shell)
		pidkill(shell->pid);
	if (ssh)
		disable_sshcon(shell);
}

// Shells that are ended later, because a tool hung or tools have taken long while everybody waits: each
// terminal once, in the order in which their sessions ended.
struct waiting_shell {
	seat left;
	bool ssh;
	std::uint64_t ended; // when its session did, in seconds since boot
};
waiting_shell put_off[VEK_MAX_USERS];
int count_put_off;

// False when there is no room.
bool put_off_shell(const seat &left, bool ssh)
{
	auto *const end = put_off + count_put_off;
	auto *const same =
	    std::find_if(put_off, end, [&](const waiting_shell &shell) { return shell.left == left; });
	if (same == std::end(put_off))
		return false;
	*same = {left, ssh || (same != end && same->ssh), seconds_since_boot};
	count_put_off += same == end;
	return true;
}

// By somebody who has come since, whose shell it is that would be found there.
bool is_taken(const waiting_shell &shell)
{
	for (const user_list *ulist : userdb_use_list) { // the newest first
		if (ulist->uinfo->login_time < shell.ended)
			break;
		if (seat_of(*ulist->uinfo) == shell.left)
			return true;
	}
	return false;
}

void end_waiting_shell(const waiting_shell &waiting, const std::optional<listed_shell> &shell)
{
	if (!is_taken(waiting))
		return end_shell(shell, waiting.ssh);
	listed_shell gone{};
	std::string_view number(waiting.left.number);
	if (waiting.ssh && take_number(&number, &gone.minor))
		disable_sshcon(gone);
}

// As many as a turn of the tools allows, with one listing. False when there was nothing that could be done.
bool end_waiting_shells()
{
	if (count_put_off == 0 || tools_rest())
		return false;
	static shell_search searches[VEK_MAX_USERS];
	const file list = list_processes();
	vek_begin_child_turn();
	if (list != nullptr) {
		std::transform(put_off, put_off + count_put_off, searches,
			       [](const waiting_shell &shell) -> shell_search {
				       return {shell.left.terminal(), {}};
			       });
		find_shells(list.get(), {searches, static_cast<std::size_t>(count_put_off)});
	}
	// Without a listing only the first one's chance is gone.
	int done = 0;
	do {
		if (list != nullptr)
			end_waiting_shell(put_off[done], searches[done].shell);
	} while (++done < count_put_off && list != nullptr && !vek_child_turn_is_over());
	std::copy(put_off + done, put_off + count_put_off, put_off);
	count_put_off -= done;
	return true;
}

void clear_terminal_session(const vek_event *event)
{
	const auto left = seat_of(*event);
	const bool ssh = strcmp(event->service, SERVICE_NAME_SSH) == 0;
	if (tools_rest() || vek_child_turn_is_over() || count_put_off > 0) {
		if (left && !put_off_shell(*left, ssh) && end_waiting_shells())
			put_off_shell(*left, ssh);
		return;
	}
	const file list = list_processes();
	if (list == nullptr || !left)
		return;
	shell_search search{left->terminal(), {}};
	find_shells(list.get(), {&search, 1});
	end_shell(search.shell, ssh);
}

// ---- ftp sessions ----

// Opens a set for bsemaphore_p or bsemaphore_v, whose last letter is `call`. Its id, or -1 after a message.
int open_semaphore(key_t key, char call)
{
	const int id = semget(key, 1, 0666);
	if (id < 0)
		std::fprintf(stderr, "bsemaphore_%c() semget() failed, semkey: %x\n", call,
			     static_cast<unsigned>(key));
	return id;
}

constinit vek_backoff lock_is_held;

int operate_semaphore(key_t key, char call, int change)
{
	const int id = open_semaphore(key, call);
	if (id < 0)
		return -1;
	const bool wait = !lock_is_held.active();
	const int result = vek_semop(id, change, wait);
	if (result < 0 && errno == EAGAIN && wait)
		lock_is_held.start();
	if (result < 0)
		std::fprintf(stderr, "semaphore_%c failed, id: %d, failcode: %d\n", call, id, result);
	return result;
}

// The ftp server's table, copied before use: the server, or whoever else can, may write to it at any time.
class ftp_table {
public:
	explicit ftp_table(key_t key)
	    : shared_(static_cast<ClientTerminateList *>(vek_attach_shm(key, sizeof(ClientTerminateList))))
	{
		if (shared_ != nullptr)
			copy_ = *shared_;
	}
	~ftp_table()
	{
		if (shared_ != nullptr)
			put_shm(shared_);
	}
	ftp_table(const ftp_table &) = delete;
	ftp_table &operator=(const ftp_table &) = delete;

	bool usable() const
	{
		return shared_ != nullptr && copy_.size >= 1 && copy_.size < DEFAULT_MAX_USERS;
	}
	int size() const { return static_cast<int>(copy_.size); }
	int pid(int entry) const { return copy_.list[entry].pid; }

	// The first entry with exactly this name and address, or -1.
	int find(const char *username, const char *ipaddr) const
	{
		for (int i = 0; i < size(); i++)
			if (equal(copy_.list[i].username, username) && equal(copy_.list[i].ipaddr, ipaddr))
				return i;
		return -1;
	}

	void remove(int entry)
	{
		const int left = size() - 1;
		std::copy(copy_.list + entry + 1, copy_.list + size(), shared_->list + entry);
		shared_->size = copy_.size = static_cast<std::uint64_t>(left);
	}

private:
	// A field without a terminator is equal to nothing.
	template <std::size_t N> static bool equal(const char (&field)[N], const char *text)
	{
		return std::memchr(field, '\0', N) != nullptr && std::strcmp(field, text) == 0;
	}

	ClientTerminateList *shared_;
	ClientTerminateList copy_{};
};

// Who makes the table says which processes are ended, by a launcher that may end any: his own, unless he is
// root. And anybody may have written into it.
bool may_be_ended(int pid)
{
	if (pid <= 1 || pid == getpid())
		return false;
	shmid_ds table;
	if (shmctl(shmget(PUREFTP_IPC_SHM_KEY, 0, 0), IPC_STAT, &table) < 0)
		return false;
	char path[32];
	std::snprintf(path, sizeof path, "/proc/%d", pid);
	struct stat process;
	return table.shm_perm.cuid == 0 ||
	       (stat(path, &process) == 0 && process.st_uid == table.shm_perm.cuid);
}

// Processes that are ended later, for the same reasons as shells. A table that somebody keeps filling names
// more of them than there are.
int waiting_processes[VEK_MAX_USERS];
int count_waiting_processes;

void end_process(int pid)
{
	if (!launcher.rests() && !vek_child_turn_is_over() && count_waiting_processes == 0)
		pidkill(pid);
	else if (count_waiting_processes < VEK_MAX_USERS)
		waiting_processes[count_waiting_processes++] = pid;
}

// As many as a turn of the tools allows. False when there was nothing that could be done.
bool end_waiting_processes()
{
	if (count_waiting_processes == 0 || launcher.rests())
		return false;
	vek_begin_child_turn();
	int done = 0;
	do
		pidkill(waiting_processes[done]);
	while (++done < count_waiting_processes && !vek_child_turn_is_over());
	std::copy(waiting_processes + done, waiting_processes + count_waiting_processes, waiting_processes);
	count_waiting_processes -= done;
	return true;
}

void clear_ftp_session(const vek_event *event)
{
	char address[INET_ADDRSTRLEN];
	inet_ntop(AF_INET, &event->ip, address, sizeof address);
	const bool locked = bsemaphore_p(PUREFTP_IPC_KEY) == 0;
	const int pid = ftplogout_shm_getpid(PUREFTP_IPC_SHM_KEY, event->real_username, address);
	ftplogout_shm_remove(PUREFTP_IPC_SHM_KEY, event->real_username, address);
	if (locked)
		bsemaphore_v(PUREFTP_IPC_KEY);
	else // nothing was taken to be given back; a missing set is reported again
		open_semaphore(PUREFTP_IPC_KEY, 'v');
	if (may_be_ended(pid))
		end_process(pid);
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
	while (waitpid(-1, nullptr, WNOHANG) > 0)
		;
	errno = error;
}

int terminator_clear_session(vek_event *event, vek_socket *)
{
	if (strcmp(event->service, SERVICE_NAME_FTP) == 0)
		clear_ftp_session(event);
	else if (*tty_of(*event) != '\0')
		clear_terminal_session(event);
	return VEK_CONTINUE_DISPATCH;
}

bool terminator_end_put_off()
{
	const bool processes = end_waiting_processes();
	return end_waiting_shells() || processes;
}

int pidkill(int pid)
{
	char text[8];
	const int length = std::snprintf(text, sizeof text, "%d", pid);
	if (pid <= 0 || length >= static_cast<int>(sizeof text))
		return -1;
	const char *const argv[] = {"/util/suexec", "/bin/kill", text, nullptr};
	int status = -1;
	return launcher.run([&] { return status = vek_run(argv); }) ? WEXITSTATUS(status) : -1;
}

void read_consoles(std::FILE *consoles, char *tty1, char *tty2)
{
	char line[64];
	while (read_line(consoles, line))
		if (const char *blank = strrchr(line, ' '))
			std::sscanf(blank + 1, "%7[^:]:%7s", tty1, tty2);
}

void get_tty_by_proc(char *tty1, char *tty2)
{
	if (const file consoles{std::fopen("/proc/consoles", "re")})
		read_consoles(consoles.get(), tty1, tty2);
}

void find_shells(std::FILE *list, std::span<shell_search> searches)
{
	char text[256];
	while (read_line(list, text))
		if (const auto line = read_shell(text))
			for (shell_search &search : searches)
				if (!search.shell && is_on(*line, search.terminal))
					search.shell = line->shell;
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

int bsemaphore_p(key_t key) { return operate_semaphore(key, 'p', -1); }

int bsemaphore_v(key_t key) { return operate_semaphore(key, 'v', 1); }

int ftplogout_shm_getpid(key_t key, const char *username, const char *ipaddr)
{
	const ftp_table table(key);
	const int entry = table.usable() ? table.find(username, ipaddr) : -1;
	return entry < 0 ? -1 : table.pid(entry);
}

int ftplogout_shm_remove(key_t key, const char *username, const char *ipaddr)
{
	ftp_table table(key);
	if (!table.usable())
		return -1;
	if (const int entry = table.find(username, ipaddr); entry >= 0)
		table.remove(entry);
	return table.size();
}
