// vek_ssh_keeper.cpp: watches over one ssh session for as long as the server's process for it lives. The ssh
// server makes the terminal after it opened the PAM session, or several, or none; a session without one has
// no shell that the daemon could end. So the keeper tells the daemon the terminal once there is one, ends the
// connection when the daemon has ended the session, reports the session again to a daemon that was started
// anew, and its end when the server was killed.
//
// It is run by pam_vekd with its time-out in milliseconds: descriptor 0 holds the login, 3 the server's
// process.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "report.h"

namespace {

constexpr int OPENER = 3;
constexpr int HASTE_MS = 50;       // between looks for the terminal of a new session
constexpr int HASTE_FOR_MS = 5000; // after which one that still comes is worth a look in each round
constexpr int ROUND_MS = 5000;

// The first number after this word in a small file, or -1.
int number_in(int directory, const char *name, const char *word)
{
	char text[512] = {};
	const int fd = openat(directory, name, O_RDONLY | O_CLOEXEC);
	if (fd < 0)
		return -1;
	const bool read_it = read(fd, text, sizeof(text) - 1) > 0;
	close(fd);
	const char *found = read_it ? std::strstr(text, word) : nullptr;
	return found != nullptr ? std::atoi(found + std::strlen(word)) : -1;
}

int opener_pid()
{
	const int self = open("/proc/self/fdinfo", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
	const int pid = number_in(self, "3", "Pid:");
	if (self >= 0)
		close(self);
	return pid;
}

// The number of the pseudo-terminal whose master the server holds, or -1.
int find_terminal(int pid)
{
	char path[32];
	std::snprintf(path, sizeof(path), "/proc/%d/fdinfo", pid);
	DIR *files = opendir(path);
	if (files == nullptr)
		return -1;
	int number = -1;
	while (const dirent *file = number < 0 ? readdir(files) : nullptr)
		number = number_in(dirfd(files), file->d_name, "tty-index:");
	closedir(files);
	return number;
}

// Which daemon it is: each makes its socket anew.
struct instance {
	ino_t inode;
	timespec made;

	bool operator==(const instance &other) const
	{
		return inode == other.inode && made.tv_sec == other.made.tv_sec &&
		       made.tv_nsec == other.made.tv_nsec;
	}
};

instance current_daemon()
{
	struct stat socket = {};
	stat(VEK_ADDRESS_NOTIFY, &socket);
	return {socket.st_ino, socket.st_ctim};
}

struct search {
	const vek_event &login;
	const char *terminal;
	bool found, told;
};

int look_at(const user_info *session, void *arg)
{
	auto *search = static_cast<struct search *>(arg);
	if (std::strcmp(session->service, search->login.service) != 0 ||
	    std::strcmp(session->unique, search->login.unique) != 0)
		return 0;
	search->found = true;
	search->told = std::strcmp(session->ssh_tty, search->terminal) == 0;
	return 1;
}

class keeper {
public:
	keeper(const vek_event &login, int timeout_ms)
	    : login_(login), timeout_ms_(timeout_ms), pid_(opener_pid()), reported_to_(current_daemon())
	{
	}
	bool knows_terminal() const { return *tty_.ssh_tty != '\0'; }

	// True when the terminal has just become known.
	bool look_for_terminal()
	{
		const int number = knows_terminal() ? -1 : find_terminal(pid_);
		if (number < 0)
			return false;
		tty_ = about(login_, VEK_EVENT_UPDATE_SSH_TTY);
		std::snprintf(tty_.ssh_tty, sizeof(tty_.ssh_tty), "pts/%d", number);
		return true;
	}

	void compare_with_daemon()
	{
		const instance daemon = current_daemon();
		search search = {login_, tty_.ssh_tty, false, true};
		vek_client *client = vek_client_open_request(timeout_ms_);
		const int answer =
		    client == nullptr ? -1
				      : vek_client_query_name(client, login_.real_username, look_at, &search);
		vek_client_close(client);
		if (answer < 0)
			return; // it hangs, or there is none
		if (search.found) {
			seen_by_ = daemon;
			missing_ = 0;
			if (!search.told)
				report(tty_, timeout_ms_);
		} else if (seen_by_ == daemon) {
			syscall(SYS_pidfd_send_signal, OPENER, SIGTERM, nullptr, 0);
		} else if (!(reported_to_ == daemon) && ++missing_ > 1) {
			// Twice, because a daemon that hung may have the module's report still to read.
			missing_ = 0;
			if (report(login_, timeout_ms_) >= 0)
				reported_to_ = daemon;
			if (knows_terminal())
				report(tty_, timeout_ms_);
		}
	}

	void end() const { report(about(login_, VEK_EVENT_USER_LOGOUT), timeout_ms_); }

private:
	vek_event login_, tty_ = {};
	int timeout_ms_, pid_, missing_ = 0;
	instance reported_to_, seen_by_ = {};
};

} // namespace

int main(int argc, char **argv)
{
	vek_event login;
	const int timeout_ms = argc > 1 ? std::atoi(argv[1]) : 0;
	if (read(0, &login, sizeof(login)) != sizeof(login) || timeout_ms <= 0) {
		std::fputs("vek-ssh-keeper: started by pam_vekd only\n", stderr);
		return 2;
	}
	keeper keeper(login, timeout_ms);
	const std::int64_t begin = monotonic_ms();
	std::int64_t next_round = begin;
	for (;;) {
		const std::int64_t now = monotonic_ms();
		if (keeper.look_for_terminal() || now >= next_round) {
			keeper.compare_with_daemon();
			next_round = monotonic_ms() + ROUND_MS;
		}
		const bool haste = !keeper.knows_terminal() && now - begin < HASTE_FOR_MS;
		pollfd opener = {OPENER, POLLIN, 0};
		if (poll(&opener, 1, haste ? HASTE_MS : left_of(next_round)) > 0)
			break;
	}
	keeper.end();
	return 0;
}
