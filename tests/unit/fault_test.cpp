// fault_test.cpp: the daemon's core while memory, descriptors, shared blocks and locks run out on the way
// from a client's connection to its session and its answer, and at the start: what was going on happens whole
// or not at all, everything is as the invariants say, and the next time it works.
#include <gtest/gtest.h>

#include <sys/select.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "core.h"
#include "faults.h"
#include "init.h"
#include "listener.h"
#include "misc.h"

namespace {

constexpr keys ALICE{"captive portal", "alice", "1", 7};
constexpr fault NO_MEMORY{"alloc", ENOMEM};

void clean() { EXPECT_EQ("", check_invariants()); }

TEST(Fault, LoginIsWholeOrRefusedAndAlwaysEnds)
{
	core running;
	fake.mode = WHOPMODE_CLOUD;
	dispatch(VEK_EVENT_USER_LOGIN, {"ssh", "bob", "2", 8}); // the indexes are not empty
	vek_event login = make_event(VEK_EVENT_USER_LOGIN, ALICE);
	login.session_timeout = 60;
	for (const int end : {VEK_EVENT_USER_LOGOUT, VEK_EVENT_WEB_USER_LOGOUT, VEK_EVENT_TIMER_SECOND}) {
		int result = 0;
		const auto check = [&](bool failed) {
			clean();
			EXPECT_TRUE(failed || result == 0);
			EXPECT_EQ(result == 0 ? 1 : 0,
				  find_user_list("captive portal", "alice", 7, nullptr, "1", 0));
			EXPECT_EQ(result == 0, announced.size() == 1) << "nobody hears of a refusal";
			seconds_since_boot += 60;
			inject(NO_MEMORY, 1);
			dispatch(end, end == VEK_EVENT_TIMER_SECOND ? keys{} : keys{.user = "alice"});
			EXPECT_FALSE(heal()) << "a session's end needs no memory";
			EXPECT_EQ(1, vek_users);
			EXPECT_EQ(1, find_user_list("ssh", "bob", 8, nullptr, "2", 0));
		};
		exhaust(
		    NO_MEMORY, [] { announced.clear(); }, [&] { result = dispatch(login); }, check);
	}
}

TEST(Fault, SubscriptionsAndRoamingHappenOrDoNot)
{
	core running;
	client subscriber;
	int result = 0;
	exhaust(
	    NO_MEMORY, [] {}, [&] { result = dispatch(VEK_EVENT_APP_LISTEN, {}, subscriber.sock()); },
	    [&](bool failed) {
		    EXPECT_EQ(failed, result == VEK_STOP_DISPATCH);
		    EXPECT_EQ(failed, vek_listener_list.empty());
	    });
	listener_forget(subscriber.sock());

	const auto prepare = [] {
		end_all();
		for (const char *key : {"2", "1"}) // on one ring, of which the older one moves
			dispatch(VEK_EVENT_USER_LOGIN, {"ssh", key[0] == '1' ? "bob" : "alice", key, 7});
	};
	const auto move = [] { dispatch(VEK_EVENT_UPDATE_ROAMING_STA_IP, {.user = "alice", .ip = 9}); };
	exhaust(NO_MEMORY, prepare, move, [](bool failed) {
		clean();
		EXPECT_EQ(failed ? 2 : 1, find_user_list("", "", 7, nullptr, "", 0));
		EXPECT_EQ(failed ? 0 : 1, find_user_list("", "alice", 9, nullptr, "2", 0));
	});
}

// A socket of the daemon that clients connect to.
struct endpoint {
	const char *path;
	int *fd;

