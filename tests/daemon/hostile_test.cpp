// hostile_test.cpp: clients that do everything wrong, all at once, and a service beside them that must not
// notice. HOSTILE_SECONDS: how long (10).
#include "driver.h"

#include <random>

namespace {

using Hostile = on_device;

constexpr int PLACES = 120; // connections that fit into the daemon's table, roughly

const char *either(std::size_t i) { return i % 2 != 0 ? VEK_ADDRESS_NOTIFY : VEK_ADDRESS_REQUEST; }

// ---- each in a thread of the hostile process, until that is ended ----

void stay_silent(int connections)
{
	std::vector<owned_fd> silent;
	for (;; std::this_thread::sleep_for(20ms)) {
		std::erase_if(silent, [](const owned_fd &fd) { return ended_by_daemon(fd); });
		while (static_cast<int>(silent.size()) < connections)
			silent.push_back(connect_to(either(silent.size())));
	}
}

// And connects for nothing.
void send_halves()
{
	const std::string half(500, 'h');
	for (std::size_t i = 0;; i++)
		send_bytes(connect_to(either(i)), half.data(), i % 4 == 0 ? 0 : i % 3 == 0 ? 50 : 500);
}

void flood_unknown_numbers()
{
	vek_event event{};
	std::mt19937 random(7);
	for (;;) {
		const owned_fd notify = connect_to(VEK_ADDRESS_NOTIFY),
			       asking = connect_to(VEK_ADDRESS_REQUEST);
		for (int i = 0; i < 2000 && !ended_by_daemon(notify) && !ended_by_daemon(asking); i++) {
			event.event = static_cast<int>(random()) | 64; // none that is known
			const vek_request unknown = request(event.event);
			send_bytes(notify, &event, sizeof(event));
			send_bytes(asking, &unknown, sizeof(unknown));
		}
	}
}

// Asks, or subscribes, and never reads.
void never_read(int method)
{
	const vek_request record = request(method);
	for (;;) {
		const owned_fd fd = connect_to(VEK_ADDRESS_REQUEST);
		while (!ended_by_daemon(fd)) {
			send_bytes(fd, &record, sizeof(record));
			std::this_thread::sleep_for(method == VEK_LISTEN ? 100ms : 1ms);
		}
	}
}

void be_hostile(int silent)
{
	const std::function<void()> ways[] = {[=] { stay_silent(silent); },
					      send_halves,
					      flood_unknown_numbers,
					      [] { never_read(VEK_QUERY_ALL); },
					      [] { never_read(VEK_QUERY_ALL); },
					      [] { never_read(VEK_LISTEN); }};
	std::vector<std::jthread> threads;
	for (const auto &way : ways)
		threads.emplace_back([&way] {
			for (;;)
				try {
					way();
				} catch (const std::exception &) { // turned away: again
				}
		});
}

TEST_F(Hostile, NobodyHoldsAServiceUp)
{
	vekd.start({"-d"});
	auto reporter = std::make_unique<service>();
	fill(*reporter, 1000);
	// As a user without rights, or where there is none, as one who leaves some room.
	auto others = as_nobody([] { be_hostile(PLACES); });
	if (others == nullptr)
		others = std::make_unique<process>([] { be_hostile(PLACES / 2); });

	auto ask = std::make_unique<asker>();
	latencies waits;
	const double end = 1000.0 * setting("HOSTILE_SECONDS", 10);
	const auto start = steady::now();
	bool warm = false;
	for (int round = 0; ms_since(start) < end; round++) {
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
		const vek_event login =
		    notice(VEK_EVENT_USER_LOGIN, SERVICE_NAME_HTTP_HTTPS, user, user, ip4("10.9.9.9"));
		ASSERT_EQ(0, waits.measure([&] { return reporter->report(login); }));
		ASSERT_EQ(user, waits.measure([&] { return ask->only(user); }).unique);
		ASSERT_EQ(1001, waits.measure([&] { return ask->count(); }));
		for (int gone : {0, 1})
			ASSERT_EQ(gone,
				  waits.measure([&] { return reporter->logout(login.service, user, user); }));
		ASSERT_TRUE(waits.measure([&] { return ask->named(user); }).empty());
	}
	waits.print("beside hostile clients");
	EXPECT_LT(waits.worst(), 1500 * SLOWER);
	ASSERT_TRUE(alive(others->pid()));
	others.reset();
	EXPECT_GT(occurrences(vekd.output(), "did not read"), 2);
	// Nothing of them stays.
	reporter.reset();
	ask.reset();
	asker last;
	EXPECT_EQ(1000, last.count());
	EXPECT_TRUE(eventually([&] {
		last.count();
		return descriptors(vekd.pid()) < 16;
	}));
}

TEST_F(Hostile, SilentConnectionsShutServicesOutOnlyOfTheirKind)
{
	vekd.start();
	const auto crowd = as_nobody([] { stay_silent(PLACES + 50); });
	if (crowd == nullptr)
		GTEST_SKIP() << "no second user in this sandbox";
	ASSERT_TRUE(eventually([&] { return descriptors(vekd.pid()) >= 127; }));
	const auto plain = as_nobody([] {
		const vek_request count = request(VEK_QUERY_TOTAL_USER_NUM);
		const owned_fd fd = connect_to(VEK_ADDRESS_REQUEST);
		send_bytes(fd, &count, sizeof(count));
		_exit(read_to_end(fd).empty() ? 0 : 1);
	});
	EXPECT_EQ(0, plain->status()) << "turned away";
	// Services of user 0 get in, more of them than there ever were places left, and stay.
	std::vector<service> services;
	for (int i = 0; i < 40; i++)
		EXPECT_EQ(0, services.emplace_back().login(SERVICE_NAME_SSH, "root" + std::to_string(i)));
	for (std::size_t i = 0; i < 40; i++)
		EXPECT_EQ(0, services[i].logout(SERVICE_NAME_SSH, "root" + std::to_string(i)));
}

} // namespace
