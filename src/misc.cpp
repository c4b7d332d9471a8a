// misc.cpp: the helpers that several modules share and that belong to none of them. Whatever waits here waits
// for a bounded time, and whatever is looked up by key is looked up afresh on each call, so that a block
// which was removed and created again is found. What the blocks hold is the callers' business.
#include "misc.h"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {
constexpr int PERMISSIONS = 0666;

// As much of a file as fits, terminated. Its length or -1.
ssize_t read_text(int fd, char *buffer, std::size_t size)
{
	std::size_t length = 0;
	while (length < size - 1) {
		const ssize_t got = read(fd, buffer + length, size - 1 - length);
		if (got < 0 && errno == EINTR)
			continue;
		if (got < 0)
			return -1;
		if (got == 0)
			break;
		length += static_cast<std::size_t>(got);
	}
	buffer[length] = '\0';
	return static_cast<ssize_t>(length);
}

// Reads both numbers of the file; false when it does not hold them.
bool read_proc_uptime(unsigned long *seconds)
{
	const int fd = open("/proc/uptime", O_RDONLY | O_CLOEXEC);
	if (fd < 0)
		return false;
	char text[64];
	const ssize_t length = read_text(fd, text, sizeof text);
	close(fd);
	if (length < 0)
		return false;
	char *after_up, *after_idle;
	const double up = std::strtod(text, &after_up);
	std::strtod(after_up, &after_idle);
	if (after_up == text || after_idle == after_up)
		return false;
	if (!(up >= 0 && up < 4e9)) // nor a NaN: what does not fit must not be converted
		return false;
	*seconds = static_cast<unsigned long>(up);
	return true;
}

// Whoever made a segment may have made it of huge pages that the machine does not have. The kernel is asked
// to read from each page, because reading it ourselves would be our end.
bool has_memory(const char *address, std::size_t size)
{
	int ends[2];
	if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) < 0)
		return false;
	const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
	bool good = true;
	for (std::size_t offset = 0; good && offset < size; offset += page)
		good = write(ends[1], address + offset, 1) >= 0 || errno != EFAULT;
	const int error = errno;
	close(ends[0]);
	close(ends[1]);
	errno = error;
	return good;
}

void *attach(int id, std::size_t size)
{
	void *address = shmat(id, nullptr, 0);
	if (reinterpret_cast<std::intptr_t>(address) == -1)
		return nullptr;
	if (has_memory(static_cast<const char *>(address), size))
		return address;
	const int error = errno;
	shmdt(address);
	errno = error;
	return nullptr;
}

// Is there a segment of that key that is of no use, and not root's?
bool is_planted(key_t key, std::size_t size)
{
	shmid_ds status;
	if (shmctl(shmget(key, 0, 0), IPC_STAT, &status) < 0 || status.shm_perm.cuid == 0)
		return false;
	void *address = vek_attach_shm(key, size);
	if (address != nullptr)
		put_shm(address);
	return address == nullptr;
}

void report_failed_creation(const char *failure)
{
	std::fprintf(stderr, "%s: %s\n", failure, strerror(errno));
}

// `get` is shmget or semget with everything but the flags. The id, or -1 after a message.
template <class Get> int create_or_take_over(const char *exists, const char *failure, bool *created, Get get)
{
	int id = get(IPC_CREAT | IPC_EXCL | PERMISSIONS);
	*created = id >= 0;
	if (id < 0 && errno == EEXIST) {
		std::fputs(exists, stderr);
		id = get(PERMISSIONS);
	}
	if (id < 0)
		report_failed_creation(failure);
	return id;
}
} // namespace

void *vek_malloc(std::size_t size) { return std::calloc(1, size); }

void vek_free(void *block) { std::free(block); }

char *vek_strdup(const char *text) { return strdup(text); }

unsigned long uptime()
{
	unsigned long seconds;
	if (read_proc_uptime(&seconds))
		return seconds;
	timespec now{};
	clock_gettime(CLOCK_BOOTTIME, &now);
	return static_cast<unsigned long>(now.tv_sec);
}

unsigned long get_uptime() { return uptime(); }

