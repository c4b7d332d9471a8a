// lockout.cpp: owns the life of the shared lockout table: made or reset when the daemon starts, aged while it
// runs, removed when it ends. Who is locked out, when and for how long is decided by the programs that check
// passwords; they write the records and read them. Whatever they write, ageing only compares and clears.
#include "lockout.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "init.h"
#include "misc.h"
#include "vek_event.h"

namespace {
constexpr std::uint64_t ATTEMPT_LIFE = 59; // seconds; older attempts are forgotten

// What this process created or took over, to be removed by it; -1 for nothing.
int table_id = -1;
int lock_id = -1;

void age_records(user_lock *table, std::uint64_t now)
{
	for (lockout_record &record : table->lockout_rec)
		if (record.inuse && record.time <= now)
			clear_lockout_record(&record);
	// Unsigned, so that a time in the future counts as old.
	for (attempt_record &record : table->attempt_rec)
		if (record.inuse && now - record.time > ATTEMPT_LIFE)
			clear_attempt_record(&record);
}

int create_table()
{
	auto *table = static_cast<user_lock *>(vek_create_shm(
	    USER_LOCK_IPC_KEY, sizeof(user_lock), "Previous user lockout buffer exists. Try to init it\n",
	    "Can't create lockout buffer", &table_id));
	if (table == nullptr)
		return -1;
	table->attempt_count = DEFAULT_ATTEMPT_COUNT;
	table->lockout_period = DEFAULT_LOCKOUT_PERIOD;
	put_shm(table);
	return 0;
}

int create_lock()
{
	lock_id = vek_create_sem(USER_LOCK_IPC_KEY, "Previous user lockout lock exists. Try to init it\n",
				 "Can't create lockout lock");
	if (lock_id < 0)
		return -1;
	union {
		int val;
		void *other; // the call takes an argument of this size
	} free_lock{1};
	if (semctl(lock_id, 0, SETVAL, free_lock) < 0) {
		std::fprintf(stderr, "Can't set sem to default: %s\n", strerror(errno));
		return -1;
	}
	return 0;
}

constexpr vek_registration registrations[] = {
    {VEK_EVENT_TIMER_10SECONDS, VEK_PRI_TIMER_10SECONDS_LOCKOUT, lockout_handle_timer},
};
} // namespace

void clear_lockout_record(lockout_record *record) { std::memset(record, 0, sizeof *record); }

void clear_attempt_record(attempt_record *record) { std::memset(record, 0, sizeof *record); }

int lockout_handle_timer(vek_event *, vek_socket *)
{
	const std::uint64_t now = uptime();
	auto *table = static_cast<user_lock *>(get_shm(USER_LOCK_IPC_KEY, sizeof(user_lock)));
	if (table == nullptr)
		return VEK_CONTINUE_DISPATCH;
	if (get_sem(USER_LOCK_IPC_KEY) == 0) {
		if (table->enable)
			age_records(table, now);
		put_sem(USER_LOCK_IPC_KEY);
	}
	put_shm(table);
	return VEK_CONTINUE_DISPATCH;
}

int lockout_init()
{
	if (create_table() < 0 || create_lock() < 0)
		return -1;
	return vek_register_events(registrations, "Can't register event for lockout!\n");
}

int lockout_exit()
{
	if (table_id >= 0)
		shmctl(table_id, IPC_RMID, nullptr);
	if (lock_id >= 0)
		semctl(lock_id, 0, IPC_RMID);
	table_id = lock_id = -1;
	return 0;
}
