// clients_test.cpp: clients that read late, slowly or never, and what that costs the others: about a second
// of waiting, and nobody's data.
#include "driver.h"

#include <algorithm>
#include <atomic>

namespace {

using SlowClients = on_device;

constexpr double ABOUT_A_SECOND = 1500 * SLOWER; // milliseconds, with what the machine adds

// What came for queries for everybody: whole answers, at most the last of them short.
void expect_answers(const std::string &stream)
{
	std::size_t at = 0;
	const auto take = [&](auto &record) {
		const bool whole = stream.size() - at >= sizeof(record);
		if (whole)
			std::memcpy(&record, stream.data() + std::exchange(at, at + sizeof(record)),
				    sizeof(record));
		return whole;
	};
	vek_event header;
	user_info session;
	while (take(header)) {
		ASSERT_EQ(VEK_EVENT_QUERY_RESULT, header.event) << "at byte " << at;
		ASSERT_NEAR(VEK_MAX_USERS, header.count, 1);
		for (int i = 0; i < header.count && take(session); i++)
			ASSERT_STREQ(SERVICE_NAME_HTTP_HTTPS, session.service) << "record " << i;
	}
}

TEST_F(SlowClients, AreShutDownWhileOthersAreServed)
{
	vekd.start({"-d"});
	service reporter;
	fill(reporter, VEK_MAX_USERS);

	const vek_request listen = request(VEK_LISTEN), everything = request(VEK_QUERY_ALL);
	const owned_fd stalled_subscriber = connect_to(VEK_ADDRESS_REQUEST);
	send_bytes(stalled_subscriber, &listen, sizeof(listen));
	std::vector<owned_fd> askers;
	for (int i = 0; i < 4; i++) {
		askers.push_back(connect_to(VEK_ADDRESS_REQUEST));
		for (int j = 0; j < 4; j++)
			send_bytes(askers.back(), &everything, sizeof(everything));
	}
	// Three of the askers read, a little at a time.
	std::atomic<bool> over = false;
	std::vector<std::string> dripped(3);
	std::vector<std::thread> readers;
	for (std::size_t i = 0; i < dripped.size(); i++)
		readers.emplace_back([&, i] {
			char part[4096];
			for (ssize_t got; !over && (got = recv(askers[i], part, sizeof(part), 0)) > 0;) {
				dripped[i].append(part, static_cast<std::size_t>(got));
				std::this_thread::sleep_for(10ms);
			}
		});

	latencies waits;
	asker ask;
	const auto start = steady::now();
	const auto all_ended = [&] {
		return ended_by_daemon(stalled_subscriber) && std::ranges::all_of(askers, ended_by_daemon);
	};
	while (!all_ended() && ms_since(start) < 1000 * LIMIT / 1s) {
		const auto u0001 = [&](int number) {
			return waits.measure([&] {
				return reporter.report(notice(number, SERVICE_NAME_HTTP_HTTPS, "u0001"));
			});
		};
		ASSERT_EQ(0, u0001(VEK_EVENT_USER_LOGOUT));
		ASSERT_EQ(VEK_MAX_USERS - 1, waits.measure([&] { return ask.count(); }));
		ASSERT_EQ(0, u0001(VEK_EVENT_USER_LOGIN));
	}
	EXPECT_TRUE(all_ended());
	waits.print("beside stalled clients");
	EXPECT_LT(waits.worst(), ABOUT_A_SECOND);
	over = true;
	for (std::thread &reader : readers)
		reader.join();
	for (std::size_t i = 0; i < askers.size(); i++)
		expect_answers((i < dripped.size() ? dripped[i] : "") + read_to_end(askers[i]));
	EXPECT_EQ(0u, read_to_end(stalled_subscriber).size() % sizeof(vek_event)) << "a copy came in part";

	EXPECT_EQ(5, occurrences(vekd.output(), "shut down request connection")) << "each said once";
}

TEST_F(SlowClients, BurstArrivesAtALateReader)
{
	constexpr int BURST = 500;
	vekd.start();
	service reporter;
	subscriber copies;
	for (int i = 0; i < BURST; i++)
		ASSERT_EQ(0, reporter.login(SERVICE_NAME_HTTP_HTTPS, "crowd", std::to_string(i)));
	for (int i = 0; i < BURST; i++)
		copies.next();
	// All of them in one dispatch. The reader wakes up in the middle of it.
	std::thread late([&] {
		eventually([&] { return copies.pending(); });
		std::this_thread::sleep_for(200ms);
		for (int i = 0; i < BURST; i++)
			EXPECT_EQ(std::to_string(i), copies.next().unique);
	});
	EXPECT_EQ(1, reporter.report(notice(VEK_EVENT_WEB_USER_LOGOUT, "", "crowd")));
	late.join();
	EXPECT_FALSE(copies.pending());
}

TEST_F(SlowClients, NobodyInheritsASubscription)
{
	vekd.start();
	service reporter;
	const vek_request listen = request(VEK_LISTEN);
	{
		const owned_fd twice = connect_to(VEK_ADDRESS_REQUEST);
		for (int i = 0; i < 2; i++)
			send_bytes(twice, &listen, sizeof(listen));
		vekd.settle(4); // it is accepted, and read twice
		reporter.login(SERVICE_NAME_HTTP_HTTPS, "bob");
		vek_event copy[3];
		EXPECT_EQ(static_cast<ssize_t>(2 * sizeof(vek_event)),
			  recv(twice, copy, sizeof(copy), MSG_DONTWAIT));
	}
	vekd.settle(); // its end is read: the next connection gets its descriptor
	asker heir;
	heir.count();
	EXPECT_EQ(0, reporter.logout(SERVICE_NAME_HTTP_HTTPS, "bob"));
	char byte;
	EXPECT_EQ(-1, recv(heir.fd(), &byte, 1, MSG_DONTWAIT)) << "a copy that nobody asked for";
	EXPECT_EQ(0, heir.count());
}

} // namespace