std::int64_t monotonic_ms()
{
	timespec now;
	clock_gettime(CLOCK_MONOTONIC, &now);
	return now.tv_sec * INT64_C(1000) + now.tv_nsec / 1'000'000;
}

timespec timespec_of(std::int64_t ms)
{
	timespec span;
	span.tv_sec = static_cast<time_t>(ms / 1000);
	span.tv_nsec = static_cast<long>(ms % 1000) * 1'000'000;
	return span;
}

void *vek_attach_shm(key_t key, std::size_t size)
{
	// The look-up itself refuses a segment that is shorter than `size`.
	const int id = shmget(key, size, PERMISSIONS);
	return id < 0 ? nullptr : attach(id, size);
}

void *get_shm(key_t key, std::size_t size)
{
	void *address = vek_attach_shm(key, size);
	if (address == nullptr)
		std::fputs("Can't get shm!\n", stderr);
	return address;
}

void put_shm(const void *address) { shmdt(address); }

void *vek_create_shm(key_t key, std::size_t size, const char *exists, const char *failure, int *id)
{
	*id = -1;
	if (is_planted(key, size))
		shmctl(shmget(key, 0, 0), IPC_RMID, nullptr);
	bool created;
	const int found = create_or_take_over(exists, failure, &created,
					      [=](int flags) { return shmget(key, size, flags); });
	if (found < 0)
		return nullptr;
	void *address = attach(found, size);
	if (address == nullptr) {
		report_failed_creation(failure);
		if (created)
			shmctl(found, IPC_RMID, nullptr);
		return nullptr;
	}
	std::memset(address, 0, size);
	*id = found;
	return address;
}

int vek_create_sem(key_t key, const char *exists, const char *failure)
{
	bool created;
	return create_or_take_over(exists, failure, &created,
				   [=](int flags) { return semget(key, 1, flags); });
}

int vek_semop(int id, int change, int limit_ms)
{
	sembuf operation{0, static_cast<short>(change), SEM_UNDO};
	const std::int64_t deadline = monotonic_ms() + limit_ms;
	for (;;) {
		const timespec wait = timespec_of(std::max<std::int64_t>(0, deadline - monotonic_ms()));
		if (semtimedop(id, &operation, 1, &wait) == 0)
			return 0;
		if (errno != EINTR) // the one-second tick must not turn into a failure
			return -1;
	}
}

int get_sem(key_t key)
{
	const int id = semget(key, 1, PERMISSIONS);
	if (id < 0) {
		std::fputs("Resource is temporarily unavailable: can't get lock\n", stderr);
		return -1;
	}
	if (vek_semop(id, -1) < 0) {
		std::fputs("Resource is temporarily unavailable: can't do locking!\n", stderr);
		return -1;
	}
	return 0;
}

void put_sem(key_t key)
{
	const int id = semget(key, 1, PERMISSIONS);
	if (id < 0)
		std::fputs("Can't get sem!\n", stderr);
	else if (vek_semop(id, 1) < 0)
		std::fputs("Can't put sem!\n", stderr);
}

int vek_open_planted(const char *path, int flags, mode_t mode)
{
	// Nothing is cut before it is known what was opened.
	const int fd = open(path, (flags & ~O_TRUNC) | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode);
	if (fd < 0)
		return -1;
	const bool writing = (flags & O_ACCMODE) != O_RDONLY;
	struct stat status;
	bool good = fstat(fd, &status) == 0;
	if (good && !S_ISREG(status.st_mode)) {
		errno = EINVAL;
		good = false;
	} else if (good && writing && status.st_nlink > 1) { // also the name of somebody else's file
		errno = EMLINK;
		good = false;
	}
	if (good && (!(flags & O_TRUNC) || ftruncate(fd, 0) == 0))
		return fd;
	const int error = errno;
	close(fd);
	errno = error;
	return -1;
}

ssize_t vek_read_planted(const char *path, char *buffer, std::size_t size)
{
	const int fd = vek_open_planted(path, O_RDONLY);
	if (fd < 0)
		return -1;
	const ssize_t length = read_text(fd, buffer, size);
	close(fd);
	return length;
}
