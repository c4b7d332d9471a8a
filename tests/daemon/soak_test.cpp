// soak_test.cpp: simulated days: ticks by signal, a clock that goes with them, sessions that come and go in
// every way. At the end the daemon holds what it held after the first lives. SOAK_SECONDS: how long (30);
// SOAK_LIVES: or so many lives.
#include "driver.h"

#include <filesystem>
#include <random>

namespace {

constexpr int WARM_UP = 10000; // lives; by then every path has been gone and every buffer has its size
// Pages that the kernel counts late or the allocator took for one burst. A leak of a byte a life is far more.
constexpr long TOLERANCE_KB = 256;

class Soak : public on_device {
protected:
	// A wave of sessions, each with another end, and the time until all have come to it.
	void live()
	{
		constexpr int WAVE = 300;
		for (int i = 0; i < WAVE; i++) {
			const std::string user = "user" + std::to_string(random() % 100);
			vek_event login =
			    notice(VEK_EVENT_USER_LOGIN,
				   i % 2 != 0 ? SERVICE_NAME_CAPTIVE_PORTAL : SERVICE_NAME_HTTP_HTTPS, user,
				   std::to_string(i), 1 + random() % 50);
			set_text(login.sta_mac, "02:00:00:00:00:" + std::to_string(10 + random() % 90));
			set_text(login.ssid_profile_name, "vap-1");
			if (i % 5 == 0) {
				login.ip6.s6_addr[15] = static_cast<std::uint8_t>(1 + random() % 50);
				login.event_flag = VEK_EVENT_FLAG_USED_IPV6_ADDR;
			}
			vek_event end = notice(VEK_EVENT_USER_LOGOUT, "", user);
			switch (i % 8) {
			case 0: login.default_lease_time = 1; break;
			case 1: login.default_reauth_time = 1; break;
			case 2: login.session_timeout = 1 + random() % 60; break;
			case 3:
				login.idle_timeout_form_acct_flag = 1, login.idle_timeout = random() % 60;
				break;
			case 4: end.event = VEK_EVENT_USER_LOGOUT_REVOCABLE; break;
			case 5: end.event = VEK_EVENT_WEB_USER_LOGOUT; break;
			default: break; // now, or in the end by idle detection
			}
			ASSERT_EQ(0, reporter->report(login));
			if (i % 8 >= 4 && i % 8 < 7)
				reporter->report(end);
			if (i % 7 == 0) {
				login.event = VEK_EVENT_UPDATE_ROAMING_STA_IP;
				login.ip = 1 + random() % 50;
				reporter->report(login);
				reporter->report(notice(VEK_EVENT_UPDATE_IDLE_TIME, "", "", "", login.ip));
			}
			if (i % 20 == 0)
				subscriber(), own->all(); // comes and goes
			while (copies->pending())
				copies->next();
		}
		lives += WAVE;
		for (int i = 0; i < 75; i++, ticks++) { // a minute, and the eleven until it is looked at
			advance(1);
			vekd.tick();
			while (copies->pending())
				copies->next();
		}
		vekd.signal(SIGHUP);
		vekd.signal(SIGUSR1);
		vekd.settle();
		write_file(SCRATCH + "log", "");
	}

	// What it holds: sessions, descriptors, bytes of the heap in use, resident kilobytes.
	std::vector<long> holds()
	{
		std::string heap, pages;
#ifndef VEK_SANITIZED // which keeps what was freed
		unlink("/tmp/heap");
		// By then the daemon waits for clients, and no call of malloc is under way.
		std::this_thread::sleep_for(50ms);
		vekd.signal(SIGUSR2);
		EXPECT_TRUE(eventually([&] { return (heap = read_file("/tmp/heap")).ends_with("\n"); }));
		pages = read_file("/proc/" + std::to_string(vekd.pid()) + "/statm");
		pages.erase(0, pages.find(' '));
#endif
		return {own->count(), descriptors(vekd.pid()), std::atol(heap.c_str()),
			std::atol(pages.c_str()) * (sysconf(_SC_PAGESIZE) / 1024)};
	}

	std::unique_ptr<service> reporter;
	std::unique_ptr<asker> own;
	std::unique_ptr<subscriber> copies;
	std::mt19937 random{1};
	long lives = 0, ticks = 0;
};

TEST_F(Soak, HoldsAtTheEndWhatItHeldAtTheStart)
{
	write_file(PLATFORM, "mode cloud\n");
#ifndef VEK_SANITIZED
	const auto heap = std::filesystem::read_symlink("/proc/self/exe").replace_filename("libvek_heap.so");
	setenv("LD_PRELOAD", heap.c_str(), 1);
	setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0", 1); // cached pieces would count as in use
#endif
	vekd.start();
	reporter = std::make_unique<service>();
	own = std::make_unique<asker>();
	// Once as many as there can be, since what the daemon keeps for the next ones grows to that.
	for (int i = 0; i < VEK_MAX_USERS; i++)
		reporter->login(SERVICE_NAME_CAPTIVE_PORTAL, "crowd", std::to_string(i));
	reporter->report(notice(VEK_EVENT_WEB_USER_LOGOUT, "", "crowd"));
	copies = std::make_unique<subscriber>();
	const shared<user_config> config(USER_CONFIG_IPC_KEY);
	config->enable_idle_detection = config->max_idle_minute = 1;
	const auto start = steady::now();
	while (lives < WARM_UP)
		ASSERT_NO_FATAL_FAILURE(live());
	const std::vector<long> first = holds();
	const long wanted = setting("SOAK_LIVES", 0);
	while (wanted > 0 ? lives < wanted : ms_since(start) < 1000.0 * setting("SOAK_SECONDS", 30))
		ASSERT_NO_FATAL_FAILURE(live());
	std::vector<long> last = holds();
	std::printf("%ld lives, %ld seconds of the daemon's; resident %ld kB, then %ld kB; heap %ld\n", lives,
		    ticks, first[3], last[3], last[2]);
	EXPECT_LE(last[3], first[3] + TOLERANCE_KB);
	last[3] = first[3];
	EXPECT_EQ(first, last);
	EXPECT_GT(lives, WARM_UP) << "nothing was measured";
}

} // namespace
