// input_test.cpp: what clients must not send and devices must not look like: records that are none, obstacles
// at start-up, other programs' blocks, and what the tools that the daemon runs get to see of it.
#include "driver.h"

#include <sys/stat.h>

#include <climits>

namespace {

using BadInput = on_device;
using StartUp = on_device;

// Half a record ends a connection; on the one returned, numbers that nobody may send got no answer.
owned_fd after_bad_numbers(const char *address, const void *record, std::size_t size,
			   std::initializer_list<std::int32_t> numbers)
{
	const owned_fd half = connect_to(address);
	send_bytes(half, record, size - 1);
	EXPECT_EQ("", read_to_end(half));
	owned_fd fd = connect_to(address);
	std::string bytes(static_cast<const char *>(record), size);
	for (const std::int32_t number : numbers) {
		std::memcpy(bytes.data(), &number, sizeof(number)); // both kinds begin with it
		send_bytes(fd, bytes.data(), size);
	}
	return fd;
}

TEST_F(BadInput, RecordsThatAreNone)
{
	vekd.start();
	service reporter;
	fill(reporter, 2);
	asker ask;
	const sessions before = ask.all();

	vek_event event = notice(0, SERVICE_NAME_SSH, "bob\n<25>eve\x1b[2J");
	const owned_fd fd = after_bad_numbers(VEK_ADDRESS_NOTIFY, &event, sizeof(event),
					      {0, 6, 9, 12, 18, 23, 31, 33, 39, -1, INT_MIN, INT_MAX});
	event.event = VEK_EVENT_USER_LOGIN;
	send_bytes(fd, &event, sizeof(event));
	vekd.settle(16);
	std::int32_t status[2];
	EXPECT_EQ(4, recv(fd, status, sizeof(status), 0)) << "one answer, to the last";
	EXPECT_EQ(0, status[0]);
	EXPECT_TRUE(log->has("User bob\\x0a<25>eve\\x1b[2J ssh login.")) << "a name forges no line";
	EXPECT_EQ(0, reporter.logout(SERVICE_NAME_SSH, event.username));

	// Text without an end, a deadline in the past, and one that wraps.
	std::memset(static_cast<void *>(&event), 'A', sizeof(event));
	event.event = VEK_EVENT_USER_LOGIN;
	event.type = USER_TYPE;
	event.event_flag = 0;
	event.define_name[0] = '\0';
	for (int minutes : {-1, INT_MIN, INT_MAX}) {
		event.default_lease_time = event.default_reauth_time = minutes;
		send_bytes(fd, &event, sizeof(event));
		ASSERT_EQ(4, recv(fd, status, sizeof(status), 0));
		EXPECT_EQ(0, status[0]);
	}
	const std::string user(63, 'A');
	const sessions cut = ask.named(user);
	ASSERT_EQ(3u, cut.size());
	EXPECT_EQ(31u, std::strlen(cut[0].service));
	EXPECT_EQ(64u, std::strlen(cut[0].unique));
	EXPECT_EQ(127u, std::strlen(cut[0].radius_profile_name));
	EXPECT_TRUE(log->has("User " + user + " " + std::string(31, 'A') + " login."));
	vekd.tick();
	EXPECT_EQ(2u, ask.named(user).size()) << "the one of the past ends at once";
	for (const user_info &session : before)
		EXPECT_EQ(0, std::memcmp(&session, &ask.named(session.username).at(0), sizeof(session)));

	vek_request record = request(VEK_QUERY_NAME);
	const owned_fd asking =
	    after_bad_numbers(VEK_ADDRESS_REQUEST, &record, sizeof(record), {0, 7, -1, INT_MIN, INT_MAX});
	std::memset(record.u.username, 'B', sizeof(record.u.username));
	send_bytes(asking, &record, sizeof(record));
	ASSERT_EQ(static_cast<ssize_t>(sizeof(event)), recv(asking, &event, sizeof(event), MSG_WAITALL));
	EXPECT_EQ(0, event.count);
	EXPECT_EQ(std::string(63, 'B'), event.username);
}

// ---- start-up ----

TEST_F(StartUp, Options)
{
	EXPECT_EQ(0, vekd.run({"-d", "-h"}));
	EXPECT_EQ(std::string(getenv("VEKD")) + " [-d] [-d] [-h]\n", vekd.output());
	EXPECT_FALSE(exists(VEK_ADDRESS_NOTIFY));

	vekd.start({"-d", "-x", "-d"});
	EXPECT_EQ("enter debugging mode: level: 2\n", vekd.output());
	service().login(SERVICE_NAME_SSH, "bob", "", ip4("10.0.0.5"));
	vekd.settle();
	EXPECT_TRUE(vekd.said("logger_handle_login: User 10.0.0.5: User bob ssh login.\n"));
	EXPECT_EQ(std::vector<std::string>{}, log->lines());
}

TEST_F(StartUp, ObstaclesEndItAndTouchNobodysBlocks)
{
	struct {
		const char *path;
		bool link;
		const char *message;
	} obstacles[] = {
	    {VEK_PID_FILE, false, "Another vek daemon is running\n"},
	    {VEK_ADDRESS_NOTIFY, false, "Can't init vek daemon!\n"},
	    {VEK_ADDRESS_REQUEST, false, "Can't init vek daemon!\n"},
	    {VEK_PID_FILE, true, ""}, // to nowhere: not there, and not to be written
	};
	for (const auto &[path, link, message] : obstacles) {
		// With all modules started, the blocks are the daemon's own and go with it.
		std::unique_ptr<shared_segment> others;
		if (!link) {
			others = std::make_unique<shared_segment>(USER_LOCK_IPC_KEY, sizeof(user_lock));
			others->as<user_lock>()->attempt_count = 77;
		}
		ASSERT_EQ(0, link ? symlink("/nowhere/at/all", path) : mkdir(path, 0755));
		EXPECT_EQ(255, vekd.run(link ? daemon_process::words{"-d"} : daemon_process::words{}))
		    << path;
		EXPECT_TRUE(vekd.output().ends_with(message)) << vekd.output();
		EXPECT_FALSE(segment_exists(USER_CONFIG_IPC_KEY));
		EXPECT_EQ(!link, segment_exists(USER_LOCK_IPC_KEY));
		EXPECT_TRUE(link || others->as<user_lock>()->attempt_count == 77);
		ASSERT_EQ(0, remove(path));
	}
}

TEST_F(StartUp, SecondStartLeavesTheFirstAlone)
{
	vekd.start();
	service reporter;
	fill(reporter, 3);
	const shared_segment lockout(USER_LOCK_IPC_KEY), config(USER_CONFIG_IPC_KEY);
	lockout.as<user_lock>()->attempt_count = 9;
	config.as<user_config>()->max_idle_minute = 99;
	daemon_process second;
	EXPECT_EQ(255, second.run());
	EXPECT_TRUE(second.output().ends_with("Another vek daemon is running\n")) << second.output();
	EXPECT_EQ(0, service().login(SERVICE_NAME_SSH, "after"));
	EXPECT_EQ(std::to_string(vekd.pid()), read_file(VEK_PID_FILE));
	EXPECT_EQ(4, asker().count());
	EXPECT_EQ(9, lockout.as<user_lock>()->attempt_count);
	EXPECT_EQ(99u, config.as<user_config>()->max_idle_minute);
	EXPECT_EQ(shared_segment(USER_LOCK_IPC_KEY).id(), lockout.id());
}

TEST_F(StartUp, ChildrenInheritNothing)
{
	stand_in(SCRATCH + "bin/ps",
		 "cd " + SCRATCH + "; ls /proc/self/fd >fds; cat /proc/self/status >status\n");
	vekd.start();
	service reporter;
	subscriber copies;
	reporter.login(SERVICE_NAME_CONSOLE, "admin", "console");
	EXPECT_EQ(0, reporter.logout(SERVICE_NAME_CONSOLE, "admin"));
	EXPECT_EQ("0\n1\n2\n3\n", read_file(SCRATCH + "fds")) << "3 is the listing's own";
	const std::string status = read_file(SCRATCH + "status");
	for (const char *mask : {"SigBlk:", "SigIgn:"}) {
		const std::size_t at = status.find(mask);
		ASSERT_NE(std::string::npos, at);
		// The C library keeps two signals beyond the common ones for itself.
		EXPECT_EQ(0u, std::stoull(status.substr(at + 7), nullptr, 16) & 0x7fffffff) << status;
	}
}

} // namespace
