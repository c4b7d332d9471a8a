// hostile_test.cpp: clients that do everything wrong, all at once, and a service beside them that must not
// notice. HOSTILE_SECONDS: how long (10).
#include "driver.h"

#include <sys/prctl.h>

namespace {

using Hostile = on_device;

constexpr std::size_t PLACES = 120; // connections that fit into the daemon's table, roughly

auto either(std::size_t i) { return i % 2 != 0 ? vek_client_open_notify : vek_client_open_request; }

// This process goes on without rights. False when the sandbox has no second user.
bool become_nobody()
{
	const bool changed = setuid(65534) == 0;
	prctl(PR_SET_PDEATHSIG, SIGKILL); // the change of user took it back
	return changed;
}

// ---- each in a thread of the hostile process, until that is ended ----

void stay_silent(std::size_t connections)
{
	std::vector<raw> silent;
	for (;; std::this_thread::sleep_for(20ms)) {
		std::erase_if(silent, [](raw &one) { return one.ended(); });
		while (silent.size() < connections)
			silent.emplace_back(either(silent.size()));
	}
}

void send_halves()
{
	for (std::size_t i = 0;; i++)
		raw(either(i)).write(vek_event{}, i % 3 * 50); // or connects for nothing
}

void flood_unknown_numbers()
{
	raw notify(vek_client_open_notify), asking(vek_client_open_request);
	vek_event event{};
	for (int i = 0; i < 2000 && !notify.ended() && !asking.ended(); i++) {
		event.event = (i % 2 != 0 ? 64 : -1000000) * (i + 1); // none that is known
		notify.write(event);
		asking.write(vek_request{event.event, {}, 0});
	}
}

// Asks, or subscribes, and never reads.
void never_read(int method)
{
	for (raw one(vek_client_open_request); !one.ended();
	     std::this_thread::sleep_for(method == VEK_LISTEN ? 100ms : 1ms))
		one.write(vek_request{method, {}, 0});
}

// Asks for everything and reads it all, just before it would be given up, with the next request sent already.
void read_late()
{
	const std::size_t all = sizeof(vek_event) + 1000 * sizeof(user_info);
	const vek_request request{VEK_QUERY_ALL, {}, 0};
	raw one(vek_client_open_request);
	for (one.write(request); !one.ended(); one.read(all)) {
		one.write(request);
		std::this_thread::sleep_for(450ms);
	}
}

void be_hostile()
{
	const std::size_t silent = become_nobody() ? PLACES : PLACES / 2; // for user 0, places are left free
	std::vector<std::jthread> threads;
	for (const std::function<void()> &way : {std::function<void()>([=] { stay_silent(silent); }),
						 {send_halves},
						 {flood_unknown_numbers},
						 {[] { never_read(VEK_QUERY_ALL); }},
						 {read_late},
						 {read_late},
						 {[] { never_read(VEK_LISTEN); }}})
		threads.emplace_back([way] {
			for (;;)
				try {
					way();
				} catch (const std::exception &) { // turned away: again
				}
		});
}

TEST_F(Hostile, NobodyHoldsAServiceUp)
{
	vekd.start("-d");
	auto reporter = std::make_unique<service>();
	reporter->fill(1000);
	auto others = std::make_unique<process>(be_hostile);
	auto ask = std::make_unique<asker>();
	latencies waits;
	const auto start = steady::now();
	bool warm = false;
	for (int round = 0; ms_since(start) < 1000.0 * setting("HOSTILE_SECONDS", 10); round++) {
		if (!warm && ms_since(start) > 2000) {
			warm = true; // the first shut-downs are over
			waits = {};
		}
		// Now and then the service is restarted: a newcomer gets a place too.
		if (round % 50 == 49) {
			reporter.reset();
			ask.reset();
			reporter = waits.measure([] { return std::make_unique<service>(); });
			ask = waits.measure([] { return std::make_unique<asker>(); });
		}
		const std::string user = "healthy" + std::to_string(round);
		const auto report = [&](int number) {
			const vek_event event = notice(number, SERVICE_NAME_HTTP_HTTPS, user, user);
			return waits.measure([&] { return reporter->report(event); });
		};
		ASSERT_EQ(0, report(VEK_EVENT_USER_LOGIN));
		ASSERT_EQ(user, waits.measure([&] { return ask->named(user); }).at(0).unique);
		ASSERT_EQ(1001, waits.measure([&] { return ask->count(); }));
		ASSERT_EQ(1001u, waits.measure([&] { return ask->all(); }).size());
		ASSERT_EQ(0, report(VEK_EVENT_USER_LOGOUT));
		ASSERT_EQ(1, report(VEK_EVENT_USER_LOGOUT));
		ASSERT_TRUE(waits.measure([&] { return ask->named(user); }).empty());
	}
	waits.print("beside hostile clients");
	EXPECT_LT(waits.percentile(1), 1500 * SLOWER);
	ASSERT_TRUE(alive(others->pid()));
	others.reset();
	EXPECT_GT(vekd.said("did not read"), 2);
	EXPECT_EQ(1000, ask->count());
	EXPECT_TRUE(eventually([&] {
		vekd.settle();
		return descriptors(vekd.pid()) < 16;
	})) << "something of them stays";
}

TEST_F(Hostile, LateReadersPutNobodyOff)
{
	vekd.start();
	service().fill(1000);
	vekd.settle(); // that connection's end is read
	const int before = descriptors(vekd.pid());
	const process late([] {
		for (;;)
			try {
				read_late();
			} catch (const std::exception &) {
			}
	});
	ASSERT_TRUE(eventually([&] { return descriptors(vekd.pid()) > before; })); // its turn is the first
	asker ask;
	latencies waits;
	for (const auto start = steady::now(); ms_since(start) < 2000;)
		ASSERT_EQ(1000u, waits.measure([&] { return ask.all(); }).size());
	EXPECT_LT(waits.percentile(1), 1500 * SLOWER);
}

TEST_F(Hostile, SilentConnectionsShutServicesOutOnlyOfTheirKind)
{
	if (process([] { _exit(become_nobody() ? 0 : 1); }).status() != 0)
		GTEST_SKIP() << "no second user in this sandbox";
	vekd.start();
	const process crowd([] {
		become_nobody();
		stay_silent(PLACES + 50);
	});
	ASSERT_TRUE(eventually([&] { return descriptors(vekd.pid()) >= 128; }));
	process plain([] {
		become_nobody();
		raw one(vek_client_open_request);
		one.write(vek_request{VEK_QUERY_TOTAL_USER_NUM, {}, 0});
		_exit(one.read(1).empty() && one.ended() ? 0 : 1);
	});
	EXPECT_EQ(0, plain.status()) << "turned away";
	// Services of user 0 get in, more of them than there ever were places left, and stay: also when
	// others of user 0 want more places than there are.
	std::vector<service> services(40);
	for (service &one : services)
		EXPECT_EQ(0, one.login(SERVICE_NAME_SSH, "root"));
	const std::vector<asker> others(PLACES + 50);
	for (service &one : services)
		EXPECT_EQ(0, one.login(SERVICE_NAME_SSH, "again"));
}

} // namespace
