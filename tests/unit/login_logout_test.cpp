// login_logout_test.cpp: what the model does not show of logins: the full table's alert in literal text, whom
// the platform is asked about rights, and the shared block at start-up. Memory that runs out is
// fault_test.cpp's.
#include <gtest/gtest.h>

#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include "core.h"
#include "init.h"
#include "text.h"

namespace {

struct LoginLogout : testing::Test {
	core running;
	void TearDown() override { EXPECT_EQ("", check_invariants()); }
};

// Whom a full table displaces, and the alert's other fields, are the model's.
TEST_F(LoginLogout, AFullTableRefusesWithAnAlertOrInDebugModeALine)
{
	for (int i = 0; i < VEK_MAX_USERS; ++i)
		ASSERT_EQ(0, dispatch(VEK_EVENT_USER_LOGIN, {"ssh", std::to_string(i).c_str()}));
	fake.logs.clear();
	vek_event event = make_event(VEK_EVENT_USER_LOGIN, {"telnet", "admin", "k", ip4("10.0.0.7")});
	copy_text(event.real_username, "bob"); // the account counts
	char host[255] = "";
	gethostname(host, sizeof(host));
	const std::string text = std::string("Failed login attempt to ") + host +
				 " from telnet (reach the maximum number of user)\n";
	for (debug = 0; debug < 2; ++debug) {
		testing::internal::CaptureStderr();
		EXPECT_EQ(1, dispatch(event));
		EXPECT_EQ(debug ? "userdb_handle_login: User 10.0.0.7: " + text : "",
			  testing::internal::GetCapturedStderr());
		EXPECT_EQ(debug ? "" : text, fake.take_messages());
	}
	debug = 0;
}

TEST_F(LoginLogout, RightsComeFromTheProfile)
{
	const struct {
		const char *service, *define_name;
		int result, remote_admin, remote_access;
		int status, attribute;
		const char *asked;
	} rows[] = {{"ssh", "", 0, 1, 0, 0, 1, ""},          {"ssh", "", 3, -1, 5, 0, 3, ""},
		    {"ssh", "", -1, 1, 1, 1, 0, ""},         {"ssh", "x", -1, 0, 1, 0, 2, "virtual"},
		    {"ssh", "x", -1, 0, 0, 0, 0, "virtual"}, {"802.1x", "", -1, 1, 1, 0, 2, "-"},
		    {"mac-auth", "x", 0, 0, 0, 0, 2, "-"}};
	for (const auto &row : rows) {
		vek_event event = make_event(VEK_EVENT_USER_LOGIN, {row.service, "real", "k"});
		copy_text(event.username, "virtual");
		copy_text(event.define_name, row.define_name);
		event.match_flag = 0x1234;
		event.type = GUEST_TYPE;
		event.attribute = 0x80; // is overwritten
		fake.profile_result = row.result;
		fake.profile.remote_admin = row.remote_admin;
		fake.profile.remote_access = row.remote_access;
		fake.asked_name = "-";
		EXPECT_EQ(row.status, vek_dispatch_event(&event, nullptr));
		EXPECT_EQ(row.asked, fake.asked_name);
		const user_info *info = session_of("k");
		ASSERT_EQ(row.status == 0, info != nullptr);
		EXPECT_TRUE(info == nullptr || info->attribute == row.attribute) << row.service;
		if (*row.asked != '-') {
			EXPECT_EQ(GUEST_TYPE, fake.asked_type);
			EXPECT_EQ(*row.define_name ? 0x34 : 0, fake.asked_flag);
		}
		dispatch(VEK_EVENT_USER_LOGOUT);
	}
}

TEST(LoginLogoutStart, TakesOverTheConfigurationBlockOrSaysWhyNot)
{
	const int size = 24;
	const int id = shmget(USER_CONFIG_IPC_KEY, size, IPC_CREAT | IPC_EXCL | 0666);
	void *block = shmat(id, nullptr, 0);
	std::memset(block, 0xff, size);
	{
		testing::internal::CaptureStderr();
		core running;
		EXPECT_EQ("Previous user config buffer exists. Try to init it\n",
			  testing::internal::GetCapturedStderr());
		const unsigned char want[size] = {0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 3};
		EXPECT_EQ(0, std::memcmp(want, block, size));
	}
	EXPECT_EQ(-1, shmget(USER_CONFIG_IPC_KEY, 0, 0666)) << "removed at the end";
	shmdt(block);

	const int small = shmget(USER_CONFIG_IPC_KEY, 8, IPC_CREAT | IPC_EXCL | 0666);
	testing::internal::CaptureStderr();
	vek_init_event();
	EXPECT_EQ(-1, userdb_init());
	EXPECT_NE(std::string::npos,
		  testing::internal::GetCapturedStderr().find("Can't create config buffer: "));
	userdb_exit();
	EXPECT_EQ(small, shmget(USER_CONFIG_IPC_KEY, 0, 0666)) << "not ours to remove";
	shmctl(small, IPC_RMID, nullptr);
	vek_fini_event();
}

} // namespace
