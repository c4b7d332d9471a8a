// logger_test.cpp: the wording of every message, the record it travels in, and debug mode.
#include <gtest/gtest.h>

#include "core.h"
#include "text.h"
#include "veklog.h"

namespace {

struct Logger : testing::Test {
	core running;
};

struct details {
	const char *user = "bob", *service = "ssh", *mac = "aa:bb", *ip = "10.0.0.1", *ip6 = "2001:db8::1";
	int sub_event = 0, type = 1, usr_from = 0;
};

struct row {
	int event;
	bool v6, cloud;
	const char *text = ""; // empty when nothing is to be logged
	details with = {};
};

vek_event event_of(const row &row)
{
	vek_event event = make_event(row.event, {row.with.service, row.with.user, "key", ip4(row.with.ip)});
	copy_text(event.username, "virtual");
	copy_text(event.sta_mac, row.with.mac);
	event.dst_ip = ip4("192.0.2.9");
	event.sub_event = row.with.sub_event;
	event.type = static_cast<std::uint8_t>(row.with.type);
	event.usr_from = row.with.usr_from;
	if (row.v6) {
		set_ip6(event, row.with.ip6);
		event.dst_ip6 = ip6("2001:db8::9");
	}
	return event;
}

// One of a kind: all combinations are the model's. Events that no other module stops or changes.
TEST_F(Logger, Wording)
{
	// clang-format off
	const row rows[] = {
	    {3, false, false, "User bob ssh login."},
	    {3, false, true, "User bob (MAC: aa:bb, IP: 10.0.0.1) ssh login."},
	    {5, true, false, "User bob (IP:  [2001:db8::1] ) ssh logout."},
	    {5, true, true, "User bob (IP:  [2001:db8::1] ) ssh logout (sessoin timeout).", {.sub_event = 9}},
	    {7, false, true, "User bob (MAC: aa:bb, IP: 10.0.0.1) ssh logout (lease timeout)."},
	    {3, false, true, "User N/A (MAC: N/A, IP: 0.0.0.0) ssh login.",
	     {.user = "undefined", .mac = "", .ip = "255.255.255.255"}},
	    {8, false, false, "Guest bob MAC auth logout (idle timeout).", {.service = "mac-auth", .type = 2}},
	    {3, false, false, "User %s%n %d login.", {.user = "%s%n", .service = "%d", .type = 255}},
	    {5, true, true, "", {.usr_from = FOREIGN_AUTHENTICATED_USER}}, // somebody else logs it
	};
	// clang-format on
	for (const row &row : rows) {
		fake.mode = row.cloud ? WHOPMODE_CLOUD : WHOPMODE_MANAGED;
		fake.logs.clear();
		ASSERT_EQ(0, dispatch(event_of(row)));
		ASSERT_EQ(*row.text != '\0', fake.logs.size() == 1) << row.text;
		if (fake.logs.empty())
			continue;
		// The record, in which nothing else is set.
		qzlog_entry want{};
		std::memset(&want, 0, sizeof(want));
		copy_text(want.message, row.text);
		copy_text(want.username, row.with.user);
		copy_text(want.note, (std::string("Account: ") + row.with.user).c_str());
		want.source = want.facility = want.priority = 5;
		if (row.v6) {
			want.srcip6 = ip6(row.with.ip6);
			want.dstip6 = ip6("2001:db8::9");
			want.flags = 4;
		} else {
			want.srcip = ip4(row.with.ip) == ~0u ? 0 : ip4(row.with.ip);
			want.dstip = ip4("192.0.2.9");
		}
		const qzlog_entry &got = fake.logs[0].entry;
		EXPECT_STREQ(row.text, got.message);
		EXPECT_EQ(row.v6 ? 4 : 0, fake.logs[0].flags) << row.text;
		EXPECT_EQ(0, std::memcmp(&want, &got, sizeof(want))) << row.text << ": another field";
	}
}

TEST_F(Logger, AnUnknownModeKeepsTheLastOne)
{
	for (auto [mode, cloud] :
	     {std::pair(2, false), {5, true}, {0, true}, {99, true}, {3, false}, {4, false}}) {
		fake.mode = mode;
		dispatch(event_of({3, false, false}));
		EXPECT_EQ(cloud, fake.take_messages().find("MAC") != std::string::npos) << mode;
	}
}

TEST_F(Logger, LongTextIsCutOrDropped)
{
	const std::string text(2000, 'x'), user(100, 'u');
	VEK_ALERT(1, 2, user.c_str(), "%s", text.c_str());
	ASSERT_EQ(1u, fake.logs.size());
	const qzlog_entry &entry = fake.logs[0].entry;
	EXPECT_EQ(text.substr(0, 1023), entry.message);
	EXPECT_EQ(user.substr(0, 63), entry.username);
	EXPECT_EQ("Account: " + user.substr(0, 22), entry.note);
	EXPECT_EQ(QZLOG_PRI_ALERT, entry.priority);
	fake.logs.clear();
	const in6_addr none{}, some = ip6("::1");
	EXPECT_EQ(-1, VEK_LOG6(&some, &none, "u", "%.1024s", text.c_str()));
	EXPECT_EQ(0u, fake.logs.size());
	EXPECT_EQ(7, VEK_LOG6(&some, &none, "u", "%.1023s", text.c_str())) << "the log library's own result";
	EXPECT_EQ(text.substr(0, 1023), fake.logs.at(0).entry.message);
}

TEST_F(Logger, DebugModePrintsWhatIsIPv4)
{
	debug = 1;
	testing::internal::CaptureStderr();
	for (int number : {3, 5, 6, 7, 8})
		dispatch(event_of(
		    {number, false, false, "", {.ip = number == 5 ? "255.255.255.255" : "10.0.0.1"}}));
	dispatch(event_of({5, true, false})); // not printed but logged
	VEK_ALERT(ip4("1.2.3.4"), 0, "u", "full %d", 7);
	debug = 0;
	EXPECT_EQ("logger_handle_login: User 10.0.0.1: User bob ssh login.\n"
		  "logger_handle_logout: User 0.0.0.0: User bob ssh logout\n"
		  "logger_handle_reauth_timeout: User 10.0.0.1: User bob ssh logout (re-auth timeout).\n"
		  "logger_handle_lease_timeout: User 10.0.0.1: User bob ssh logout (lease timeout).\n"
		  "logger_handle_idle_timeout: User 10.0.0.1: User bob ssh logout (idle timeout).\n"
		  "TestBody: User 1.2.3.4: full 7\n",
		  testing::internal::GetCapturedStderr());
	EXPECT_EQ("User bob (IP:  [2001:db8::1] ) ssh logout.\n", fake.take_messages());
}

} // namespace
