// shared_test.cpp: what the daemon shares with other programs: the configuration block, the lockout table,
// the ftp server's table, and process listings, whatever those programs put there.
#include <gtest/gtest.h>

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <cstring>
#include <tuple>

#include "child.h"
#include "core.h"
#include "init.h"
#include "lockout.h"
#include "misc.h"
#include "terminator.h"
#include "text.h"

namespace {

int value_of(key_t lock) { return semctl(semget(lock, 1, 0666), 0, GETVAL); }

TEST(Shared, LockoutsAgeAtTheBoundarySeconds)
{
	core running;
	ASSERT_EQ(0, lockout_init());
	auto *table = static_cast<user_lock *>(get_shm(USER_LOCK_IPC_KEY));
	lockout_record &lockout = table->lockout_rec[1023];
	attempt_record &attempt = table->attempt_rec[1023];
	// Seconds from now; in use, enabled, and whether the records go.
	for (auto [lockout_at, attempt_at, inuse, enable, go] :
	     {std::tuple(0, -60, 1, 1, true),
	      {1, -59, 7, 1, false},
	      {0, -60, 0, 1, false},
	      {0, -60, 1, 0, false},
	      {-50, 1, 1, -1, true}}) { // an attempt in the future counts as old
		unsigned long now;
		do { // within one second of uptime
			now = uptime();
			table->enable = static_cast<char>(enable);
			lockout.inuse = attempt.inuse = static_cast<char>(inuse);
			lockout.ip = attempt.ip = 7;
			lockout.time = now + static_cast<unsigned long>(lockout_at);
			attempt.time = now + static_cast<unsigned long>(attempt_at);
			dispatch(VEK_EVENT_TIMER_10SECONDS);
		} while (uptime() != now);
		EXPECT_EQ(go, lockout.ip == 0) << lockout_at;
		EXPECT_EQ(go, attempt.ip == 0) << attempt_at;
		EXPECT_EQ(1, value_of(USER_LOCK_IPC_KEY)) << "given back";
	}
	put_shm(table);
	lockout_exit();
}

struct Ftp : testing::Test {
	core running;
	int id = -1, lock = vek_create_sem(PUREFTP_IPC_KEY, "", "");
	ClientTerminateList *table = make(sizeof(ClientTerminateList));

