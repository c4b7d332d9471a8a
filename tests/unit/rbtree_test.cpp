// rbtree_test.cpp: the portal station tree's searches and dump, and which station the portal clean-up logs
// out. The model checks the tree's order and balance after every change.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "core.h"
#include "text.h"

namespace {

vek_event portal(const char *user, const char *mac, const char *profile, const std::string &auth_time)
{
	vek_event event =
	    make_event(VEK_EVENT_USER_LOGIN, {SERVICE_NAME_CAPTIVE_PORTAL, user, user, ip4("10.0.0.1")});
	copy_text(event.sta_mac, mac);
	copy_text(event.ssid_profile_name, profile);
	copy_text(event.ssid_name, "guests");
	copy_text(event.auth_time, auth_time.c_str());
	event.usr_from = FOREIGN_AUTHENTICATED_USER; // keeps its authentication time
	event.default_lease_time = 30;
	return event;
}

rb_node_t *add(const vek_event &event) { return rb_insert_station(rb_root, &event); }

struct Rbtree : testing::Test {
	core running;
	static void clear()
	{
		while (rb_node_t *node = rb_first(rb_root))
			rb_delete_station(rb_root, node);
	}
};

TEST_F(Rbtree, RecordSearchAndDeletionByMac)
{
	vek_event event = portal("bob", "aa:01", "SSID1", "20");
	copy_text(event.method, "some-method");
	copy_text(event.locale, "en_GB");
	rb_node_t *first = add(event);
	const login_user_info_s &info = *first->user_info;
	const std::string record = std::string(info.sta_ip) + ' ' + info.logout_time + ' ' + info.mac_addr +
				   ' ' + info.username + ' ' + info.auth_time + ' ' + info.portal_method +
				   ' ' + info.locale + ' ' + info.ssid_name + ' ' + info.ssid_profile_name +
				   ' ' + info.ssid_vap_iface;
	EXPECT_EQ("16777226 30 aa:01 bob 20 some-method en_GB guests SSID1 ", record) << "10.0.0.1 as stored";
	EXPECT_EQ(FOREIGN_AUTHENTICATED_USER, first->usr_from);

	for (auto [mac, profile, time] :
	     {std::tuple("aa:01", "SSID2", "10"), {"aa:02", "SSID1", "30"}, {"aa:01", "SSID1", "5"}})
		add(portal("eve", mac, profile, time));
	// Node, left, right: the root before its elder.
	EXPECT_EQ(first, search_rbnode(rb_root, "aa:01", "SSID1", SEARCH_BY_MAC_SSIDPROFILE));
	EXPECT_EQ(first, search_rbnode(rb_root, "aa:01", "guests", SEARCH_BY_MAC_SSID));
	for (const char *mac : {"AA:01", "aa:0", static_cast<const char *>(nullptr)})
		EXPECT_EQ(nullptr, search_rbnode(rb_root, mac, "SSID1", SEARCH_BY_MAC_SSIDPROFILE));
	for (auto [name, type] : {std::pair("guests", 1), {"SSID1", 3}, {"SSID1", 0}, {nullptr, 1}})
		EXPECT_EQ(nullptr, search_rbnode(rb_root, "aa:01", name, type)) << type;
	EXPECT_EQ(nullptr, search_rbnode(nullptr, "aa:01", "SSID1", 1));

	delete_rbtree(rb_root, "aa:01", "SSID2");
	delete_rbtree(rb_root, "aa:01", "SSID3");
	std::string left;
	for (rb_node_t *node = rb_first(rb_root); node != nullptr; node = rb_next(node))
		left += std::string(node->user_info->mac_addr) + node->user_info->ssid_profile_name + " ";
	EXPECT_EQ("aa:01SSID1 aa:01SSID1 aa:02SSID1 ", left);
	clear();
}

TEST_F(Rbtree, VapNumberIsTheFifthCharacter)
{
	for (const std::string name : {"ssid1", "ssid3-x", "ssid8", "ssid9", "ssid0", "ssidx", "ssid", ""}) {
		login_user_info_s info{};
		copy_text(info.ssid_profile_name, name.c_str());
		const bool valid = name.size() > 4 && name[4] >= '1' && name[4] <= '8';
		EXPECT_EQ(valid ? name[4] - '0' : -1, rb_get_vap_number(&info)) << name;
	}
	EXPECT_EQ(-1, rb_get_vap_number(nullptr));
}

// Lines without their time prefix.
std::string dump()
{
	std::ifstream file(VEK_RBTREE_DUMP);
	std::string all;
	for (std::string line; std::getline(file, line);) {
		EXPECT_EQ(25u, line.find(']')) << line; // weekday to year
		all += line.substr(line.find(']') + 1) + "\n";
	}
	return all;
}

TEST_F(Rbtree, DumpIsPreOrderAndSafeFromPlantedFiles)
{
	const std::string start = "=== DEBUG_print_tree-117 : print start ===\n",
			  end = "=== DEBUG_print_tree-121 : print end ===\n";
	DEBUG_print_tree(rb_root);
	EXPECT_EQ(start + end, dump());
	std::ostringstream want;
	want << start << "u?2-m1(Black) is root\n";
	for (const char *time : {"1", "10", "19"})
		add(portal("u\n2", time[1] == '0' ? "m1" : "m", "p", time));
	for (const void *node : {rb_first(rb_root), rb_last(rb_root)})
		want << "u?2-m-" << (node == rb_first(rb_root) ? "1-" : "19-") << node << " is m1's "
		     << (node == rb_first(rb_root) ? "left" : "right") << " child\n";
	print_rb_tree(0);
	EXPECT_EQ(start + end, dump()) << "the handler only asks";
	print_rb_tree_if_asked();
	EXPECT_EQ(want.str() + end, dump());
	clear();

	// Locked elsewhere, even if only by a reader: said at once, nothing written.
	const int holder = open(VEK_RBTREE_DUMP, O_RDONLY);
	ASSERT_EQ(0, flock(holder, LOCK_SH));
	testing::internal::CaptureStderr();
	rbtree_debug("more %d\n", 1);
	EXPECT_EQ("Error flock log file " VEK_RBTREE_DUMP "\n", testing::internal::GetCapturedStderr());
	close(holder);
	rbtree_debug("more %d\n", 2);
	EXPECT_NE(std::string::npos, dump().find(end + "more 2\n"));

	const char *victim = "/tmp/vek_unit_victim";
	std::ofstream(victim) << "mine";
	unlink(VEK_RBTREE_DUMP);
	ASSERT_EQ(0, symlink(victim, VEK_RBTREE_DUMP));
	rbtree_debug("through the link\n");
	unlink(VEK_RBTREE_DUMP);
	ASSERT_EQ(0, mkfifo(VEK_RBTREE_DUMP, 0666));
	rbtree_debug("into the pipe, which nobody reads\n");
	std::string content;
	std::ifstream(victim) >> content;
	EXPECT_EQ("mine", content);
	DEBUG_print_tree(rb_root); // replaces whatever is there
	EXPECT_EQ(start + end, dump());
	unlink(victim);
	unlink(VEK_RBTREE_DUMP);
}

// ---- the clean-up ----

TEST_F(Rbtree, CleanUpLogsOutTheFirstStationThatDoesNotLineUp)
{
	const std::string a = "aa:aa:aa:aa:aa:0a", b = "aa:aa:aa:aa:aa:0b", c = "aa:aa:aa:aa:aa:0c",
			  listing = "/usr/local/bin/dbctl -t STA_STATISTIC-02:00:00:00:00:01 -b AUTH_TIME ";
	const struct {
		std::vector<std::string> listed;
		std::string ended;
		int failing = -1;         // pipe
		std::string time = "1\n"; // the last line stands for the rest
	} cases[] = {{{}, "a"},          {{a}, "b"},         {{a, b}, "c"},
		     {{a, b, c}, ""},    {{a, b, c, a}, ""}, {{a, c}, "b"},
		     {{"junk", a}, "b"}, {{"x" + a}, "a"},   {{a + " more"}, "b"},
		     {{}, "", 0},        {{}, "", 1},        {{a}, "a", -1, "\n"}};
	fake.mode = WHOPMODE_CLOUD;
	for (const auto &row : cases) {
		for (auto [user, mac, time] : {std::tuple("b", b, "20"), {"c", c, "30"}, {"a", a, "10"}})
			ASSERT_EQ(0, dispatch(portal(user, mac.c_str(), "SSID1", time)));
		fake.station_macs.clear();
		for (const std::string &mac : row.listed)
			fake.station_macs.push_back(mac + "\n");
		fake.station_times = {row.time};
		fake.failing_pipe = row.failing;
		fake.commands.clear();
		announced.clear();
		kickout_not_in_redis_portal_user();
		const std::vector<std::string> both = {listing + "-o | awk '{print $2}'",
						       listing + "-f AUTH_TIME -o | awk '{print $2}'"};
		EXPECT_TRUE(row.failing >= 0 || fake.commands == both);
		EXPECT_EQ(row.ended, announced.empty() ? "" : announced[0].username);
		EXPECT_EQ(row.ended.empty() ? 3 : 2, vek_users);
		EXPECT_EQ("", check_invariants());
		dispatch(VEK_EVENT_USER_LOGOUT);
	}
	find_earlist_portal_user(nullptr, nullptr);
}

TEST_F(Rbtree, CleanUpReadsAtMost1025Stations)
{
	fake.mode = WHOPMODE_CLOUD;
	for (int i = 0; i < VEK_MAX_USERS; ++i) {
		char mac[18];
		std::snprintf(mac, sizeof(mac), "aa:aa:aa:aa:%02x:%02x", i >> 8, i & 255);
		ASSERT_EQ(
		    0, dispatch(portal(("u" + std::to_string(i)).c_str(), mac, "SSID1", std::to_string(i))));
		fake.station_macs.push_back(std::string(mac) + "\n");
	}
	fake.station_macs.resize(2000, "bb:bb:bb:bb:bb:bb\n");
	announced.clear();
	kickout_not_in_redis_portal_user();
	ASSERT_EQ(1u, announced.size());
	EXPECT_STREQ("u1025", announced[0].username);
}

} // namespace
