// ftp_table.cpp: see ftp_table.h. Who makes the table says which processes are ended, by a launcher that may end
// any: only his own, unless he is root. And anybody may have written into it.
#include "ftp_table.h"

#include <arpa/inet.h>
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
#include <cstring>

#include "daemon.h"
#include "misc.h"
#include "terminator.h"

namespace {

// Of the lock after somebody held it for longer than a second: enough for a server that works.
constexpr int SHORT_WAIT_MS = 50;
constinit vek_backoff lock_is_held;

// Opens a set for bsemaphore_p or bsemaphore_v, whose last letter is `call`. Its id, or -1 after a message.
int open_semaphore(key_t key, char call)
{
	const int id = semget(key, 1, 0666);
	if (id < 0)
		std::fprintf(stderr, "bsemaphore_%c() semget() failed, semkey: %x\n", call,
			     static_cast<unsigned>(key));
	return id;
}

int operate_semaphore(key_t key, char call, int change)
{
	const int id = open_semaphore(key, call);
	if (id < 0)
		return -1;
	const bool backs_off = lock_is_held.active();
	const int result = vek_semop(id, change, backs_off ? SHORT_WAIT_MS : VEK_SEMOP_LIMIT_MS);
	if (result < 0 && errno == EAGAIN && !backs_off)
		lock_is_held.start();
	if (result < 0)
		std::fprintf(stderr, "semaphore_%c failed, id: %d, failcode: %d\n", call, id, result);
	return result;
}

// Copied before use: the server, or whoever else can, may write to it at any time.
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
		const int remaining = size() - 1;
		std::copy(copy_.list + entry + 1, copy_.list + size(), shared_->list + entry);
		shared_->size = copy_.size = static_cast<std::uint64_t>(remaining);
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

// When a process started; 0 when there is none.
std::uint64_t start_of(int pid)
{
	char path[32], text[1024];
	std::snprintf(path, sizeof path, "/proc/%d/stat", pid);
	if (vek_read_planted(path, text, sizeof text) < 0)
		return 0;
	// Its name, in brackets, may hold anything; the start is the 20th field behind it.
	const char *field = strrchr(text, ')');
	for (int i = 0; i < 20 && field != nullptr; i++)
		field = strchr(field + 1, ' ');
	return field == nullptr ? 0 : std::strtoull(field, nullptr, 10);
}

// Nothing for a process that no table may name.
std::optional<ftp_process> identify(int pid)
{
	if (pid <= 1 || pid == getpid())
		return {};
	shmid_ds table;
	if (shmctl(shmget(PUREFTP_IPC_SHM_KEY, 0, 0), IPC_STAT, &table) < 0)
		return {};
	return ftp_process{pid, start_of(pid), table.shm_perm.cuid};
}

} // namespace

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

std::optional<ftp_process> ftp_table_take(const vek_event *event)
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
	return identify(pid);
}

bool ftp_process_may_be_ended(const ftp_process &process)
{
	if (start_of(process.pid) != process.start)
		return false;
	char path[32];
	std::snprintf(path, sizeof path, "/proc/%d", process.pid);
	struct stat status;
	return process.owner == 0 || (stat(path, &status) == 0 && process.owner == status.st_uid);
}
