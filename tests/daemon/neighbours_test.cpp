// neighbours_test.cpp: what else runs on the device has stopped working: the log, semaphores,
// the file systems, the tools. Each wait has its bound, and no session is lost.
#include "driver.h"

#include <sys/sem.h>

#include <sstream>

namespace {

using Neighbours = on_device;

// Not longer than the bound, and what the machine needs for the rest.
template <class F> void within(double bound, F call)
{
	const auto start = steady::now();
	call();
	EXPECT_LT(ms_since(start), bound + 500 * SLOWER);
}

TEST_F(Neighbours, LogThatStoppedReading)
{
	log.reset();
	const owned_fd dead = log_socket();
	vekd.start();
	service reporter;
	for (int i = 0; i < VEK_MAX_USERS; i++)
		within(100, [&] { ASSERT_EQ(0, reporter.login(SERVICE_NAME_SSH, "u", std::to_string(i))); });
	EXPECT_EQ(VEK_MAX_USERS, asker().count());

	// It reads again: what is missing is said.
	const auto read_lines = [&] {
		std::vector<std::string> lines;
		char line[2048];
		for (ssize_t length; (length = recv(dead, line, sizeof(line), MSG_DONTWAIT)) > 0;)
			lines.emplace_back(line, static_cast<std::size_t>(length));
		return lines;
	};
	const std::size_t kept = read_lines().size();
	EXPECT_LT(kept, static_cast<std::size_t>(VEK_MAX_USERS));
	EXPECT_EQ(1, reporter.login(SERVICE_NAME_SSH, "refused"));
	const auto lines = read_lines();
	ASSERT_EQ(2u, lines.size());
	EXPECT_TRUE(lines[0].ends_with("]: " + std::to_string(VEK_MAX_USERS - kept) + " messages were lost"))
	    << lines[0];
	unlink("/dev/log");
}

TEST_F(Neighbours, SemaphoresThatAreNeverReleased)
{
	stand_in("/util/suexec", "exec \"$@\"\n");
	vekd.start({"-d"});
	service reporter;
	const process server;
	const shared_segment ftp(PUREFTP_IPC_SHM_KEY, sizeof(ClientTerminateList));
	auto *table = ftp.as<ClientTerminateList>();
	table->size = 1;
	table->list[0].pid = server.pid();
	set_text(table->list[0].username, "bob");
	set_text(table->list[0].ipaddr, "10.0.0.9");
	reporter.login(SERVICE_NAME_FTP, "bob", "", ip4("10.0.0.9"));
	const int ftp_lock = semget(PUREFTP_IPC_KEY, 1, IPC_CREAT | 0666); // as made it is taken
	semctl(semget(USER_LOCK_IPC_KEY, 1, 0), 0, SETVAL, 0);

	within(1000, [&] { EXPECT_EQ(0, reporter.logout(SERVICE_NAME_FTP, "bob", "", ip4("10.0.0.9"))); });
	EXPECT_TRUE(eventually([&] { return !alive(server.pid()); }));
	EXPECT_EQ(0u, table->size);
	EXPECT_TRUE(vekd.said("semaphore_p failed, id: "));
	EXPECT_EQ(0, semctl(ftp_lock, 0, GETVAL)) << "what was not taken was given back";
	semctl(ftp_lock, 0, IPC_RMID);
	within(1000, [&] { vekd.tick(11); });
	EXPECT_TRUE(vekd.said("can't do locking!\n"));
}

TEST_F(Neighbours, FileSystemsFullAndReadOnly)
{
	stand_in("/util/suexec", "echo killed >" + SCRATCH + "kills\n");
	stand_in(SCRATCH + "bin/ps", "yes '1 136,1 -qzsh' | head -c 100000\n");
	vekd.start();
	service reporter;
	fill(reporter, 3);
	const auto live = [&] {
		EXPECT_EQ(1, reporter.report(notice(VEK_EVENT_USER_LOGOUT_REVOCABLE, "", "nobody")));
		reporter.login(SERVICE_NAME_TELNET, "bob", "pts/1");
		EXPECT_EQ(0, reporter.logout(SERVICE_NAME_TELNET, "bob", "pts/1"));
		vekd.signal(SIGUSR1); // the dump of stations
		vekd.settle();
		EXPECT_EQ(3, asker().count());
	};
	{
		const mounted tmp("tmpfs", "/tmp", 0, "size=4k"), var("tmpfs", "/var", 0, "size=4k");
		for (const char *file : {"/tmp/filler", "/var/filler"})
			std::ignore = system(("yes >" + std::string(file) + " 2>/dev/null").c_str());
		live();
	}
	{
		const mounted tmp("tmpfs", "/tmp", MS_RDONLY), var("tmpfs", "/var", MS_RDONLY);
		live();
	}
	EXPECT_FALSE(exists(SCRATCH + "kills")) << "half a listing is none";
	live();
	EXPECT_TRUE(exists(SCRATCH + "kills"));
	EXPECT_NE(std::string::npos, read_file(VEK_RBTREE_DUMP).find("print end"));
}

TEST_F(Neighbours, ToolsThatNeverEnd)
{
	constexpr double TOOL = 2000; // milliseconds that each may take
	const std::string pids = SCRATCH + "pids", ps = SCRATCH + "bin/ps";
	const std::string forever = "trap '' TERM HUP; echo $$ >>" + pids + "; sleep 1000 & echo $! >>" +
				    pids + "; wait; sleep 1000\n";
	platform("mode cloud\n");
	for (const char *tool : {"/util/suexec", "/usr/local/bin/dbctl", "/run/drive/bin/qzsh"})
		stand_in(tool, forever);
	stand_in(ps, "echo; echo 1 136,1 -qzsh\n");
	write_file("/tmp/sshcon_pts.txt", "1");
	vekd.start();
	service reporter;
	fill(reporter, VEK_MAX_USERS - 2);
	reporter.login(SERVICE_NAME_SSH, "alice", "s");
	vek_event tty = notice(VEK_EVENT_UPDATE_SSH_TTY, "", "alice");
	set_text(tty.ssh_tty, "pts/1");
	reporter.report(tty);
	reporter.login(SERVICE_NAME_TELNET, "bob", "pts/1");

	struct {
		vek_event event;
		int status, tools, started;
	} calls[] = {
	    // Both station lists at once; the launcher, then the shell command; the listing.
	    {notice(VEK_EVENT_USER_LOGIN, SERVICE_NAME_CAPTIVE_PORTAL, "late"), 1, 1, 4},
	    {notice(VEK_EVENT_USER_LOGOUT, SERVICE_NAME_SSH, "alice", "s"), 0, 2, 4},
	    {notice(VEK_EVENT_USER_LOGOUT, SERVICE_NAME_TELNET, "bob", "pts/1"), 0, 1, 2},
	};
	for (const auto &[event, status, tools, started] : calls) {
		if (&event == &calls[2].event)
			stand_in(ps, forever);
		within(tools * TOOL, [&] { EXPECT_EQ(status, reporter.report(event)); });
		std::istringstream lines(read_file(pids));
		int seen = 0;
		for (pid_t pid; lines >> pid; seen++)
			EXPECT_TRUE(eventually([&] { return !alive(pid); }, 1s));
		EXPECT_EQ(started, seen);
		unlink(pids.c_str());
	}
	EXPECT_EQ(VEK_MAX_USERS - 2, asker().count());
}

} // namespace
