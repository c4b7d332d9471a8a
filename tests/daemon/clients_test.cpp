// clients_test.cpp: clients that send what is no record, that read late, slowly or never, and what that costs
// the others: about a second of waiting, and nobody's data.
#include "driver.h"

#include <algorithm>
#include <climits>

namespace {

using BadInput = on_device;
using SlowClients = on_device;

// Half a record ends a connection. On the one returned, numbers that nobody may send got no answer.
template <class T>
raw after_bad_numbers(vek_client *(*open)(int), T record, std::initializer_list<int> numbers)
{
	raw half(open), fed(open);
	half.write(record, sizeof(record) - 1);
	EXPECT_EQ("", half.read());
	EXPECT_TRUE(half.ended());
	for (const int number : numbers) {
		std::memcpy(static_cast<void *>(&record), &number,
			    sizeof(number)); // both kinds begin with it
		fed.write(record);
	}
	return fed;
}

TEST_F(BadInput, RecordsThatAreNone)
{
	vekd.start();
	const std::string success(sizeof(vek_response), '\0');
	vek_event event = notice(VEK_EVENT_USER_LOGIN, SERVICE_NAME_SSH, "bob\n<25>eve\x1b[2J");
	raw reporting = after_bad_numbers(vek_client_open_notify, event,
					  {0, 6, 9, 12, 18, 23, 31, 33, 39, -1, INT_MIN, INT_MAX});
	reporting.write(event);
	EXPECT_EQ(success, reporting.read(success.size())) << "the only answer";
	EXPECT_TRUE(logged("User bob\\x0a<25>eve\\x1b[2J ssh login.")) << "a name forges no line";

	// Text without an end.
	std::memset(static_cast<void *>(&event), 'A', sizeof(event));
	event.event = VEK_EVENT_USER_LOGIN;
	event.type = USER_TYPE;
	event.event_flag = 0;
	event.define_name[0] = '\0';
	reporting.write(event);
	EXPECT_EQ(success, reporting.read(success.size()));
	EXPECT_TRUE(logged("User " + std::string(63, 'A') + " " + std::string(31, 'A') + " login."));

	vek_request request{VEK_QUERY_NAME, {}, 0};
	raw asking = after_bad_numbers(vek_client_open_request, request, {0, 7, -1, INT_MIN, INT_MAX});
	std::memset(request.u.username, 'B', sizeof(request.u.username));
	asking.write(request);
	const std::string answer = asking.read(sizeof(event));
	EXPECT_EQ(1, occurrences(answer, std::string(63, 'B') + '\0')) << "of the whole name's length";
}

TEST_F(SlowClients, AreShutDownWhileOthersAreServed)
{
	vekd.start("-d");
	service reporter;
	reporter.fill(VEK_MAX_USERS);
	std::vector<raw> slow; // a subscriber and four who ask for everything
	for (int method : {VEK_LISTEN, VEK_QUERY_ALL, VEK_QUERY_ALL, VEK_QUERY_ALL, VEK_QUERY_ALL}) {
		slow.emplace_back(vek_client_open_request);
		for (int i = 0; i < (method == VEK_LISTEN ? 1 : 4); i++)
			slow.back().write(vek_request{method, {}, 0});
	}
	// Three of them read, a little at a time.
	std::vector<std::jthread> readers;
	for (std::size_t i = 1; i < 4; i++)
		readers.emplace_back([&, i](const std::stop_token &over) {
			for (; !over.stop_requested() && !slow[i].ended(); std::this_thread::sleep_for(10ms))
				slow[i].read(4096);
		});
	latencies waits;
	asker ask;
	const auto report = [&](int number) {
		const vek_event event = notice(number, SERVICE_NAME_HTTP_HTTPS, "1");
		return waits.measure([&] { return reporter.report(event); });
	};
	EXPECT_TRUE(eventually([&] {
		EXPECT_EQ(0, report(VEK_EVENT_USER_LOGOUT));
		EXPECT_EQ(VEK_MAX_USERS - 1, waits.measure([&] { return ask.count(); }));
		EXPECT_EQ(0, report(VEK_EVENT_USER_LOGIN));
		return std::ranges::all_of(slow, &raw::ended);
	}));
	waits.print("beside stalled clients");
	EXPECT_LT(waits.percentile(1), 1500 * SLOWER);
	readers.clear();
	EXPECT_EQ(5, vekd.said("shut down request connection")) << "each said once";
	EXPECT_EQ(0u, slow[0].read().size() % sizeof(vek_event)) << "a copy came in part";
}

TEST_F(SlowClients, BurstArrivesAtALateReader)
{
	constexpr int BURST = 500;
	vekd.start();
	service reporter;
	subscriber copies;
	for (int i = 0; i < BURST; i++) {
		ASSERT_EQ(0, reporter.login(SERVICE_NAME_HTTP_HTTPS, "crowd", std::to_string(i)));
		copies.next();
	}
	// All of them in one dispatch. The reader wakes up in the middle of it.
	std::jthread late([&] {
		eventually([&] { return copies.pending(); });
		std::this_thread::sleep_for(200ms);
		for (int i = 0; i < BURST; i++)
			EXPECT_EQ(std::to_string(i), copies.next().unique);
	});
	EXPECT_EQ(1, reporter.report(notice(VEK_EVENT_WEB_USER_LOGOUT, "", "crowd")));
}

} // namespace
