// matching_test.cpp: the match functions one by one, what counts as a MAC address, and the searches whose
// keys mean something special.
#include <gtest/gtest.h>

#include "core.h"
#include "text.h"

namespace {

TEST(Matching, EachFunctionComparesItsFieldsAndNoOthers)
{
	const struct {
		int bits;
		match_func *function;
		int compared;
	} functions[] = {
#define ROW(bits, name, compared) {bits, name, (bits) == MATCH_IP6_UNIQUE ? MATCH_UNIQUE : (bits)},
	    MATCH_FUNCTIONS(ROW)
#undef ROW
	};
	EXPECT_EQ(24u, std::size(functions));
	const in6_addr a = ip6("2001:db8::1"), b = ip6("2001:db8::2");
	for (const auto &f : functions) {
		for (int at : {0, 1, 2, 4, 8, 16}) {
			const bool matched = f.function("ssh", "bob", 1, &a, "k", at == 1 ? "SSH" : "ssh",
							at == 2 ? "bobby" : "bob", at == 4 ? 2 : 1,
							at == 16 ? &b : &a, at == 8 ? "K" : "k");
			EXPECT_EQ((at & f.compared) == 0, matched) << f.bits << " differing in " << at;
		}
		if (!(f.compared & MATCH_IP6)) {
			EXPECT_EQ(1, f.function("s", "u", 1, nullptr, "k", "s", "u", 1, nullptr, "k"))
			    << f.bits;
		}
	}
}

TEST(Matching, WhatContainsAMac)
{
	for (const char *mac : {"AA:BB:CC:DD:EE:FF", "00:11:22:33:44:55", "tty-aa:bb:cc:dd:ee:ff",
				"aa:bb:cc:dd:ee:ff7", "aaa:bb:cc:dd:ee:ff", ":aa:bb:cc:dd:ee:ff:"})
		EXPECT_EQ(0, check_is_mac(mac)) << mac;
	for (const char *none : {"", "aa-bb-cc-dd-ee-ff", "aa:bb:cc:dd:ee:f", "aa:bb:cc:dd:ee:fg",
				 "aa:bb:cc::dd:ee:ff", "aabbccddeeff"})
		EXPECT_NE(0, check_is_mac(none)) << none;
}

// The model searches as the events do; these are the keys that it does not have.
TEST(Matching, KeysThatMeanSomethingSpecial)
{
	core running;
	fake.mode = WHOPMODE_CLOUD; // a station's MAC is kept
	const char *mac = "AA:BB:CC:DD:EE:FF",
		   *longest = "a-name-of-exactly-sixty-three-characters-which-fills-its-field-";
	const std::uint32_t one = ip4("10.0.0.1");
	const std::pair<keys, const char *> logins[] = {{{"captive portal", "cy", "a", one}, mac},
							{{"ssh", "bob", mac, one}, ""},
							{{"captive portal", "al", "b"}, mac},
							{{"ssh", longest, "d"}, ""}};
	for (const auto &[keys, sta_mac] : logins) {
		vek_event event = make_event(VEK_EVENT_USER_LOGIN, keys);
		copy_text(event.sta_mac, sta_mac);
		ASSERT_EQ(0, dispatch(event));
	}
	const struct {
		const char *service, *user, *unique;
		std::string found; // the unique keys, in order
	} cases[] = {
	    {nullptr, nullptr, nullptr, "d b AA:BB:CC:DD:EE:FF a "},
	    {"", "", mac, "b a "},                    // of the stations with that MAC
	    {"captive portal", nullptr, mac, "b a "}, // still the walk
	    {"", "bob", mac, "AA:BB:CC:DD:EE:FF "},   // the key itself
	    {"", "", "aa:bb:cc:dd:ee:ff", ""},        // case matters
	    {"", longest, "d", "d "},
	    // A longer name is cut for the look-up; what then is compared is the name given.
	    {"", "a-name-of-exactly-sixty-three-characters-which-fills-its-field-x", "", ""},
	};
	for (const auto &c : cases) {
		const int count = find_user_list(c.service, c.user, 0, nullptr, c.unique, 0);
		std::string all;
		for (int i = 0; i < count; ++i)
			all += ulist_array[i]->uinfo->unique + std::string(" ");
		EXPECT_EQ(c.found, all) << (c.user ? c.user : "-") << '/' << (c.unique ? c.unique : "-");
	}
	const in6_addr any{}; // every IPv4 session has it
	EXPECT_EQ(4, find_user_list("", "", 0, &any, "", VEK_HANDLE_FLAG_IPV6_ADDR));
	user_info *found[VEK_MAX_USERS];
	EXPECT_EQ(4, userdb_query_by_name("", found));
	EXPECT_EQ(2, userdb_query_by_ip(one, found));
	EXPECT_EQ(4, userdb_query_by_ip6(&any, found));
}

} // namespace
