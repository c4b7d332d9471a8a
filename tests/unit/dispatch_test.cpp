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

TEST(Wait, IsRationedByPassesApartForServicesAndOthers)
{
	core running;
	for (int i = 0; i < VEK_MAX_USERS; i++)
		dispatch(VEK_EVENT_USER_LOGIN, {"http/https", "bob"});
	// For one that asks for everything and reads nothing: how long.
	const auto wait_for = [](uid_t user, client &silent) {
		silent.reads = false;
		silent.sock()->uid = user;
		const std::int64_t before = clock_ms;
		vek_event query = make_event(VEK_EVENT_APP_QUERY_ALL);
		vek_dispatch_event(&query, silent.sock());
		return clock_ms - before;
	};
	client others[5], services[3];
	vek_begin_pass();
	EXPECT_EQ(500, wait_for(1, others[0]));
	EXPECT_EQ(0, wait_for(1, others[1]));
	vek_begin_pass();
	EXPECT_EQ(100, wait_for(1, others[2]));
	clock_ms += 1000;
	vek_begin_pass();
	EXPECT_EQ(250, wait_for(1, others[3])) << "a quarter has grown back";
	EXPECT_EQ(500, wait_for(0, services[0]));
	EXPECT_EQ(0, wait_for(0, services[1]));

	clock_ms += 2000;
	vek_begin_pass();
	// There is room at once, and still nothing is sent, which takes its time.
	inject({"send", ENOBUFS, true, [] { clock_ms++; }}, 1);
	EXPECT_NEAR(500, wait_for(0, services[2]), 20) << "and once for each further part";
	EXPECT_TRUE(heal());
}

TEST(Wait, IsShortForServicesBesideLongReportsOfOthers)
{
	static std::string handled;
	handled.clear();
	core running;
	vek_register_event(VEK_EVENT_UPDATE_ACCOUNTING_STATUS, 0, [](vek_event *event, vek_socket *) {
		clock_ms += 12;
		handled += event->username;
		return VEK_STOP_DISPATCH;
	});
	client clients[] = {client(VEK_SOCKTYPE_NOTIFY), client(VEK_SOCKTYPE_NOTIFY),
			    client(VEK_SOCKTYPE_NOTIFY), client(VEK_SOCKTYPE_NOTIFY),
			    client(VEK_SOCKTYPE_NOTIFY)};
	const char *const names[] = {"a", "b", "c", "d", "S"};
	clients[4].sock()->uid = 0;
	for (int i = 0; i < 5; i++) {
		const vek_event report = make_event(VEK_EVENT_UPDATE_ACCOUNTING_STATUS, {"", names[i]});
		send(clients[i].sock()->pid, &report, sizeof(report), 0);
	}
	const auto pass = [&] {
		vek_begin_pass();
		for (const client &client : clients) {
			vek_socket *sock = client.sock();
			int waiting;
			if (ioctl(sock->fd, FIONREAD, &waiting) == 0 && waiting > 0)
				vek_sock_event_read(sock->fd, sock);
		}
		return std::exchange(handled, {});
	};
	EXPECT_EQ("abS", pass());
	EXPECT_EQ("cd", pass()) << "who was put off first has his turn first";
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
