// restart_test.cpp: the daemon is killed at any point of its work and started again, by the way of the unit
// and the init script (VEKD_PID names the helper of both). RESTARTS: how often (20); RESTART_SEED: another
// run of the same.
#include "driver.h"

#include <atomic>
#include <cstdlib>
#include <random>

namespace {

using Restart = on_device;

// Reports, asks and subscribes until told to stop; that the daemon goes away under it is what is expected.
void be_a_service(const std::atomic<bool> &over, int number)
{
	const std::string user = "load" + std::to_string(number);
	while (!over)
		try {
			service reporter;
			asker ask;
			subscriber copies;
			for (int i = 0; !over; i++) {
				reporter.login(i % 3 != 0 ? SERVICE_NAME_HTTP_HTTPS
							  : SERVICE_NAME_CAPTIVE_PORTAL,
					       user, std::to_string(i), ip4("10.0.0.1"));
				ask.all();
				if (i % 4 == 0)
					reporter.report(notice(i % 64 == 0 ? VEK_EVENT_USER_LOGOUT_REVOCABLE
									   : VEK_EVENT_WEB_USER_LOGOUT,
							       "", user));
				while (copies.pending())
					copies.next();
			}
		} catch (const std::exception &) {
		}
}

TEST_F(Restart, AfterAKillAtAnyPoint)
{
	const int restarts = setting("RESTARTS", 20);
	std::mt19937 random(static_cast<unsigned>(setting("RESTART_SEED", 1)));
	latencies starts;
	vekd.start();
	for (int i = 0; i < restarts; i++) {
		{
			std::atomic<bool> over = false;
			std::vector<std::jthread> load;
			for (int number = 0; number < 3; number++)
				load.emplace_back(be_a_service, std::cref(over), number);
			std::this_thread::sleep_for(random() % 40000 * 1us); // the random point
			const shared_segment lockout(USER_LOCK_IPC_KEY), config(USER_CONFIG_IPC_KEY);
			std::memset(lockout.as<void>(), 1, sizeof(user_lock));
			std::memset(config.as<void>(), 1, sizeof(user_config));
			if (i % 2 != 0)
				vekd.signal(SIGALRM);
			vekd.kill_hard();
			over = true;
		}
		if (i == 0) { // without that it is taken for one that runs
			daemon_process refused;
			EXPECT_EQ(255, refused.run());
		}
		ASSERT_EQ(0, std::system("DAEMON=$VEKD; export DAEMON; exec $VEKD_PID prepare"));
		ASSERT_FALSE(exists(VEK_PID_FILE));
		starts.measure([&] { vekd.start(); });

		asker ask;
		ASSERT_EQ(0, ask.count()) << "sessions of the life before";
		const shared_segment lockout(USER_LOCK_IPC_KEY), config(USER_CONFIG_IPC_KEY);
		user_lock fresh{};
		fresh.attempt_count = DEFAULT_ATTEMPT_COUNT;
		fresh.lockout_period = DEFAULT_LOCKOUT_PERIOD;
		ASSERT_EQ(0, std::memcmp(&fresh, lockout.as<void>(), sizeof(fresh)));
		ASSERT_EQ(3u, config.as<user_config>()->max_idle_minute);
		ASSERT_EQ(0, config.as<user_config>()->enable_idle_detection);
		vekd.tick(1);
		ASSERT_EQ(0, service().login(SERVICE_NAME_SSH, "alice"));
		ASSERT_EQ(1u, ask.all().size());
	}
	starts.print("from the start to the first answer");
	EXPECT_LT(starts.percentile(0.5), 50 * SLOWER);
	EXPECT_LT(starts.percentile(0.9), 500 * SLOWER); // it starts with a low priority beside whatever runs
}

} // namespace
