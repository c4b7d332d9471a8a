// soak_test.cpp: simulated days: ticks by signal, a clock that goes with them, sessions that come and go in
// every way. At the end the daemon holds what it held after the first lives. SOAK_SECONDS: how long (30);
// SOAK_LIVES: or so many lives.
#include "driver.h"

#include <filesystem>
#include <random>

namespace {

using Soak = on_device;

constexpr int WARM_UP = 10000; // lives; by then every path has been gone and every buffer has its size
// Pages that the kernel counts late or the allocator took for one burst. A leak of a byte a life is far more.
constexpr long TOLERANCE_KB = 256;

using state = std::vector<long>; // sessions, descriptors, bytes of the heap in use; kilobytes resident

TEST_F(Soak, HoldsAtTheEndWhatItHeldAtTheStart)
{
	uptime_clock clock(100000);
	platform("mode cloud\n");
	const auto heap = std::filesystem::read_symlink("/proc/self/exe").replace_filename("libvek_heap.so");
	// Cached pieces would count as in use.
	vekd.start({}, SLOWER == 1 ? daemon_process::words{"LD_PRELOAD=" + heap.string(),
							   "GLIBC_TUNABLES=glibc.malloc.tcache_count=0"}
				   : daemon_process::words{});
	service reporter;
	asker ask;
	// Once as many as there can be, since what the daemon keeps for the next ones grows to that.
	for (int i = 0; i < VEK_MAX_USERS; i++)
		reporter.login(SERVICE_NAME_CAPTIVE_PORTAL, "crowd", std::to_string(i));
	reporter.report(notice(VEK_EVENT_WEB_USER_LOGOUT, "", "crowd"));
	subscriber copies;
	std::mt19937 random(1);
	const shared_segment block(USER_CONFIG_IPC_KEY);
	block.as<user_config>()->enable_idle_detection = 1;
	block.as<user_config>()->max_idle_minute = 1;
	long lives = 0, ticks = 0;

	// A wave of sessions, each with another end, and the time until all have come to it.
	const auto live = [&] {
		constexpr int WAVE = 300;
		for (int i = 0; i < WAVE; i++) {
			const std::string user = "user" + std::to_string(random() % 100);
			vek_event event =
			    notice(i % 9 == 0 ? VEK_EVENT_USER_SOCIAL_LOGIN_STAGE1 : VEK_EVENT_USER_LOGIN,
				   i % 2 != 0 ? SERVICE_NAME_CAPTIVE_PORTAL : SERVICE_NAME_HTTP_HTTPS, user,
				   std::to_string(i), htonl(0x0a000000u + random() % 50));
			set_text(event.sta_mac, "02:00:00:00:00:" + std::to_string(10 + random() % 90));
			set_text(event.ssid_profile_name, "vap-1");
			if (i % 5 == 0) {
				event.ip6 = ip6("2001:db8::1");
				event.ip6.s6_addr[15] = static_cast<std::uint8_t>(random() % 50);
				event.event_flag = VEK_EVENT_FLAG_USED_IPV6_ADDR;
			}
			switch (i % 6) {
			case 0: event.default_lease_time = 1; break;
			case 1: event.default_reauth_time = 1; break;
			case 2: event.session_timeout = 1 + random() % 60; break;
			case 3:
				event.idle_timeout_form_acct_flag = 1, event.idle_timeout = random() % 60;
				break;
			default: break; // idle detection, or one of the logouts below
			}
			ASSERT_EQ(event.event == VEK_EVENT_USER_LOGIN ? 0 : 1, reporter.report(event));
			if (i % 6 == 5)
				reporter.report(notice(random() % 2 != 0 ? VEK_EVENT_WEB_USER_LOGOUT
									 : VEK_EVENT_USER_LOGOUT,
						       "", user));
			if (i % 50 == 0)
				reporter.report(notice(VEK_EVENT_USER_LOGOUT_REVOCABLE, "", user));
			if (i % 20 == 0) {
				ask.all();
				subscriber another; // comes and goes
			}
			if (i % 7 == 0) {
				vek_event roam = notice(VEK_EVENT_UPDATE_ROAMING_STA_IP, "", user, "",
							htonl(0x0a000000u + random() % 50));
				set_text(roam.sta_mac, event.sta_mac);
				set_text(roam.ssid_profile_name, "vap-1");
				reporter.report(roam);
				reporter.report(notice(VEK_EVENT_UPDATE_IDLE_TIME, "", "", "", roam.ip));
			}
			while (copies.pending())
				copies.next();
		}
		lives += WAVE;
		for (int i = 0; i < 75; i++, ticks++) { // a minute, and the eleven until it is looked at
			clock.advance(1);
			vekd.tick();
			while (copies.pending())
				copies.next();
		}
		vekd.signal(SIGHUP);
		vekd.signal(SIGUSR1);
		vekd.settle();
	};
	const auto now = [&] {
		state is{ask.count(), descriptors(vekd.pid()), 0, 0};
#ifndef VEK_SANITIZED // which keeps what was freed
		std::string used;
		unlink("/tmp/heap");
		// By then the daemon waits for clients, and no call of malloc is under way.
		std::this_thread::sleep_for(50ms);
		vekd.signal(SIGUSR2);
		EXPECT_TRUE(eventually([&] { return (used = read_file("/tmp/heap")).ends_with("\n"); }));
		// After it, which touches pages of the libraries.
		const std::string pages = read_file("/proc/" + std::to_string(vekd.pid()) + "/statm");
		is[3] = std::atol(pages.c_str() + pages.find(' '));
		is[2] = std::atol(used.c_str());
		is[3] *= sysconf(_SC_PAGESIZE) / 1024;
#endif
		return is;
	};

	const auto start = steady::now();
	const int seconds = setting("SOAK_SECONDS", 30);
	const long wanted = setting("SOAK_LIVES", 0);
	while (lives < WARM_UP)
		ASSERT_NO_FATAL_FAILURE(live());
	log->clear();
	const state first = now();
	while (wanted > 0 ? lives < wanted : ms_since(start) < 1000.0 * seconds) {
		ASSERT_NO_FATAL_FAILURE(live());
		log->clear();
	}
	state last = now();
	std::printf("%ld lives, %ld seconds of the daemon's; resident %ld kB, then %ld kB; heap %ld\n", lives,
		    ticks, first[3], last[3], last[2]);
	EXPECT_LE(last[3], first[3] + TOLERANCE_KB);
	last[3] = first[3];
	EXPECT_EQ(first, last);
	EXPECT_GT(lives, WARM_UP) << "nothing was measured";
}

} // namespace
