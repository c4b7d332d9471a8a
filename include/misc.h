// misc.h: small helpers shared by the modules: memory, clocks, System V blocks and locks by key, text,
// files that others may have planted, and child processes with a time limit.
#ifndef MISC_H
#define MISC_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>

#include "text.h"

// Zero-filled memory, null on failure; vek_free releases it (null is fine).
void *vek_malloc(std::size_t size);
void vek_free(void *block);
char *vek_strdup(const char *text); // released with vek_free

// Seconds since boot, whole, from /proc/uptime; from CLOCK_BOOTTIME when that cannot be read. Both names are the
// interface's.
unsigned long uptime();
unsigned long get_uptime();

// For the limits of waits: milliseconds of a clock that nobody sets, and a span of them as calls take it.
std::int64_t monotonic_ms();
timespec timespec_of(std::int64_t ms);

// Attaches an existing segment of that key read-write; put_shm detaches it. With `size` the segment must be
// at least that long, and there must be memory behind it. When it cannot be found or attached, prints "Can't
// get shm!" and returns null.
void *get_shm(key_t key, std::size_t size = 0);
void put_shm(const void *address);

// The same without a word.
void *vek_attach_shm(key_t key, std::size_t size);

// Creates the segment of that key, or after the message `exists` takes an existing one over, attached and
// with `size` bytes zeroed. An existing one that is too short or cannot be attached is removed and made anew,
// unless it is root's: anybody may have planted it. When all that fails, prints "<failure>: <the system's
// text>" and returns null. *id is what to remove at shut-down, else -1.
void *vek_create_shm(key_t key, std::size_t size, const char *exists, const char *failure, int *id);

// The same for a set of one semaphore, whose value is left to the caller. The id or -1.
int vek_create_sem(key_t key, const char *exists, const char *failure);

// Takes (value -1) and gives back (+1) the lock that is semaphore 0 of the existing set of that key, with
// SEM_UNDO. Taking waits about one second in all, interruptions included, then fails. get_sem returns 0 or,
// after a message on standard error, -1; put_sem reports on standard error. Only a lock that was taken may be
// given back.
int get_sem(key_t key);
void put_sem(key_t key);

// One operation on semaphore 0 of set `id`, with SEM_UNDO, resumed when a signal interrupts it and given up
// with errno EAGAIN after about so many milliseconds as a whole. 0 or -1.
constexpr int VEK_SEMOP_LIMIT_MS = 1000;
int vek_semop(int id, int change, int limit_ms = VEK_SEMOP_LIMIT_MS);

// A file in a directory where anybody may plant one: opened only when it is a regular file and not a link (to
// be written: nor a second name of some other file), without ever blocking. The descriptor or -1 with errno.
int vek_open_planted(const char *path, int flags, mode_t mode = 0);

// Reads the first `size` - 1 bytes of such a file into `buffer` as terminated text. Its length or -1.
ssize_t vek_read_planted(const char *path, char *buffer, std::size_t size);

#endif
