// neighbours_test.cpp: what else runs on the device has stopped working: the log, semaphores, shared memory,
// the file systems, the tools. Each wait has its bound, and no session is lost.
#include "driver.h"

#include <sys/mount.h>
#include <sys/sem.h>

#include <sstream>

namespace {

using Neighbours = on_device;

// Not longer than the bound, and what the machine needs for the rest.
template <class F> void within(double bound, F call)
{
	const auto start = steady::now();
	call();
	EXPECT_LT(ms_since(start), bound + 1000 * SLOWER);
}

TEST_F(Neighbours, LogThatStoppedReading)
{
	constexpr double LOG = 100; // milliseconds that it may cost in any one second
	vekd.start();
	service reporter;
	kill(log_reader->pid(), SIGSTOP);
	for (int i = 0; i < VEK_MAX_USERS; i++)
		within(LOG, [&] { ASSERT_EQ(0, reporter.login(SERVICE_NAME_SSH, "bob")); });
	EXPECT_EQ(VEK_MAX_USERS, asker().count());
	kill(log_reader->pid(), SIGCONT);
	// It reads again: what is missing is said, so that every line is accounted for.
	int reports = VEK_MAX_USERS;
	EXPECT_TRUE(eventually([&] {
		reports += reporter.login(SERVICE_NAME_SSH, "late"); // refused
		std::this_thread::sleep_for(10ms);
		int lines = 0, said = 0, lost = 0, number = 0;
		std::istringstream log(log_lines());
		for (std::string line; std::getline(log, line); lines++)
			if (std::sscanf(line.c_str(), "<%*d>%d messages were lost", &number) == 1)
				lost += number, said++;
		return said > 0 && reports == lines - said + lost;
	}));
}

TEST_F(Neighbours, SemaphoresThatAreNeverReleased)
{
	constexpr double SEMAPHORE = 1000; // milliseconds that each may cost
	stand_in("/util/suexec", "exec \"$@\"\n");
	vekd.start("-d");
	service reporter;
	const process server;
	const shared<ClientTerminateList> clients(PUREFTP_IPC_SHM_KEY, IPC_CREAT);
	clients->size = 1;
	clients->list[0].pid = server.pid();
	set_text(clients->list[0].username, "bob");
	set_text(clients->list[0].ipaddr, "0.0.0.0");
	const int lock = semget(PUREFTP_IPC_KEY, 1, IPC_CREAT | 0666); // as made it is taken
	semctl(semget(USER_LOCK_IPC_KEY, 1, 0), 0, SETVAL, 0);

	for (const char *user : {"bob", "bob2", "bob3", "bob4"})
		reporter.login(SERVICE_NAME_FTP, user);
	within(SEMAPHORE, [&] {
		for (const char *user : {"bob", "bob2", "bob3", "bob4"}) // waited for once
			EXPECT_EQ(0, reporter.logout(SERVICE_NAME_FTP, user));
	});
	EXPECT_TRUE(eventually([&] { return !alive(server.pid()); }));
	EXPECT_EQ(0u, clients->size);
	EXPECT_EQ(0, semctl(lock, 0, GETVAL)) << "what was not taken was given back";
	semctl(lock, 0, IPC_RMID);
	within(SEMAPHORE, [&] { vekd.tick(11); });
	vekd.tick(11);
	EXPECT_GE(vekd.said("can't do locking!\n"), 1);
}

TEST_F(Neighbours, SharedBlocksRemoved)
{
	vekd.start("-d");
	service reporter;
	reporter.fill(3);
	const auto live = [&](const char *complaint) {
		within(0, [&] {
			vekd.signal(SIGHUP);
			vekd.tick(22);
			reporter.login(SERVICE_NAME_FTP, "bob"); // whose server has no table
			EXPECT_EQ(0, reporter.logout(SERVICE_NAME_FTP, "bob"));
		});
		EXPECT_GE(vekd.said(complaint), 1);
		EXPECT_EQ(3, asker().count());
	};
	for (int key : {USER_CONFIG_IPC_KEY, USER_LOCK_IPC_KEY})
		shmctl(shmget(key, 0, 0), IPC_RMID, nullptr);
	live("Can't get shm!\n");
	const shared<user_lock> again(USER_LOCK_IPC_KEY, IPC_CREAT); // which is followed
	again->enable = again->lockout_rec[7].inuse = 1;
	live("");
	EXPECT_EQ(0, again->lockout_rec[7].inuse);
	semctl(semget(USER_LOCK_IPC_KEY, 1, 0), 0, IPC_RMID);
	live("can't get lock\n");
}

TEST_F(Neighbours, FileSystemsFullAndReadOnly)
{
	stand_in("/util/suexec", "echo killed >" + SCRATCH + "kills\n");
	stand_in("/bin/ps", "yes '1 136,1 -qzsh' | head -c 100000\n");
	vekd.start();
	service reporter;
	reporter.fill(3);
	const auto live = [&] {
		EXPECT_EQ(1, reporter.report(notice(VEK_EVENT_USER_LOGOUT_REVOCABLE, "", "nobody")));
		reporter.login(SERVICE_NAME_TELNET, "bob", "pts/1");
		EXPECT_EQ(0, reporter.logout(SERVICE_NAME_TELNET, "bob", "pts/1"));
		vekd.signal(SIGUSR1); // the dump of stations
		vekd.settle();
		EXPECT_EQ(3, asker().count());
	};
	for (unsigned long flags : {0ul, 0ul | MS_RDONLY}) {
		for (const char *path : {"/tmp", "/var"}) {
			checked(mount("tmpfs", path, "tmpfs", flags, "size=4k"), path);
			std::ignore = system(("yes 2>&1 >" + std::string(path) + "/filler").c_str()); // full
		}
		within(0, live);
		EXPECT_FALSE(exists(SCRATCH + "kills")) << "half a listing is none";
		for (const char *path : {"/tmp", "/var"})
			umount2(path, MNT_DETACH);
	}
	live();
	EXPECT_TRUE(exists(SCRATCH + "kills"));
	EXPECT_EQ(1, occurrences(read_file(VEK_RBTREE_DUMP), "print end"));
}

TEST_F(Neighbours, ToolsThatNeverEnd)
{
	constexpr double TOOL = 2000; // milliseconds that each may take
	const std::string pids = SCRATCH + "pids";
	const std::string forever = "trap '' TERM HUP; echo $$ >>" + pids + "; sleep 1000 & echo $! >>" +
				    pids + "; wait; sleep 1000\n";
	write_file(PLATFORM, "mode cloud\n");
	for (const char *tool : {"/util/suexec", "/usr/local/bin/dbctl", "/usr/local/bin/qzsh"})
		stand_in(tool, forever);
	stand_in("/bin/ps", "echo; echo 1 136,1 -qzsh\n");
	write_file("/tmp/sshcon_pts.txt", "1");
	vekd.start();
	service reporter;
	reporter.fill(VEK_MAX_USERS - 2);
	reporter.login(SERVICE_NAME_SSH, "alice");
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
	    {notice(VEK_EVENT_USER_LOGOUT, SERVICE_NAME_SSH, "alice"), 0, 2, 4},
	    {notice(VEK_EVENT_USER_LOGOUT, SERVICE_NAME_TELNET, "bob", "pts/1"), 0, 1, 2},
	};
	for (const auto &[event, status, tools, started] : calls) {
		if (&event == &calls[2].event)
			stand_in("/bin/ps", forever);
		within(tools * TOOL, [&] { EXPECT_EQ(status, reporter.report(event)); });
		if (status != 0) // for a while it is not tried again
			within(0, [&] { EXPECT_EQ(status, reporter.report(event)); });
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
