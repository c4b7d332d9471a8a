// records_test.cpp: what leaves the daemon, in literal text, which the model could tell as wrongly as the
// daemon: log messages, one of a kind, and what becomes of long ones; what the platform is asked about
// rights.
#include <gtest/gtest.h>

#include <tuple>

#include "core.h"
#include "text.h"
#include "veklog.h"

namespace {

// Of numbers that no other module stops or changes.
vek_event event_of(int number, const char *user, bool v6)
{
	vek_event event = make_event(number, {"ssh", user, "key", ip4("10.0.0.1")});
	copy_text(event.sta_mac, "aa:bb");
	event.sub_event = VEK_EVENT_USER_FORCE_LOGOUT; // of no consequence to logins and time-outs
	if (v6)
		set_ip6(event, "2001:db8::1");
	return event;
}

TEST(Records, WordingOfACloudManagedDevice)
{
	core running;
	fake.mode = WHOPMODE_CLOUD;
	for (auto [number, v6, text] :
	     {std::tuple(3, false, "User N/A (MAC: aa:bb, IP: 10.0.0.1) ssh login.\n"),
	      {3, true, "User N/A (MAC: aa:bb) ssh login.\n"},
	      {5, true, "User N/A (IP:  [2001:db8::1] ) ssh logout (force-logout).\n"},
	      {7, false, "User undefined (MAC: aa:bb, IP: 10.0.0.1) ssh logout (lease timeout).\n"},
	      {8, true, "User undefined ssh logout (idle timeout).\n"}}) {
		dispatch(event_of(number, "undefined", v6));
		EXPECT_EQ(text, fake.take_messages());
	}
}

TEST(Records, LongTextIsCutOrDropped)
{
	core running;
	const std::string text(2000, 'x'), user(100, 'u');
	VEK_ALERT(1, 2, user.c_str(), "%s", text.c_str());
	const qzlog_entry entry = fake.logs.at(0).entry;
	EXPECT_EQ(text.substr(0, 1023), entry.message);
	EXPECT_EQ("Account: " + user.substr(0, 22), entry.note);
	const in6_addr none{};
	EXPECT_EQ(-1, VEK_LOG6(&none, &none, "u", "%.1024s", text.c_str()));
	EXPECT_EQ(7, VEK_LOG6(&none, &none, "u", "%.1023s", text.c_str())) << "the log library's own result";
	EXPECT_EQ(text.substr(0, 1023), fake.logs.at(1).entry.message);
}

TEST(Records, DebugModePrintsWhatIsIPv4)
{
	core running;
	debug = 1;
	testing::internal::CaptureStderr();
	for (int number : {3, 5, 6})
		dispatch(event_of(number, "%s%n", false));
	dispatch(event_of(5, "bob", true)); // not printed but logged
	VEK_ALERT(ip4("1.2.3.4"), 0, "u", "full %d", 7);
	debug = 0;
	EXPECT_EQ("logger_handle_login: User 10.0.0.1: User %s%n ssh login.\n"
		  "logger_handle_logout: User 10.0.0.1: User %s%n ssh logout (force-logout)\n"
		  "logger_handle_reauth_timeout: User 10.0.0.1: User %s%n ssh logout (re-auth timeout).\n"
		  "TestBody: User 1.2.3.4: full 7\n",
		  testing::internal::GetCapturedStderr());
	EXPECT_EQ("User bob (IP:  [2001:db8::1] ) ssh logout (force-logout).\n", fake.take_messages());
}

TEST(Records, RightsAreAskedForByTypeOrByName)
{
	core running;
	for (auto [service, define_name, type, flag, name] :
	     {std::tuple("ssh", "", +GUEST_TYPE, 0, ""),
	      {"ssh", "template", GUEST_TYPE, 0x34, "virtual"},
	      {"mac-auth", "template", -1, -1, "-"}}) { // has them without asking
		vek_event event = make_event(VEK_EVENT_USER_LOGIN, {service, "real", "k"});
		copy_text(event.username, "virtual");
		copy_text(event.define_name, define_name);
		event.match_flag = 0x1234;
		event.type = GUEST_TYPE;
		fake.asked_type = fake.asked_flag = -1;
		fake.asked_name = "-";
		EXPECT_EQ(0, dispatch(event));
		EXPECT_EQ(std::tuple(type, flag, std::string(name)),
			  std::tuple(fake.asked_type, fake.asked_flag, fake.asked_name));
	}
}

} // namespace
