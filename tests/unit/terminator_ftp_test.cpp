// terminator_ftp_test.cpp: the ftp server's shared table and the reading of process listings, whatever other
// programs put there.
#include <gtest/gtest.h>

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <cstring>
#include <tuple>

#include "core.h"
#include "terminator.h"
#include "text.h"

namespace {

struct TerminatorFtp : testing::Test {
	core running;
	int segment = shmget(PUREFTP_IPC_SHM_KEY, sizeof(ClientTerminateList), IPC_CREAT | IPC_EXCL | 0666);
	int lock = semget(PUREFTP_IPC_KEY, 1, IPC_CREAT | IPC_EXCL | 0666);
	ClientTerminateList *table = static_cast<ClientTerminateList *>(shmat(segment, nullptr, 0));

	void SetUp() override { ASSERT_EQ(0, semctl(lock, 0, SETVAL, 1)); }
	void TearDown() override
	{
		shmdt(table);
		shmctl(segment, IPC_RMID, nullptr);
		semctl(lock, 0, IPC_RMID);
	}
	void fill(std::uint64_t size, int entries)
	{
		std::memset(table, 0, sizeof(*table));
		table->size = size;
		for (int i = 0; i < entries; ++i) {
			table->list[i].pid = 100 + i;
			copy_text(table->list[i].username, ("user" + std::to_string(i)).c_str());
			copy_text(table->list[i].ipaddr, "10.0.0.1");
		}
	}
	// The process ids left, and what was run.
	std::string log_out(const char *user, const char *ip = "10.0.0.1")
	{
		fake.commands.clear();
		vek_event event = make_event(VEK_EVENT_USER_LOGOUT, {SERVICE_NAME_FTP, user, "", ip4(ip)});
		copy_text(event.username, "virtual");
		EXPECT_EQ(VEK_CONTINUE_DISPATCH, terminator_clear_session(&event, nullptr));
		std::string left;
		for (std::uint64_t i = 0; i < table->size && i < 50; ++i)
			left += std::to_string(table->list[i].pid) + " ";
		for (const std::string &command : fake.commands)
			left += "| " + command;
		EXPECT_EQ(1, semctl(semget(PUREFTP_IPC_KEY, 1, 0666), 0, GETVAL)) << "given back";
		return left;
	}
};

TEST_F(TerminatorFtp, EndsTheFirstClientOfThatNameAndAddress)
{
	fill(5, 5);
	copy_text(table->list[4].username, "user2");
	EXPECT_EQ("100 101 103 104 | /util/suexec /bin/kill 102", log_out("user2"));
	EXPECT_EQ("100 101 103 | /util/suexec /bin/kill 104", log_out("user2"));
	for (auto [user, ip] : {std::pair("user1", "10.0.0.2"), {"user", "10.0.0.1"}, {"User1", "10.0.0.1"}})
		EXPECT_EQ("100 101 103 ", log_out(user, ip));
	for (int pid : {0, -1, -2147483647}) { // no process: the entry goes, nobody is ended
		fill(1, 1);
		table->list[0].pid = pid;
		EXPECT_EQ("", log_out("user0")) << pid;
		EXPECT_EQ(-1, pidkill(pid)) << "0 and less are whole groups";
	}
	EXPECT_EQ(0u, fake.commands.size());
	EXPECT_EQ(0, pidkill(4711));
}

TEST_F(TerminatorFtp, OnlySizesFrom1To49AreUsed)
{
	for (std::uint64_t size : {0ull, 1ull, 49ull, 50ull, ~0ull, 1ull << 32}) {
		fill(size, 50);
		const ClientTerminateList before = *table;
		const bool usable = size >= 1 && size <= 49;
		EXPECT_EQ(usable, log_out("user0").ends_with("| /util/suexec /bin/kill 100")) << size;
		EXPECT_EQ(usable ? size - 1 : size, table->size);
		EXPECT_EQ(!usable, std::memcmp(&before, table, sizeof(before)) == 0);
		EXPECT_EQ(size == 49 ? 48 : -1,
			  ftplogout_shm_remove(PUREFTP_IPC_SHM_KEY, "nobody", "10.0.0.1"));
	}
	fill(49, 50);
	EXPECT_EQ(148, ftplogout_shm_getpid(PUREFTP_IPC_SHM_KEY, "user48", "10.0.0.1"));
	EXPECT_EQ(-1, ftplogout_shm_getpid(PUREFTP_IPC_SHM_KEY, "user49", "10.0.0.1")) << "behind the last";
	EXPECT_EQ(48, ftplogout_shm_remove(PUREFTP_IPC_SHM_KEY, "user48", "10.0.0.1"));
}

TEST_F(TerminatorFtp, TextWithoutAnEndMatchesNobody)
{
	fill(3, 3);
	std::memset(table->list[0].username, 'a', sizeof(table->list[0].username));
	copy_text(table->list[1].username, "bob");
	std::memcpy(table->list[1].ipaddr, "192.168.100.1000", 16); // all of its field
	const std::string longest(32, 'a');
	for (const std::string &user : {longest, longest + "10.0.0.1", longest.substr(1)})
		EXPECT_EQ("100 101 102 ", log_out(user.c_str()));
	EXPECT_EQ("100 101 102 ", log_out("bob", "192.168.100.100"));
	copy_text(table->list[1].username, longest.c_str()); // 31 and the end
	copy_text(table->list[1].ipaddr, "192.168.100.100");
	EXPECT_EQ("100 102 | /util/suexec /bin/kill 101",
		  log_out(longest.substr(1).c_str(), "192.168.100.100"));
}

TEST_F(TerminatorFtp, AMissingTableOrLockIsReportedAndHarmless)
{
	semctl(lock, 0, IPC_RMID);
	fill(2, 2);
	vek_event event = make_event(VEK_EVENT_USER_LOGOUT, {SERVICE_NAME_FTP, "user0", "", ip4("10.0.0.1")});
	testing::internal::CaptureStderr();
	terminator_clear_session(&event, nullptr);
	EXPECT_EQ(0u, testing::internal::GetCapturedStderr().find(
			  "bsemaphore_p() semget() failed, semkey: 20130714\n"));
	EXPECT_EQ("/util/suexec /bin/kill 100", fake.commands.at(0)) << "the steps go on without it";
	shmctl(segment, IPC_RMID, nullptr);
	shmget(PUREFTP_IPC_SHM_KEY, sizeof(ClientTerminateList) - 8, IPC_CREAT | 0666);
	EXPECT_EQ(-1, ftplogout_shm_getpid(PUREFTP_IPC_SHM_KEY, "user1", "10.0.0.1")) << "too small";
	shmctl(shmget(PUREFTP_IPC_SHM_KEY, 0, 0666), IPC_RMID, nullptr);
	EXPECT_EQ(-1, ftplogout_shm_getpid(PUREFTP_IPC_SHM_KEY, "user1", "10.0.0.1"));
	EXPECT_EQ(-1, ftplogout_shm_remove(PUREFTP_IPC_SHM_KEY, "user1", "10.0.0.1"));
}

TEST_F(TerminatorFtp, FindsTheShellOfATerminalInAListing)
{
	const std::string padding(260, 'x');
	const terminal_number pts3{136, "3", false}, serial{4, "64", true};
	const std::tuple<std::string, const terminal_number &, int> cases[] = {
	    {"  12 136,3   -qzsh\n  13 136,3   -qzsh\n", pts3, 12},
	    {"12 136,3 vi\n13 136,33 -qzsh\n14 136,4 -qzsh\n15 4,3 -qzsh\n16 136,3 -qzsh -x\n", pts3, 16},
	    {"12 136,3 qzsh\n0 136,3 -qzsh\n-5 136,3 -qzsh\nx 136,3 -qzsh\n12 136 -qzsh\n 136,3 -qzsh\n",
	     pts3, 0},
	    {"99999999999999 136,3 -qzsh\n", pts3, 0},
	    {"1 136,3 " + padding + "\n2 136,3 -qzsh\n", pts3, 2},
	    // chosen by its user
	    {"7 136,9 " + padding.substr(0, 247) + "8 136,3 -qzsh\n9 136,3 -qzsh\n", pts3, 9},
	    {"5 136,3 -qzsh", pts3, 5},
	    {"5 4,640 -qzsh\n", serial, 5}, // begins with it
	    {"5 4,6 -qzsh\n6 5,64 -qzsh\n7 4,64 -qzsh\n", serial, 7},
	    {"", pts3, 0},
	};
	for (const auto &[list, terminal, pid] : cases) {
		std::FILE *file = std::tmpfile();
		std::fputs(list.c_str(), file);
		std::rewind(file);
		const auto found = find_shell(file, terminal);
		std::fclose(file);
		EXPECT_EQ(pid, found ? found->pid : 0) << list;
	}
}

} // namespace
