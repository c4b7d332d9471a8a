// sock_event_test.cpp: the select loop: what may be registered, and what callbacks may do to the pass they
// run in.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <map>
#include <thread>
#include <tuple>
#include <utility>

#include "sock_event.h"

namespace {

std::string trace; // "r" or "w" and the data's letter, per callback
std::function<void(int)> on_read;
int error_result;

void note(char what, int fd, void *data)
{
	trace += what;
	if (data != nullptr)
		trace += *static_cast<const char *>(data);
	if (what == 'r' && on_read)
		on_read(fd);
}

sock_event callbacks = {[](int fd, void *data) { note('w', fd, data); },
			[](int fd, void *data) { note('r', fd, data); },
			[](int result) {
				error_result = result;
				return -7;
			}};

std::string pass()
{
	trace.clear();
	EXPECT_EQ(0, vek_sock_event_loop(&callbacks));
	return trace;
}

char letter[] = "abcdefgh";

struct SockEvent : testing::Test {
	void SetUp() override
	{
		vek_init_sock_event();
		on_read = nullptr;
	}
	void TearDown() override
	{
		for (auto [fd, peer] : pairs) {
			close(fd);
			close(peer);
		}
	}
	// A registered connection; ready for reading when asked.
	int add(char *name, bool ready = true, int rw = FD_READ)
	{
		int ends[2];
		EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
		pairs[ends[0]] = ends[1];
		EXPECT_EQ(ready, ready && write(ends[1], "x", 1) == 1);
		EXPECT_EQ(0, vek_sock_event_add_fd(ends[0], rw, name));
		return ends[0];
	}
	std::map<int, int> pairs;
};

TEST_F(SockEvent, RejectsWhatCannotBeWatched)
{
	for (auto [fd, rw, result] : {std::tuple(128, +FD_READ, -1),
				      {-1, FD_READ, -1},
				      {1 << 30, FD_READ, -1},
				      {3, 2, -1},
				      {3, -1, -1},
				      {3, FD_READ, 0},
				      {3, FD_WRITE, -1},
				      {127, FD_WRITE, 0}})
		EXPECT_EQ(result, vek_sock_event_add_fd(fd, rw, nullptr)) << fd << ' ' << rw;
	for (int fd = 0; fd < 127; ++fd)
		EXPECT_EQ(fd == 3 ? -1 : 0, vek_sock_event_add_fd(fd, FD_READ, nullptr)) << fd;
	EXPECT_EQ(-1, vek_sock_event_add_fd(128, FD_READ, nullptr)); // all 128 there
	EXPECT_EQ(0, vek_sock_event_del_fd(3));
	for (int fd : {-1, 3, 128, 1 << 30})
		EXPECT_EQ(-1, vek_sock_event_del_fd(fd)) << fd;
}

TEST_F(SockEvent, CallsInOrderOfRegistrationUntilOneIsDeleted)
{
	const int first = add(letter), writer = add(letter + 1, false, FD_WRITE);
	add(letter + 2);
	const int last = add(letter + 3);
	EXPECT_EQ("rawbrcrd", pass());
	vek_sock_event_del_fd(first); // the last one takes its place
	EXPECT_EQ("rdwbrc", pass());
	vek_sock_event_del_fd(writer);
	vek_sock_event_del_fd(last);
	EXPECT_EQ("rc", pass());
}

TEST_F(SockEvent, WhatACallbackDeletesOrAddsWaitsForTheNextPass)
{
	const int first = add(letter), second = add(letter + 1);
	add(letter + 2);
	std::function<void()> act;
	on_read = [&](int fd) {
		if (fd == first)
			std::exchange(act, [] {})();
	};
	act = [&] { // the same number is another connection
		vek_sock_event_del_fd(second);
		EXPECT_EQ(0, vek_sock_event_add_fd(second, FD_READ, letter + 3));
	};
	EXPECT_EQ("rarc", pass());
	EXPECT_EQ("rarcrd", pass());
	act = [&] { add(letter + 4); };
	EXPECT_EQ("rarcrd", pass());
	act = [&] {
		vek_sock_event_del_fd(second);
		vek_sock_event_del_fd(first); // its own, too
	};
	EXPECT_EQ("rarcre", pass());
	EXPECT_EQ("rerc", pass());
}

TEST_F(SockEvent, TheHighestDescriptorIsFollowed)
{
	const int low = add(letter);
	const int high = fcntl(low, F_DUPFD, 100);
	ASSERT_EQ(0, vek_sock_event_add_fd(high, FD_READ, letter + 1));
	EXPECT_EQ("rarb", pass());
	vek_sock_event_del_fd(low); // not the highest
	EXPECT_EQ("rb", pass());
	vek_sock_event_del_fd(high);
	close(high); // still waited for, it would be an error
	ASSERT_EQ(0, vek_sock_event_add_fd(low, FD_READ, letter));
	EXPECT_EQ("ra", pass());
	EXPECT_EQ(0, vek_sock_event_add_fd(high, FD_READ, nullptr));
	EXPECT_EQ(-7, vek_sock_event_loop(&callbacks)); // a closed one is one
	EXPECT_EQ(-1, error_result);
}

TEST_F(SockEvent, ASignalEndsThePassAtOnceWithoutCallbacks)
{
	struct sigaction action {
	}, old{};
	action.sa_handler = [](int) {};
	sigaction(SIGALRM, &action, &old);
	const int peer = pairs[add(letter, false)];
	// The signal reaches the wait whenever it begins; the data comes only with it.
	std::atomic<bool> over = false;
	std::thread alarm([&over, self = pthread_self()] {
		while (!over) {
			pthread_kill(self, SIGALRM);
			sched_yield();
		}
	});
	const auto begin = std::chrono::steady_clock::now();
	EXPECT_EQ("", pass());
	EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(900));
	over = true;
	alarm.join();
	sigaction(SIGALRM, &old, nullptr);
	EXPECT_EQ(1, write(peer, "x", 1));
	EXPECT_EQ("ra", pass());
}

} // namespace
