// shared.h: a System V block and its lock, as the module uses them. A block is used only when root (or the
// user that the module runs as) made it: whoever else did could have chosen what is in it and that reading it
// kills.
#ifndef VEK_PAM_SHARED_H
#define VEK_PAM_SHARED_H

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "report.h"

constexpr int LOCK_LIMIT_MS = 1000;

inline bool is_trusted(const ipc_perm &made) { return made.cuid == 0 || made.cuid == geteuid(); }

// A service with System V objects of its own sees neither table.
inline bool is_isolated()
{
	struct stat ours, everybodys;
	return stat("/proc/self/ns/ipc", &ours) == 0 && stat("/proc/1/ns/ipc", &everybodys) == 0 &&
	       ours.st_ino != everybodys.st_ino;
}

// A set of one semaphore: 1 free, 0 held.
class held_lock {
public:
	held_lock(key_t key, bool create) : id_(semget(key, 1, 0))
	{
		if (id_ < 0 && errno == ENOENT && create)
			id_ = make(key);
		held_ = id_ >= 0 && change(-1, LOCK_LIMIT_MS);
	}
	~held_lock()
	{
		if (held_)
			change(1, 0);
	}
	held_lock(const held_lock &) = delete;
	held_lock &operator=(const held_lock &) = delete;
	explicit operator bool() const { return held_; }

private:
	// Whoever comes between the making and the setting finds it held, and waits.
	static int make(key_t key)
	{
		const int id = semget(key, 1, IPC_CREAT | IPC_EXCL | 0600);
		if (id < 0)
			return semget(key, 1, 0);
		union {
			int val;
			void *other; // the call takes an argument of this size
		} free_lock = {1};
		return semctl(id, 0, SETVAL, free_lock) < 0 ? -1 : id;
	}
	bool change(short by, int limit_ms) const
	{
		sembuf operation = {0, by, SEM_UNDO};
		const std::int64_t end = monotonic_ms() + limit_ms;
		do {
			const int left = left_of(end);
			const timespec wait = {left / 1000, left % 1000 * 1000000L};
			if (semtimedop(id_, &operation, 1, &wait) == 0)
				return true;
		} while (errno == EINTR);
		return false;
	}

	int id_;
	bool held_;
};

template <class record> class shared_block {
public:
	// With `create` it is made when there is none.
	shared_block(key_t key, bool create)
	{
		const int id = shmget(key, sizeof(record), create ? IPC_CREAT | 0600 : 0);
		shmid_ds made;
		if (id < 0 || shmctl(id, IPC_STAT, &made) < 0)
			return;
		if (!is_trusted(made.shm_perm)) {
			errno = EPERM;
			return;
		}
		void *address = shmat(id, nullptr, 0);
		if (address != reinterpret_cast<void *>(-1))
			block_ = static_cast<record *>(address);
	}
	~shared_block()
	{
		if (block_ != nullptr)
			shmdt(block_);
	}
	shared_block(const shared_block &) = delete;
	shared_block &operator=(const shared_block &) = delete;
	explicit operator bool() const { return block_ != nullptr; }
	record *operator->() const { return block_; }
	record &operator*() const { return *block_; }

private:
	record *block_ = nullptr;
};

#endif
