// bus_test.cpp: the event bus: order of the chains, what ends a dispatch, what is rejected.
#include <gtest/gtest.h>

#include "vek_event.h"

namespace {

std::string trace;

template <char Name, int Result> int handler(vek_event *, vek_socket *)
{
	trace += Name;
	return Result;
}

// Who was called, and the result.
std::string run(int number)
{
	trace.clear();
	vek_event event{};
	event.event = number;
	const int result = vek_dispatch_event(&event, nullptr);
	return trace + " " + std::to_string(result);
}

struct Bus : testing::Test {
	void SetUp() override { vek_init_event(); }
	void TearDown() override { vek_fini_event(); }
};

TEST_F(Bus, OrdersByPriorityThenByRegistrationUntilOneStops)
{
	const vek_registration table[] = {{5, 2, handler<'A', 0>},  {5, 1, handler<'B', -1>},
					  {5, 2, handler<'C', 1>},  {5, 0, handler<'D', 2>},
					  {5, -7, handler<'E', 0>}, {5, 9, handler<'G', 0>},
					  {7, 1, handler<'H', 2>}};
	EXPECT_EQ(0, vek_register_events(table, "no\n"));
	EXPECT_EQ("EDBAC 1", run(5));
	EXPECT_EQ("H 0", run(7));
	EXPECT_EQ(" 0", run(13));
	vek_unregister_event(5, handler<'H', 2>);
	vek_register_event(5, 3, handler<'D', 2>);
	vek_unregister_event(5, handler<'C', 1>);
	EXPECT_EQ("EDBADG 0", run(5));
	vek_unregister_event(5, handler<'D', 2>); // the first node only
	EXPECT_EQ("EBADG 0", run(5));
	vek_fini_event();
	EXPECT_EQ(" 0", run(5));
}

TEST_F(Bus, RejectsNumbersWithoutAChain)
{
	for (int number : {-1, +VEK_EVENT_LIMIT, 1 << 30, -(1 << 30)}) {
		EXPECT_EQ(-1, vek_register_event(number, 1, handler<'x', 1>)) << number;
		vek_unregister_event(number, handler<'x', 1>);
		EXPECT_EQ(" 0", run(number)) << number;
	}
	for (int number = 0; number < VEK_EVENT_LIMIT; ++number)
		EXPECT_EQ(" 0", run(number));
	const vek_registration table[] = {
	    {38, 1, handler<'a', 0>}, {39, 1, handler<'b', 0>}, {37, 1, handler<'c', 0>}};
	testing::internal::CaptureStderr();
	EXPECT_EQ(-1, vek_register_events(table, "Can't!\n"));
	EXPECT_EQ("Can't!\n", testing::internal::GetCapturedStderr());
	EXPECT_EQ("a 0", run(38));
	EXPECT_EQ(" 0", run(37));
}

TEST_F(Bus, AHandlerMayDispatchAndLaterOnesSeeItsChanges)
{
	vek_register_event(1, 1, [](vek_event *event, vek_socket *) {
		vek_event inner{};
		inner.event = 2;
		trace += vek_dispatch_event(&inner, nullptr) ? 's' : 'c';
		event->count = inner.count;
		return VEK_CONTINUE_DISPATCH;
	});
	vek_register_event(2, 1, [](vek_event *event, vek_socket *) {
		event->count = 7;
		return VEK_STOP_DISPATCH;
	});
	vek_register_event(1, 2, [](vek_event *event, vek_socket *) {
		trace += std::to_string(event->count);
		return VEK_CONTINUE_DISPATCH;
	});
	EXPECT_EQ("s7 0", run(1));
}

} // namespace
