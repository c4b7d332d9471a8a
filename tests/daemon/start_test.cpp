// start_test.cpp: starts: with something in the way, beside a daemon that runs, and after a kill at any point
// of its work, by the way of the unit and the init script (VEKD_PID names the helper of both). RESTARTS: how
// many kills (20); RESTART_SEED: another run of the same.
#include "driver.h"

#include <sys/mount.h>
#include <sys/stat.h>

#include <random>

namespace {

using StartUp = on_device;
using Restart = on_device;

TEST_F(StartUp, ObstaclesEndItAndTouchNobodysBlocks)
{
	EXPECT_EQ(0, vekd.run("-dh"));
	EXPECT_EQ(std::string(getenv("VEKD")) + " [-d] [-d] [-h]\n", vekd.output());
	ASSERT_EQ(0, symlink("/nowhere/at/all", VEK_PID_FILE)); // seen as none, and not followed
	EXPECT_EQ(255, vekd.run("-dd"));
	EXPECT_EQ(1, vekd.said("enter debugging mode: level: 2\n"));
	EXPECT_FALSE(segments_exist());
	unlink(VEK_PID_FILE);

	const shared<user_lock> others(USER_LOCK_IPC_KEY, IPC_CREAT);
	others->attempt_count = 77;
	const std::pair<const char *, const char *> obstacles[] = {
	    {VEK_PID_FILE, "Another vek daemon is running\n"},
	    {VEK_ADDRESS_NOTIFY, "Can't init vek daemon!\n"},
	    {VEK_ADDRESS_REQUEST, "Can't init vek daemon!\n"},
	};
	for (const auto &[path, message] : obstacles) {
		unlink(path); // of a start before
		ASSERT_EQ(0, mkdir(path, 0755));
		EXPECT_EQ(255, vekd.run()) << path;
		EXPECT_TRUE(vekd.output().ends_with(message)) << vekd.output();
		EXPECT_EQ(77, shared<user_lock>(USER_LOCK_IPC_KEY)->attempt_count);
		ASSERT_EQ(0, rmdir(path));
	}
}

TEST_F(StartUp, NeedsAPidFile)
{
	for (unsigned long flags : {0ul, 0ul | MS_RDONLY}) {
		checked(mount("tmpfs", "/var/run", "tmpfs", flags, "size=4k"), "mount");
		std::ignore = system("yes 2>&1 >/var/run/filler");
		EXPECT_EQ(255, vekd.run("-d"));
		EXPECT_FALSE(exists(VEK_PID_FILE));
		EXPECT_FALSE(segments_exist());
		umount2("/var/run", MNT_DETACH);
	}
}

// Whatever they inherit. A second one would be found when the test ends.
TEST_F(StartUp, OneOfTwoStartsAtOnceServes)
{
	sigset_t blocked;
	sigemptyset(&blocked);
	for (int number : {SIGTERM, SIGALRM})
		sigaddset(&blocked, number);
	for (int i = 0; i < 10; i++) {
		process two([&] {
			sigprocmask(SIG_BLOCK, &blocked, nullptr);
			_exit(system("exec <&- >&- 2>&-; $VEKD & $VEKD & wait"));
		});
		two.status();
		ASSERT_EQ(0, service().login(SERVICE_NAME_SSH, "bob"));
		ASSERT_EQ(1, asker().count());
		const pid_t pid = std::atoi(read_file(VEK_PID_FILE).c_str());
		kill(pid, SIGTERM);
		ASSERT_TRUE(eventually([&] { return !alive(pid); }));
	}
}

TEST_F(StartUp, SecondStartLeavesTheFirstAlone)
{
	vekd.start();
	service().fill(3);
	shared<user_lock>(USER_LOCK_IPC_KEY)->attempt_count = 9;
	EXPECT_EQ(255, daemon_process().run());
	EXPECT_EQ(std::to_string(vekd.pid()), read_file(VEK_PID_FILE));
	EXPECT_EQ(0, service().login(SERVICE_NAME_SSH, "after"));
	EXPECT_EQ(4, asker().count());
	EXPECT_EQ(9, shared<user_lock>(USER_LOCK_IPC_KEY)->attempt_count);
}

TEST_F(StartUp, ChildrenInheritNothing)
{
	stand_in("/bin/ps", "cd " + SCRATCH + "; ls /proc/self/fd >fds; cat /proc/self/status >status\n");
	vekd.start();
	service reporter;
	subscriber copies;
	reporter.login(SERVICE_NAME_CONSOLE, "admin", "console");
	EXPECT_EQ(0, reporter.logout(SERVICE_NAME_CONSOLE, "admin"));
	EXPECT_EQ("0\n1\n2\n3\n", read_file(SCRATCH + "fds")) << "3 is the listing's own";
	const std::string status = read_file(SCRATCH + "status");
	for (const char *mask :
	     {"SigBlk:\t", "SigIgn:\t"}) // the C library keeps two of the signals to itself
		EXPECT_EQ(0u, std::stoull(status.substr(status.find(mask) + 8), nullptr, 16) & 0x7fffffff);
}

// ---- after a kill ----

// Reports, asks and subscribes until it is ended; that the daemon goes away under it is what is expected.
[[noreturn]] void be_a_service()
{
	for (;;)
		try {
			service reporter;
			asker ask;
			subscriber copies;
			for (int i = 0;; i++) {
				const std::string user = std::to_string(i / 4);
				reporter.login(i % 2 != 0 ? SERVICE_NAME_SSH : SERVICE_NAME_CAPTIVE_PORTAL,
					       user);
				reporter.report(notice(VEK_EVENT_USER_LOGOUT_REVOCABLE, "", user));
				ask.all();
				if (i % 4 == 0)
					reporter.report(notice(VEK_EVENT_WEB_USER_LOGOUT, "", user));
				while (copies.pending())
					copies.next();
			}
		} catch (const std::exception &) {
		}
}

TEST_F(Restart, AfterAKillAtAnyPoint)
{
	std::mt19937 random(static_cast<unsigned>(setting("RESTART_SEED", 1)));
	latencies starts;
	vekd.start();
	for (int i = setting("RESTARTS", 20); i > 0; i--) {
		{
			const process load[] = {process(be_a_service), process(be_a_service),
						process(be_a_service)};
			std::this_thread::sleep_for(random() % 40000 * 1us); // the random point
			const shared<user_lock> lockout(USER_LOCK_IPC_KEY);
			lockout->enable = lockout->attempt_count = lockout->lockout_rec[0].inuse = 1;
			const shared<user_config> config(USER_CONFIG_IPC_KEY);
			config->enable_idle_detection = config->max_idle_minute = 1;
			vekd.stop(SIGKILL);
		}
		ASSERT_EQ(255, daemon_process().run()) << "without the helper it is taken for one that runs";
		ASSERT_EQ(0, std::system("DAEMON=$VEKD; export DAEMON; exec $VEKD_PID prepare"));
		starts.measure([&] { return vekd.start(), vekd.pid(); });

		ASSERT_EQ(0, asker().count()) << "sessions of the life before";
		const shared<user_lock> lockout(USER_LOCK_IPC_KEY);
		ASSERT_EQ(DEFAULT_ATTEMPT_COUNT, lockout->attempt_count);
		ASSERT_FALSE(lockout->enable || lockout->lockout_rec[0].inuse);
		const shared<user_config> config(USER_CONFIG_IPC_KEY);
		ASSERT_EQ(3u, config->max_idle_minute);
		ASSERT_FALSE(config->enable_idle_detection);
		ASSERT_EQ(0, service().login(SERVICE_NAME_SSH, "alice"));
		ASSERT_EQ(1u, asker().all().size());
	}
	starts.print("from the start to the first answer");
	EXPECT_LT(starts.percentile(0.5), 50 * SLOWER);
	EXPECT_LT(starts.percentile(0.9), 500 * SLOWER); // it starts with a low priority beside whatever runs
}

} // namespace
