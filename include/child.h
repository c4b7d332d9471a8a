// child.h: running the device's tools. Every child starts with default signal dispositions and an empty
// signal mask, holds none of our descriptors, leads a process group of its own, and is ended with everything
// in that group when its limit has passed: everything it started, short of what moved to a group of its own.
// What a command that ended in time left running on purpose stays. The standard streams are the daemon's, the
// null device unless debugging. The child reaper (SIGCHLD) is held off while one runs, so its status is ours
// and its number cannot be somebody else's.
#ifndef CHILD_H
#define CHILD_H

#include <sys/types.h>
#include <sys/wait.h>

#include <cstddef>
#include <cstdint>

#include "daemon.h"

constexpr int VEK_CHILD_LIMIT_MS = 1000; // of one tool, from its start to its end
constexpr int VEK_CHILD_END_MS = 250;    // for one that was killed; after it the reaper takes care of it
constexpr int VEK_CHILD_STALLED = -2;    // no status of waitpid: it had to be killed

// Everybody waits while children run: for how many milliseconds in all so far.
std::int64_t vek_children_took_ms();

// Runs a program (argv[0] is its path; the list ends with null) and waits for it. The status as waitpid gives
// it, exit status 127 when the program cannot be started; -1 when no child could be made; VEK_CHILD_STALLED
// when it did not end in time.
int vek_run(const char *const argv[]);

// The same for a command line of the system shell.
int vek_run_shell(const char *command);

// A tool of the device that is left alone for a while after it had to be killed.
class vek_tool {
public:
	// Runs it by `start`, which gives its status as above.
	enum result { ENDED, FAILED, STALLED, RESTS };
	template <class Start> result run(Start start)
	{
		if (rests())
			return RESTS;
		const int status = start();
		if (status == VEK_CHILD_STALLED)
			stalled_.start();
		return status == VEK_CHILD_STALLED ? STALLED : status < 0 || !WIFEXITED(status) ? FAILED : ENDED;
	}
	bool rests() const { return stalled_.active(); }

private:
	vek_backoff stalled_;
};

// A command line of the system shell whose output is read. Closing (or the end of its scope) reaps it, after
// ending it with its whole group unless its output was read to the end. Several may be open at a time, and be
// closed in any order.
class vek_pipe {
public:
	vek_pipe() = default;
	~vek_pipe() { close(); }
	vek_pipe(const vek_pipe &) = delete;
	vek_pipe &operator=(const vek_pipe &) = delete;

	// False when it cannot be started.
	bool start(const char *command, int limit_ms = VEK_CHILD_LIMIT_MS);

	// Reads as fgets does: at most size - 1 characters (never more than 512), up to and with a newline,
	// terminated. False, the buffer being untouched, at the end of the output or when the command's limit
	// has passed; a line that is not whole by then is no line.
	bool read_line(char *buffer, std::size_t size);

	// The command did not end its output within its limit: what was read may be half of it. After
	// closing, also: it did not end.
	bool timed_out() const { return timed_out_; }

	void close();

private:
	bool fill();

	pid_t pid_ = -1;
	int fd_ = -1; // -1 once the output has ended
	bool timed_out_ = false;
	std::int64_t deadline_ = 0; // of CLOCK_MONOTONIC, milliseconds
	std::size_t have_ = 0, used_ = 0;
	char data_[512]{};
};

#endif
