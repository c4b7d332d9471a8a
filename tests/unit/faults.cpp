// faults.cpp: see faults.h.
#include "faults.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <filesystem>

namespace {

fault wanted;
int left; // calls until it fails; 0: not armed
bool fired;

bool fails(const char *call)
{
	if (left == 0 || std::strstr(call, wanted.call) == nullptr)
		return false;
	if (left > 1) {
		left--;
		return false;
	}
	left = wanted.lasting ? 1 : 0;
	fired = true;
	if (wanted.first != nullptr)
		wanted.first();
	errno = wanted.error;
	return true;
}

int open_descriptors()
{
	const std::filesystem::directory_iterator open("/proc/self/fd");
	return static_cast<int>(std::distance(begin(open), end(open)));
}

} // namespace

#define WRAP(result, name, parameters, arguments, failure)                                                   \
	extern "C" result __real_##name parameters;                                                          \
	extern "C" result __wrap_##name parameters                                                           \
	{                                                                                                    \
		return fails(#name) ? failure : __real_##name arguments;                                     \
	}

WRAP(void *, malloc, (std::size_t size), (size), nullptr)
WRAP(void *, calloc, (std::size_t count, std::size_t size), (count, size), nullptr)
WRAP(int, accept4, (int fd, sockaddr *peer, socklen_t *size, int flags), (fd, peer, size, flags), -1)
WRAP(ssize_t, send, (int fd, const void *data, std::size_t size, int flags), (fd, data, size, flags), -1)
WRAP(ssize_t, sendmsg, (int fd, const msghdr *message, int flags), (fd, message, flags), -1)
WRAP(int, pipe2, (int *ends, int flags), (ends, flags), -1)
WRAP(int, shmget, (key_t key, std::size_t size, int flags), (key, size, flags), -1)
WRAP(void *, shmat, (int id, const void *at, int flags), (id, at, flags), reinterpret_cast<void *>(-1))
WRAP(int, semget, (key_t key, int count, int flags), (key, count, flags), -1)
WRAP(int, semtimedop, (int id, sembuf *operations, std::size_t count, const timespec *limit),
     (id, operations, count, limit), -1)
// Its result is the error.
WRAP(int, posix_spawn,
     (pid_t * pid, const char *path, const posix_spawn_file_actions_t *actions,
      const posix_spawnattr_t *attributes, char *const argv[], char *const environment[]),
     (pid, path, actions, attributes, argv, environment), wanted.error)

extern "C" int __real_open(const char *path, int flags, ...);
extern "C" int __wrap_open(const char *path, int flags, ...)
{
	va_list arguments;
	va_start(arguments, flags);
	const int mode = flags & O_CREAT ? va_arg(arguments, int) : 0;
	va_end(arguments);
	return fails("open") ? -1 : __real_open(path, flags, mode);
}

void inject(const fault &fault, int n)
{
	wanted = fault;
	fired = false;
	left = n;
}

bool heal()
{
	left = 0;
	return fired;
}

void exhaust(const fault &fault, const std::function<void()> &prepare, const std::function<void()> &act,
	     const std::function<void(bool failed)> &check)
{
	SCOPED_TRACE(fault.call);
	for (int n = 1;; n++) {
		SCOPED_TRACE("call " + std::to_string(n));
		prepare();
		const int descriptors = open_descriptors();
		inject(fault, n);
		act();
		const bool failed = heal();
		check(failed);
		EXPECT_EQ(descriptors, open_descriptors());
		if (!failed || testing::Test::HasFailure()) {
			EXPECT_GT(n, 1) << "no call failed";
			return;
		}
	}
}
