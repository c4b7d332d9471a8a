// dispatch_test.cpp: how work reaches its handlers: the select loop, with what callbacks may do to the pass
// they run in, how long it waits for clients, and the clock; and what log messages do that events do not
// make. The rest is the model's.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <utility>

#include "child.h"
#include "core.h"
#include "faults.h"
#include "sock_event.h"
#include "vek_event.h"
#include "veklog.h"

namespace {

std::string trace;          // of the select loop: "r" or "w" and the data's letter, per callback
std::function<void()> on_a; // done once, when "a" is read

void note(char what, void *data)
{
	trace += what;
	trace += static_cast<char *>(data);
	if (trace.ends_with("ra") && on_a)
		std::exchange(on_a, nullptr)();
}

sock_event callbacks = {[](int, void *data) { note('w', data); }, [](int, void *data) { note('r', data); },
			[](int) { return -7; }};

std::string pass(int result = 0)
{
	trace.clear();
	EXPECT_EQ(result, vek_sock_event_loop(&callbacks));
	return trace;
}

struct SockEvent : testing::Test {
	SockEvent() { vek_init_sock_event(); }
	// Registers what can always be read and written, and stays open until the program ends.
	static int add(const char *name, int rw = FD_READ, int fd = eventfd(1, EFD_CLOEXEC))
	{
		EXPECT_EQ(0, vek_sock_event_add_fd(fd, rw, const_cast<char *>(name)));
		return fd;
	}
};

TEST_F(SockEvent, CallsInOrderOfRegistrationUntilOneIsDeleted)
{
	const int first = add("a"), writer = add("b", FD_WRITE);
	add("c");
	const int high = add("d", FD_READ, fcntl(first, F_DUPFD, 100));
	for (int fd : {-1, 128, 1 << 30, first}) // the last is there already
		EXPECT_EQ(-1, vek_sock_event_add_fd(fd, FD_READ, nullptr)) << fd;
	EXPECT_EQ("rawbrcrd", pass());
	vek_sock_event_del_fd(first); // the last one takes its place
	EXPECT_EQ("rdwbrc", pass());
	vek_sock_event_del_fd(writer);
	vek_sock_event_del_fd(high);
	close(high);
	EXPECT_EQ("rc", pass());
	add("d", FD_READ, high);
	EXPECT_EQ("", pass(-7)) << "a closed one is an error";
}

TEST_F(SockEvent, WhatACallbackDeletesOrAddsWaitsForTheNextPass)
{
	const int first = add("a"), second = add("b");
	add("c");
	on_a = [&] { // the same number is another connection
		vek_sock_event_del_fd(second);
		add("d", FD_READ, second);
	};
	EXPECT_EQ("rarc", pass());
	on_a = [&] {
		vek_sock_event_del_fd(second);
		vek_sock_event_del_fd(first); // its own, too
		add("b");
	};
	EXPECT_EQ("rarc", pass());
	EXPECT_EQ("rcrb", pass());
}

// One pass of the main loop, as far as clients go.
void pass_of_clients()
{
	vek_begin_pass();
	vek_sock_event_limit_wait(0);
	vek_sock_event_loop(&vek_skevent);
}

void put(const client &from, const void *record, std::size_t size)
{
	send(from.sock()->pid, record, size, 0); // and nobody serves it yet
}

void report(const client &from, const char *user)
{
	const vek_event event = make_event(VEK_EVENT_UPDATE_ACCOUNTING_STATUS, {"", user});
	put(from, &event, sizeof(event));
}

std::string handled; // reports, by their users

struct Fairness : testing::Test {
	Fairness()
	{
		handled.clear();
		vek_register_event(VEK_EVENT_UPDATE_ACCOUNTING_STATUS, 0, [](vek_event *event, vek_socket *) {
			vek_run_shell("a tool");
			handled += event->username;
			return VEK_STOP_DISPATCH;
		});
		for (client &other : others)
			other.reads = false;
	}
	~Fairness() override { clock_ms += 1000; } // nothing is held any more
	core running;
	client others[10];
	client reporters[3] = {client(VEK_SOCKTYPE_NOTIFY), client(VEK_SOCKTYPE_NOTIFY),
			       client(VEK_SOCKTYPE_NOTIFY)};
};

TEST_F(Fairness, ReportsThatRunToolsTakeTurnsAndAreNotOvertaken)
{
	fake.tool_ms = 30;
	reporters[2].sock()->uid = 0;
	for (int i = 0; i < 3; i++)
		report(reporters[i], i == 0 ? "a" : i == 1 ? "b" : "S");
	pass_of_clients();
	EXPECT_EQ("aS", handled) << "only the unprivileged have turns";
	EXPECT_FALSE(vek_catch_up()) << "a due logout and the tick wait for b";
	report(reporters[0], "c");
	pass_of_clients();
	EXPECT_EQ("aSb", handled.substr(0, 3)) << "the longest waiting first";
	while (!vek_catch_up())
		pass_of_clients();
	fake.tool_ms = 0;
	pass_of_clients();
	report(reporters[0], "d");
	EXPECT_TRUE(vek_catch_up());
	EXPECT_EQ("aSbcd", handled) << "what lies in a socket comes before the tick";
}

TEST_F(Fairness, ReportsWaitForASubscriberThatReadsAndForNoOther)
{
	client &subscriber = others[0];
	subscriber.sock()->uid = 0;
	vek_event copy = make_event(VEK_EVENT_APP_LISTEN);
	vek_dispatch_event(&copy, subscriber.sock());
	copy.event = VEK_EVENT_USER_SOCIAL_LOGIN_STAGE2;
	for (int i = 0; i < 700; i++)
		vek_dispatch_event(&copy, nullptr);
	if (!stream_gives_deep_buffers())
		GTEST_SKIP() << "this system gives no deep buffers";
	report(reporters[0], "a");
	pass_of_clients();
	EXPECT_EQ("", handled);
	clock_ms += 41;
	pass_of_clients();
	pass_of_clients();
	EXPECT_EQ("a", handled) << "it waits for a moment only";
	vek_dispatch_event(&copy, nullptr);
	clock_ms += 300; // in which the subscriber reads nothing
	vek_dispatch_event(&copy, nullptr);
	report(reporters[0], "b");
	pass_of_clients();
	EXPECT_EQ("ab", handled);
}

TEST_F(Fairness, LongAnswersWaitForBuffersOfThoseWhoRead)
{
	for (int i = 0; i < VEK_MAX_USERS; i++)
		dispatch(VEK_EVENT_USER_LOGIN, {"http/https", "bob"});
	const std::size_t whole = sizeof(vek_event) + VEK_MAX_USERS * sizeof(user_info);
	const vek_request everybody{VEK_QUERY_ALL, {}, 0};
	for (const client &other : others)
		put(other, &everybody, sizeof(everybody));
	pass_of_clients();
	if (!stream_gives_deep_buffers())
		GTEST_SKIP() << "this system gives no deep buffers";
	EXPECT_EQ(vek_waits::for_a_buffer, others[8].sock()->waits) << "eight are lent";
	EXPECT_EQ(vek_waits::for_a_buffer, others[9].sock()->waits);
	others[0].reads = others[8].reads = others[9].reads = true;
	EXPECT_EQ(whole, others[0].take().size());
	for (int i = 0; i < 3; i++)
		pass_of_clients();
	EXPECT_EQ(whole, others[8].take().size()) << "has the buffer of the one who has read";
	for (int tick = 0; tick < 2; tick++) {
		put(others[0], &everybody, sizeof(everybody)); // somebody always waits
		vek_tick_endpoints();
		pass_of_clients();
	}
	for (int i = 0; i < 3; i++)
		pass_of_clients();
	EXPECT_EQ(whole, others[9].take().size());
	EXPECT_EQ(nullptr, others[1].sock()) << "who read nothing from one tick to the next is shut down";
	for (client &other : others)
		other.reads = true;
}

TEST(Clock, Ticks)
{
	core running;
	const vek_event_handler note_tick = [](vek_event *event, vek_socket *) {
		trace += event->event == VEK_EVENT_TIMER_SECOND ? 's' : 'T';
		return VEK_CONTINUE_DISPATCH;
	};
	for (int number : {VEK_EVENT_TIMER_SECOND, VEK_EVENT_TIMER_10SECONDS})
		EXPECT_EQ(0, vek_register_event(number, 9, note_tick));
	for (int call = 1; call <= 363; ++call) {
		trace.clear();
		seconds_since_boot = 5000000000;
		vek_tick();
		EXPECT_EQ(call % 11 ? "s" : "sT", trace) << call;
		EXPECT_EQ(call % 181 == 1, seconds_since_boot != 5000000001) << call << ": asked the system";
	}
}

TEST(Log, LongTextIsCutOrDroppedAndDebugModePrintsIt)
{
	core running;
	const std::string text(2000, 'x');
	VEK_ALERT(1, 2, text.c_str(), "%s", text.c_str());
	EXPECT_EQ(text.substr(0, 1023), fake.logs.at(0).entry.message);
	EXPECT_EQ("Account: " + text.substr(0, 22), fake.logs.at(0).entry.note);
	EXPECT_EQ(-1, VEK_LOG6(&in6addr_any, &in6addr_any, "u", "%.1024s", text.c_str()));
	EXPECT_EQ(7, VEK_LOG6(&in6addr_any, &in6addr_any, "u", "%.1023s", text.c_str())) << "the platform's";
	debug = 1;
	testing::internal::CaptureStderr();
	dispatch(VEK_EVENT_USER_SOCIAL_LOGIN_STAGE2, {"ssh", "%s%n\n\x1b[2J", "", ip4("10.0.0.1")});
	debug = 0;
	EXPECT_EQ("logger_handle_login: User 10.0.0.1: User %s%n??[2J ssh login.\n",
		  testing::internal::GetCapturedStderr());
}

} // namespace