	endpoint(const char *where, int *listening) : path(where), fd(listening)
	{
		*fd = vek_bind_unix_address(path);
		vek_sock_event_add_fd(*fd, FD_READ, nullptr);
	}
	~endpoint()
	{
		vek_sock_event_del_fd(*fd);
		close(*fd);
		*fd = -1;
		unlink(path);
	}
	// A client that connects and says this; its descriptor.
	template <class... Records> int visit(const Records &...records) const
	{
		const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
		sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
		copy_text(address.sun_path, path);
		EXPECT_EQ(0, connect(client, reinterpret_cast<const sockaddr *>(&address), sizeof(address)));
		(static_cast<void>(!write(client, &records, sizeof(records))),
		 ...); // and not send, which may fail
		return client;
	}
};

// As many passes of the main loop as whatever clients have sent needs: accept, records, end.
void passes()
{
	for (int i = 0; i < 6; i++) {
		vek_begin_pass();
		EXPECT_EQ(0, vek_sock_event_loop(&vek_skevent));
	}
}

// A pass never waits.
extern "C" int __real_select(int count, fd_set *read, fd_set *write, fd_set *except, timeval *limit);
extern "C" int __wrap_select(int count, fd_set *read, fd_set *write, fd_set *except, timeval *)
{
	timeval none{};
	return __real_select(count, read, write, except, &none);
}

// The way in: a client's whole road, from accept to the answer, past a subscriber, with each call on it
// failing. The next client, which comes after a tick, finds nothing changed.
TEST(Fault, AClientIsServedOrLosesItsConnection)
{
	core running;
	signal(SIGPIPE, SIG_IGN);
	const endpoint notify("/tmp/notify", &vek_notify_fd), request("/tmp/request", &vek_request_fd);
	const auto road = [&] {
		const int other =
		    request.visit(vek_request{VEK_LISTEN, {}, 0}, vek_request{VEK_QUERY_ALL, {}, 0});
		const int service = notify.visit(make_event(VEK_EVENT_USER_LOGIN, ALICE),
						 make_event(VEK_EVENT_USER_LOGOUT_REVOCABLE, ALICE));
		passes();
		heal();
		vek_tick_endpoints();
		close(other);
		close(service);
		// On an older kernel a child closes what was turned away, and holds our clients' ends as well until then.
		for (pid_t child; (child = waitpid(-1, nullptr, 0)) > 0;)
			stream_child_ended(child);
		passes();
		EXPECT_TRUE(vek_socket_list.empty());
		const int next = notify.visit(make_event(VEK_EVENT_USER_LOGIN, {"ssh", "bob", "2", 8}));
		passes();
		int code = -1; // hung up on, without a word
		recv(next, &code, sizeof(code), MSG_DONTWAIT);
		EXPECT_EQ(VEK_RESPONSE_SUCCESS, code);
		close(next);
		passes();
	};
	road(); // from now on there is a spare descriptor
	for (const fault &fault : {NO_MEMORY,
				   ::fault{"accept4", ENFILE},
				   {"accept4", EMFILE, true},
				   {"accept4", ECONNABORTED},
				   {"send", EAGAIN},
				   {"send", ENOBUFS, true, [] { clock_ms++; }},
				   {"send", EPIPE},
				   {"open", EMFILE, true}})
		exhaust(fault, end_all, road, [](bool) { clean(); });
}

TEST(Fault, AParkedLogoutWithoutMemoryHappensAtOnce)
{
	core running;
	client service(VEK_SOCKTYPE_NOTIFY);
	const vek_event logout = make_event(VEK_EVENT_USER_LOGOUT_REVOCABLE, ALICE);
	const auto prepare = [] {
		end_all();
		dispatch(VEK_EVENT_USER_LOGIN, ALICE);
	};
	const auto check = [&](bool failed) {
		clean();
		const vek_response response{failed ? VEK_RESPONSE_SUCCESS : VEK_RESPONSE_FAIL};
		EXPECT_EQ(std::string(reinterpret_cast<const char *>(&response), sizeof(response)),
			  service.take());
		EXPECT_EQ(failed, vek_users == 0);
		EXPECT_EQ(failed, vek_deferred_logout_list.empty());
	};
	exhaust(
	    NO_MEMORY, prepare, [&] { service.say(&logout, sizeof(logout)); }, check);
}

// Whatever cannot be had of the ftp server's and the lockout table and their locks, the session ends and
// nothing stays attached.
TEST(Fault, SharedTablesThatCannotBeHad)
{
	core running;
	ASSERT_EQ(0, terminator_init());
	ASSERT_EQ(0, lockout_init());
	int ftp;
	shmdt(vek_create_shm(PUREFTP_IPC_SHM_KEY, sizeof(ClientTerminateList), "", "", &ftp));
	const int lock = vek_create_sem(PUREFTP_IPC_KEY, "", "");
	const keys carol{"ftp", "carol", "3", ip4("10.0.0.3")};
	const auto prepare = [&] {
		dispatch(VEK_EVENT_USER_LOGIN, carol);
		for (int id : {lock, semget(USER_LOCK_IPC_KEY, 1, 0)})
			semctl(id, 0, SETVAL, 1);
	};
	const auto act = [&] {
		dispatch(VEK_EVENT_USER_LOGOUT, carol);
		dispatch(VEK_EVENT_TIMER_10SECONDS);
	};
	for (const fault &fault :
	     {::fault{"shmget", ENOENT}, {"shmat", ENOMEM}, {"semget", EACCES}, {"semtimedop", EAGAIN}})
		exhaust(fault, prepare, act, [&](bool) {
			clean();
			EXPECT_EQ(0, vek_users);
			shmid_ds status{};
			shmctl(ftp, IPC_STAT, &status);
			EXPECT_EQ(0U, status.shm_nattch);
		});
	lockout_exit();
	shmctl(ftp, IPC_RMID, nullptr);
	semctl(lock, 0, IPC_RMID);
}

// A module that does not start costs what it does; the daemon takes everything that comes all the same, and a
// start after it is as good as a first one.
TEST(Fault, ADaemonWithAMissingModuleStillServes)
{
	const auto prepare = [] {
		fake = fake_platform{};
		uconf = nullptr;
		vek_init_event();
		vek_init_sock_event();
	};
	const auto serve = [](bool failed) {
		rb_root = create_rbtree();
		for (int number = 1; number < 2 * VEK_EVENT_LIMIT; number++)
			for (const keys &keys : {ALICE, ::keys{"ftp", "bob", "2", 8}, ::keys{}}) {
				client client;
				vek_event event = make_event(number % VEK_EVENT_LIMIT, keys);
				dispatch(event, client.sock());
				event.event_flag |= VEK_EVENT_FLAG_USED_IPV6_ADDR;
				dispatch(event, client.sock());
			}
		if (!failed) {
			clean();
			dispatch(VEK_EVENT_USER_LOGIN, ALICE);
			EXPECT_EQ(1, vek_users);
		}
		end_all();
		vek_free(rb_root);
		vek_fini_event();
		if (uconf != nullptr)
			shmdt(uconf);
		do_exitcalls();
	};
	for (const fault &fault : {NO_MEMORY,
				   ::fault{"shmget", ENOSPC},
				   {"shmat", ENOMEM},
				   {"semget", ENOSPC},
				   {"shmget", EACCES, true}})
		exhaust(fault, prepare, do_initcalls, serve);
}

} // namespace
