// rbtree_test.cpp: the portal station tree's records, searches and dump, and what the portal clean-up reads.
// The tree's order and balance, and which station the clean-up logs out, are the model's.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "core.h"
#include "text.h"

namespace {

vek_event portal(const char *user, const char *mac, const char *profile, const char *auth_time)
{
	vek_event event =
	    make_event(VEK_EVENT_USER_LOGIN, {SERVICE_NAME_CAPTIVE_PORTAL, user, user, ip4("10.0.0.1")});
	copy_text(event.sta_mac, mac);
	copy_text(event.ssid_profile_name, profile);
	copy_text(event.ssid_name, "guests");
	copy_text(event.auth_time, auth_time);
	event.usr_from = FOREIGN_AUTHENTICATED_USER; // keeps its authentication time
	event.default_lease_time = 30;
	return event;
}

struct Rbtree : testing::Test {
	core running;
};

TEST_F(Rbtree, RecordSearchAndDeletion)
{
	dispatch(portal("bob", "aa:01", "ssid1", "20"));
	login_user_info_s &info = *rb_root->rb_node->user_info;
	EXPECT_STREQ("16777226", info.sta_ip) << "10.0.0.1 as stored";
	EXPECT_STREQ("30", info.logout_time);
	dispatch(portal("eve", "aa:01", "ssid2", "30"));
	dispatch(portal("old", "aa:01", "ssid1", "5")); // the root comes before its elder
	for (auto [mac, name, type] : {std::tuple("aa:01", "ssid1", 1), {"aa:01", "guests", 2}})
		EXPECT_EQ(&info, search_rbnode(rb_root, mac, name, type)->user_info);
	for (auto [mac, name, type] : {std::tuple("AA:01", "ssid1", 1), {"aa:01", "guests", 1}})
		EXPECT_EQ(nullptr, search_rbnode(rb_root, mac, name, type));
	delete_rbtree(rb_root, "aa:01", "ssid2");
	EXPECT_EQ(nullptr, search_rbnode(rb_root, "aa:01", "ssid2", SEARCH_BY_MAC_SSIDPROFILE));
	dispatch(portal("new", "aa:02", "ssid2", "2")); // gets its memory, which is no longer eve's
	dispatch(VEK_EVENT_USER_LOGOUT, {.user = "eve"});
	EXPECT_NE(nullptr, search_rbnode(rb_root, "aa:02", "ssid2", SEARCH_BY_MAC_SSIDPROFILE));

	for (auto [profile, number] : {std::pair("ssid1", 1), {"ssid8-x", 8}, {"ssid9", -1}, {"ssid", -1}}) {
		copy_text(info.ssid_profile_name, profile);
		EXPECT_EQ(number, rb_get_vap_number(&info)) << profile;
	}
}

TEST_F(Rbtree, LinesOfADumpGoIntoItsOwnFileAlone)
{
	static const char *const victim = "/tmp/vek_unit_victim";
	rbtree_debug("%s\n", "one");
	const int holder = open(VEK_RBTREE_DUMP, O_RDONLY);
	ASSERT_EQ(0, flock(holder, LOCK_SH)); // only to read, but then it gets no more
	testing::internal::CaptureStderr();
	rbtree_debug("two\n");
	EXPECT_EQ("Error flock log file " VEK_RBTREE_DUMP "\n", testing::internal::GetCapturedStderr());
	ASSERT_EQ(0, rename(VEK_RBTREE_DUMP, victim));
	close(holder);
	for (auto plant :
	     {+[] { return symlink(victim, VEK_RBTREE_DUMP); }, +[] { return link(victim, VEK_RBTREE_DUMP); },
	      +[] { return mkfifo(VEK_RBTREE_DUMP, 0666); }}) { // which nobody reads
		unlink(VEK_RBTREE_DUMP);
		ASSERT_EQ(0, plant());
		rbtree_debug("three\n");
	}
	std::ifstream file(victim);
	const std::string all(std::istreambuf_iterator<char>(file), {});
	EXPECT_TRUE(all.ends_with("one\n")) << all;
	unlink(victim);
	unlink(VEK_RBTREE_DUMP);
}

TEST_F(Rbtree, CleanUpReadsBothListingsWithinItsBounds)
{
	fake.mode = WHOPMODE_CLOUD;
	dispatch(portal("u", "aa:aa:aa:aa:aa:aa", "SSID1", "1"));
	fake.station_macs.assign(3000, "bb:bb:bb:bb:bb:bb and what is longer than the place for it\n");
	fake.station_times = {"1\n"}; // the last line stands for the rest
	fake.mac = "02:00; reboot";
	kickout_not_in_redis_portal_user();
	EXPECT_TRUE(fake.commands.empty()) << "no part of a command line";
	fake.mac = "02:00:00:00:00:01";
	for (const int failing : {0, 1, -1}) {
		EXPECT_EQ(1, vek_users) << "half an answer ends nobody";
		fake.commands.clear();
		fake.failing_pipe = failing;
		kickout_not_in_redis_portal_user();
	}
	EXPECT_EQ(0, vek_users);
	const std::string listing = "/usr/local/bin/dbctl -t STA_STATISTIC-02:00:00:00:00:01 -b AUTH_TIME ";
	EXPECT_EQ(listing + "-o | awk '{print $2}'", fake.commands.at(0));
	EXPECT_EQ(listing + "-f AUTH_TIME -o | awk '{print $2}'", fake.commands.at(1));
}

} // namespace
