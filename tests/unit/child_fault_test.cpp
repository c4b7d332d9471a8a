// child_fault_test.cpp: child processes that cannot be made. The daemon goes on with the status that its
// callers know, with the same descriptors and with its reaper at work.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <utility>

#include "child.h"
#include "faults.h"
#include "misc.h"
#include "rbtree.h"
#include "terminator.h"
#include "vek_event.h"

// What needs a child to read something, to end a session's processes or to make room is done without it.
TEST(FaultyChild, CannotBeMade)
{
	const char *const program[] = {"/bin/true", nullptr};
	vek_event logout = vek_new_event(VEK_EVENT_USER_LOGOUT);
	copy_text(logout.service, SERVICE_NAME_SSH);
	copy_text(logout.ssh_tty, "/dev/pts/1");
	rb_root = create_rbtree();
	fault fault{};
	const auto act = [&] {
		vek_pipe first, second;
		char line[16];
		for (vek_pipe *pipe : {&first, &second}) {
			const bool started = pipe->start("echo here");
			EXPECT_EQ(started, pipe->read_line(line, sizeof(line)));
		}
		EXPECT_EQ(VEK_CONTINUE_DISPATCH, terminator_clear_session(&logout, nullptr));
		kickout_not_in_redis_portal_user();
		const int made = vek_run(program);
		EXPECT_TRUE(made == 0 || made == (fault.error == EAGAIN ? -1 : 127 << 8)) << made;
	};
	const auto check = [](bool) {
		sigset_t mask;
		sigprocmask(SIG_BLOCK, nullptr, &mask);
		EXPECT_FALSE(sigismember(&mask, SIGCHLD)) << "the reaper is held";
		EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "a child is left over";
	};
	for (const bool lasting : {false, true})
		for (const auto &[call, error] : {std::pair("posix_spawn", EAGAIN),
						  {"posix_spawn", ENOENT},
						  {"pipe2", EMFILE},
						  {"open", EMFILE}}) {
			fault = {call, error, lasting};
			exhaust(
			    fault, [] {}, act, check);
		}
}
