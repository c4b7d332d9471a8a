// shared.h: the daemon's System V blocks and the semaphore that guards one of them, as other programs on the
// device use them.
#ifndef VEKCTL_SHARED_H
#define VEKCTL_SHARED_H

#include <cerrno>
#include <cstring>
#include <ctime>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include "vekctl.h"

// The failure of looking a block or a semaphore up.
inline failure shared_failure(const std::string &what)
{
	if (errno == ENOENT || errno == EIDRM)
		return {status_no_daemon, "there is no " + what + ", which vekd makes when it starts"};
	if (errno == EINVAL)
		return {status_unexpected, "the " + what + " is not of vekd's size"};
	return {status_refused, "cannot use the " + what + ": " + std::strerror(errno)};
}

// A record that lives in a shared block, attached while this object lives.
template <class record> class shared_block {
public:
	shared_block(key_t key, const char *what, bool writing)
	{
		const int id = shmget(key, sizeof(record), 0);
		void *at = id < 0 ? nullptr : shmat(id, nullptr, writing ? 0 : SHM_RDONLY);
		if (at == nullptr || reinterpret_cast<std::intptr_t>(at) == -1)
			throw shared_failure(what);
		record_ = static_cast<record *>(at);
	}
	~shared_block() { shmdt(record_); }
	shared_block(const shared_block &) = delete;
	shared_block &operator=(const shared_block &) = delete;

	record *operator->() const { return record_; }
	record &operator*() const { return *record_; }

private:
	record *record_;
};

// Holds the lock while this object lives; the system gives it back should the program die meanwhile.
class shared_lock {
public:
	shared_lock(key_t key, const char *what, int timeout_ms) : id_(semget(key, 1, 0))
	{
		if (id_ < 0)
			throw shared_failure(what);
		struct sembuf take = {0, -1, SEM_UNDO};
		const struct timespec limit = {timeout_ms / 1000, timeout_ms % 1000 * 1000000L};
		if (semtimedop(id_, &take, 1, &limit) == 0)
			return;
		if (errno == EAGAIN || errno == EINTR)
			throw failure{status_timed_out, std::string("another program holds the ") + what};
		throw shared_failure(what);
	}
	~shared_lock()
	{
		struct sembuf give = {0, 1, SEM_UNDO};
		semop(id_, &give, 1);
	}
	shared_lock(const shared_lock &) = delete;
	shared_lock &operator=(const shared_lock &) = delete;

private:
	int id_;
};

#endif