	Ftp() { semctl(lock, 0, SETVAL, 1); }
	~Ftp() override
	{
		shmctl(id, IPC_RMID, nullptr);
		semctl(lock, 0, IPC_RMID);
	}
	ClientTerminateList *make(std::size_t size)
	{
		shmctl(id, IPC_RMID, nullptr);
		return static_cast<ClientTerminateList *>(
		    vek_create_shm(PUREFTP_IPC_SHM_KEY, size, "", "", &id));
	}
	void fill(std::uint64_t size)
	{
		std::memset(table, 0, sizeof(*table));
		table->size = size;
		for (int i = 0; i < 50; ++i) {
			table->list[i].pid = 100 + i;
			copy_text(table->list[i].username, ("user" + std::to_string(i)).c_str());
			copy_text(table->list[i].ipaddr, "10.0.0.1");
		}
	}
	// How many clients are left, and what was run.
	std::string log_out(const std::string &user, const char *ip = "10.0.0.1")
	{
		fake.commands.clear();
		vek_event event = make_event(VEK_EVENT_USER_LOGOUT, {"ftp", user.c_str(), "", ip4(ip)});
		copy_text(event.username, "virtual");
		EXPECT_EQ(VEK_CONTINUE_DISPATCH, terminator_clear_session(&event, nullptr));
		return std::to_string(table->size) + (fake.commands.empty() ? "" : " " + fake.commands[0]);
	}
};

TEST_F(Ftp, EndsTheFirstClientOfThatNameAndAddress)
{
	fill(5);
	copy_text(table->list[4].username, "user2");
	EXPECT_EQ("4 /util/suexec /bin/kill 102", log_out("user2"));
	EXPECT_EQ("3 /util/suexec /bin/kill 104", log_out("user2"));
	EXPECT_EQ("2 /util/suexec /bin/kill 103", log_out("user3"));
	EXPECT_EQ("2", log_out("user1", "10.0.0.2"));
	EXPECT_EQ("2", log_out("user"));
	for (int pid : {0, -1, -2147483647}) { // whole groups: the entry goes, nobody is ended
		fill(1);
		table->list[0].pid = pid;
		EXPECT_EQ("0", log_out("user0")) << pid;
	}
	EXPECT_EQ(1, value_of(PUREFTP_IPC_KEY)) << "given back";
}

TEST_F(Ftp, OnlyALauncherThatStalledIsLeftAloneForAWhile)
{
	seconds_since_boot = 100;                               // the while is over when the next test begins
	for (int status : {-1, 9, 3 << 8, VEK_CHILD_STALLED}) { // not made, killed by somebody, failed
		fake.child_status = status;
		EXPECT_EQ(status == 3 << 8 ? 3 : -1, pidkill(7));
		fake.child_status = 0;
		EXPECT_EQ(status == VEK_CHILD_STALLED ? -1 : 0, pidkill(7)) << status;
	}
	seconds_since_boot += vek_backoff::SECONDS;
	EXPECT_EQ(0, pidkill(7));
}

TEST_F(Ftp, OnlySizesFrom1To49AreUsed)
{
	for (std::uint64_t size : {0ull, 1ull, 49ull, 50ull, ~0ull, 1ull << 32}) {
		fill(size);
		const bool usable = size >= 1 && size <= 49;
		EXPECT_EQ(usable, log_out("user0").ends_with("/kill 100")) << size;
		EXPECT_EQ(size - usable, table->size);
	}
	fill(49);
	EXPECT_EQ("49", log_out("user49")) << "behind the last";
}

TEST_F(Ftp, WhatHasNoEndOrIsTooSmallMatchesNobody)
{
	fill(3);
	std::memset(table->list[0].username, 'a', 32);
	std::memcpy(table->list[1].ipaddr, "192.168.100.1000", 16); // all of its field
	EXPECT_EQ("3", log_out(std::string(32, 'a') + "10.0.0.1")); // as the table goes on
	EXPECT_EQ("3", log_out("user1", "192.168.100.100"));
	make(sizeof(*table) - 8);
	EXPECT_EQ(-1, ftplogout_shm_remove(PUREFTP_IPC_SHM_KEY, "user1", "10.0.0.1"));
}

TEST(Shared, TheShellOfATerminalInAListing)
{
	const std::string padding(247, 'x');
	const terminal_number pts3{136, "3", false}, serial{4, "64", true};
	const std::tuple<std::string, const terminal_number &, int> cases[] = {
	    {"12 136,3 vi\n13 136,33 -qzsh\n14 136,4 -qzsh\n15 4,3 -qzsh\n  16 136,3   -qzsh -x\n", pts3, 16},
	    {"99999999999999 136,3 -qzsh\n0 136,3 -qzsh\n-5 136,3 -qzsh\nx 136,3 -qzsh\n12 136 -qzsh\n", pts3,
	     0},
	    // the rest of a line, chosen by its user, is no line of its own
	    {"7 136,9 " + padding + "88 136,3 -qzsh\n9 136,3 -qzsh", pts3, 9},
	    {"5 4,6 -qzsh\n6 5,64 -qzsh\n7 4,640 -qzsh\n", serial, 7}, // begins with it
	};
	for (auto [list, terminal, pid] : cases) {
		std::FILE *file = fmemopen(list.data(), list.size(), "r");
		const auto found = find_shell(file, terminal);
		std::fclose(file);
		EXPECT_EQ(pid, found ? found->pid : 0) << list;
	}
}

} // namespace
