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
