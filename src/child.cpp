// child.cpp: the one place that makes child processes. Each wait for one ends with its deadline; what the
// tools do and what their output means is left to the callers.
//
// While a child runs, SIGCHLD is blocked and waited for. The signal may stand for several children, or for
// none of ours, so it only ever means "look again".
#include "child.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "misc.h"

namespace {
constexpr int NOT_STARTED = 127 << 8; // exit status 127, as waitpid gives it

sigset_t child_signal()
{
	sigset_t set;
	sigemptyset(&set);
	sigaddset(&set, SIGCHLD);
	return set;
}

// The reaper is held off from the first child's start to the last one's end.
int holds;
sigset_t mask_before_holds;
std::int64_t held_since_ms, children_took_ms;

void hold_reaper()
{
	const sigset_t set = child_signal();
	if (holds++ > 0)
		return;
	sigprocmask(SIG_BLOCK, &set, &mask_before_holds);
	held_since_ms = monotonic_ms();
}

void release_reaper()
{
	if (--holds > 0)
		return;
	children_took_ms += monotonic_ms() - held_since_ms;
	// The waits have taken the signals of all children, also of those that are the reaper's.
	raise(SIGCHLD);
	sigprocmask(SIG_SETMASK, &mask_before_holds, nullptr);
}

// Starts a program, its output going to `output` unless that is -1. 0 or an error number.
int spawn(const char *const argv[], int output, pid_t *pid)
{
	posix_spawnattr_t attributes;
	if (const int error = posix_spawnattr_init(&attributes); error != 0)
		return error;
	posix_spawn_file_actions_t actions;
	if (const int error = posix_spawn_file_actions_init(&actions); error != 0) {
		posix_spawnattr_destroy(&attributes);
		return error;
	}
	sigset_t all, none;
	sigfillset(&all);
	sigemptyset(&none);
	posix_spawnattr_setflags(&attributes,
				 POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
	posix_spawnattr_setpgroup(&attributes, 0);
	posix_spawnattr_setsigdefault(&attributes, &all);
	posix_spawnattr_setsigmask(&attributes, &none);
	int error = output < 0 ? 0 : posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
	if (error == 0)
		error = posix_spawn(pid, argv[0], &actions, &attributes, const_cast<char *const *>(argv),
				    environ);
	posix_spawn_file_actions_destroy(&actions);
	posix_spawnattr_destroy(&attributes);
	return error;
}

// Waits for the end of a child until the deadline. False when it has not ended by then; otherwise its status,
// -1 when it was not there to be reaped.
bool reap(pid_t pid, std::int64_t deadline, int *status)
{
	const sigset_t set = child_signal();
	for (;;) {
		const pid_t got = waitpid(pid, status, WNOHANG);
		if (got == pid)
			return true;
		if (got < 0) {
			*status = -1;
			return true;
		}
		const std::int64_t left = deadline - monotonic_ms();
		if (left <= 0)
			return false;
		const timespec wait = timespec_of(left);
		sigtimedwait(&set, nullptr, &wait);
	}
}

// Kills a child that has not been reaped (so that its group's number is still its own) and all of its group.
void kill_group(pid_t pid)
{
	int status;
	kill(-pid, SIGKILL);
	reap(pid, monotonic_ms() + VEK_CHILD_END_MS, &status);
}

int finish(pid_t pid, std::int64_t deadline)
{
	int status;
	if (reap(pid, deadline, &status))
		return status;
	kill_group(pid);
	return VEK_CHILD_STALLED;
}
} // namespace

std::int64_t vek_children_took_ms() { return children_took_ms; }

int vek_run(const char *const argv[])
{
	const std::int64_t deadline = monotonic_ms() + VEK_CHILD_LIMIT_MS;
	hold_reaper();
	pid_t pid;
	const int error = spawn(argv, -1, &pid);
	int status;
	if (error == 0)
		status = finish(pid, deadline);
	else if (error == EAGAIN || error == ENOMEM)
		status = -1;
	else
		status = NOT_STARTED;
	release_reaper();
	return status;
}

int vek_run_shell(const char *command)
{
	const char *const argv[] = {"/bin/sh", "-c", command, nullptr};
	return vek_run(argv);
}

bool vek_pipe::start(const char *command, int limit_ms)
{
	close();
	int ends[2];
	if (pipe2(ends, O_CLOEXEC) < 0)
		return false;
	fcntl(ends[0], F_SETFL, O_NONBLOCK);
	deadline_ = monotonic_ms() + limit_ms;
	const char *const argv[] = {"/bin/sh", "-c", command, nullptr};
	hold_reaper();
	const int error = spawn(argv, ends[1], &pid_);
	::close(ends[1]);
	if (error != 0) {
		pid_ = -1;
		::close(ends[0]);
		release_reaper();
		return false;
	}
	fd_ = ends[0];
	have_ = used_ = 0;
	timed_out_ = false;
	return true;
}

// Waits for more output or its end. False when neither came in time.
bool vek_pipe::fill()
{
	std::memmove(data_, data_ + used_, have_ - used_);
	have_ -= used_;
	used_ = 0;
	for (;;) {
		const std::int64_t left = deadline_ - monotonic_ms();
		if (left <= 0) {
			timed_out_ = true;
			return false;
		}
		pollfd wait{fd_, POLLIN, 0};
		poll(&wait, 1, static_cast<int>(left));
		const ssize_t got = read(fd_, data_ + have_, sizeof data_ - have_);
		if (got > 0) {
			have_ += static_cast<std::size_t>(got);
			return true;
		}
		if (got == 0) {
			::close(fd_);
			fd_ = -1;
			return true;
		}
		if (errno != EINTR && errno != EAGAIN)
			return false;
	}
}

bool vek_pipe::read_line(char *buffer, std::size_t size)
{
	const std::size_t most = std::min(size - 1, sizeof data_);
	for (;;) {
		const char *start = data_ + used_;
		std::size_t length = std::min(have_ - used_, most);
		const void *newline = std::memchr(start, '\n', length);
		if (newline != nullptr)
			length = static_cast<std::size_t>(static_cast<const char *>(newline) - start) + 1;
		if (newline != nullptr || length == most || (fd_ < 0 && length > 0)) {
			std::memcpy(buffer, start, length);
			buffer[length] = '\0';
			used_ += length;
			return true;
		}
		if (fd_ < 0 || !fill())
			return false;
	}
}

void vek_pipe::close()
{
	if (pid_ < 0)
		return;
	if (fd_ >= 0) {
		::close(fd_);
		fd_ = -1;
		kill_group(pid_);
	} else if (finish(pid_, deadline_) == VEK_CHILD_STALLED) {
		timed_out_ = true;
	}
	pid_ = -1;
	release_reaper();
}
