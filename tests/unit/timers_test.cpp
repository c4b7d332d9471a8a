// timers_test.cpp: what ends sessions by themselves, in virtual time: in which order, at which second,
// announced how. What moves their deadlines is the model's, but for idle detection that is switched off and
// on.
#include <gtest/gtest.h>

#include "core.h"
#include "text.h"
#include "vek_fields.h"

namespace {

// Advances the clock and has both time-out events happen.
void tick(std::uint64_t seconds)
{
	seconds_since_boot += seconds;
	dispatch(VEK_EVENT_TIMER_SECOND);
	dispatch(VEK_EVENT_TIMER_10SECONDS);
}

// "event:unique" of each announcement since the last call.
std::string ended()
{
	std::string all;
	for (const vek_event &event : std::exchange(announced, {}))
		if (event.event != VEK_EVENT_USER_LOGIN)
			all += std::to_string(event.event) + ":" + event.unique + " ";
	return all;
}

// The unique keys of a deadline list, first to expire first.
std::string listed(int which)
{
	std::string all;
	const deadline_list &list = userdb_deadline_lists[which];
	for (list_head *link = list.head->next; link != list.head; link = link->next)
		all += std::string(list.entry(link)->uinfo->unique) + " ";
	return all;
}

struct terms {
	int lease = 0, reauth = 0;
	unsigned session = 0;
	int own_idle = -1; // seconds
	int type = USER_TYPE;
};
void log_in(const char *unique, const terms &own, const char *service = "ssh")
{
	vek_event event = make_event(VEK_EVENT_USER_LOGIN, {service, unique, unique, ip4("10.0.0.1")});
	event.default_lease_time = own.lease;
	event.default_reauth_time = own.reauth;
	event.session_timeout = own.session;
	event.type = static_cast<std::uint8_t>(own.type);
	event.idle_timeout_form_acct_flag = own.own_idle >= 0;
	event.idle_timeout = static_cast<unsigned>(own.own_idle);
	ASSERT_EQ(0, dispatch(event));
}

struct Timers : testing::Test {
	core running;
	void TearDown() override { EXPECT_EQ("", check_invariants()); }
};

TEST_F(Timers, ExpiryOrderAndBoundary)
{
	const std::pair<const char *, terms> users[] = {
	    {"l2", {.lease = 2}},  {"l1", {.lease = 1}},      {"s60", {.session = 60}}, {"l1b", {.lease = 1}},
	    {"r1", {.reauth = 1}}, {"i60", {.own_idle = 60}}, {"r1b", {.reauth = 1}}};
	for (const auto &[unique, own] : users)
		log_in(unique, own);
	log_in("every", {.lease = 1, .reauth = 1, .session = 60, .own_idle = 60});
	EXPECT_EQ("l1 l1b every l2 ", listed(DEADLINE_LEASE));
	tick(59);
	EXPECT_EQ("", ended());
	tick(1); // equal to now is due; leases before session time-outs, re-authentication before idle
	EXPECT_EQ("7:l1 7:l1b 7:every 5:s60 6:r1 6:r1b 8:i60 ", ended());
	tick(59);
	EXPECT_EQ("", ended());
	tick(1000);
	EXPECT_EQ("7:l2 ", ended());
	EXPECT_EQ(0, vek_users);
}

// The whole of one announcement, of which the model's telling could repeat a mistake.
TEST_F(Timers, ALeaseTimeOutCarriesTheStation)
{
	fake.mode = WHOPMODE_CLOUD;
	vek_event login = make_event(VEK_EVENT_USER_LOGIN, {"captive portal", "bob", "k"});
	copy_text(login.username, "virtual");
	set_ip6(login, "2001:db8::1");
	login.dst_ip6 = ip6("2001:db8::2");
	login.default_lease_time = 1;
	login.usr_from = FOREIGN_AUTHENTICATED_USER;
	vek_event want = make_event(VEK_EVENT_USER_LEASE_TIMEOUT, {"captive portal", "bob", "k"});
	for (vek_event *event : {&login, &want}) {
		copy_text(event->method, "sns-facebook");
		copy_text(event->locale, "en_GB");
		copy_text(event->gender, "f");
		copy_text(event->age, "42");
		copy_text(event->ssid_name, "guests");
		copy_text(event->ssid_profile_name, "SSID1");
		copy_text(event->ssid_vap_iface, "wlan-1-1");
		copy_text(event->sta_mac, "aa:bb:cc:dd:ee:ff");
	}
	copy_text(want.username, "virtual");
	want.usr_from = FOREIGN_AUTHENTICATED_USER;
	want.notify_cc = DO_NOT_NOTIFY_CC;
	EXPECT_EQ(0, dispatch(login));
	user_info &session = *session_of("k");
	session.usr_flags = VEK_EVENT_FLAG_USED_IPV6_ADDR; // somebody asked for it
	session.tunnel_ip = want.tunnel_ip = 5;
	session.attribute = want.attribute = 3;
	announced.clear();
	tick(60);
	set_ip6(want, "2001:db8::1");
	want.dst_ip6 = login.dst_ip6;
	ASSERT_EQ(1u, announced.size());
	const vek_event got = plain(announced[0]);
	want = plain(want);
	for (const vek_field &field : vek_event_fields)
		EXPECT_EQ(0, std::memcmp(reinterpret_cast<const char *>(&want) + field.offset,
					 reinterpret_cast<const char *>(&got) + field.offset, field.size))
		    << field.name;
}

TEST_F(Timers, IdleDetectionFollowsTheConfigurationBlock)
{
	uconf->enable_idle_detection = 1;
	uconf->max_idle_minute = 3;
	log_in("user", {});
	log_in("own", {.own_idle = 900});
	log_in("limited", {.own_idle = 600, .type = LIMIT_TYPE});
	log_in("admin", {.own_idle = 1000, .type = ADMIN_TYPE});
	log_in("mac", {}, "mac-auth");
	log_in("last", {});
	EXPECT_EQ("user last limited own admin ", listed(DEADLINE_IDLE));
	seconds_since_boot += 20;
	EXPECT_EQ(0, dispatch(VEK_EVENT_UPDATE_IDLE_TIME)); // no address is everybody's
	EXPECT_EQ("last user limited own admin ", listed(DEADLINE_IDLE));
	EXPECT_EQ(seconds_since_boot + 180, session_of("user")->idle_time);
	EXPECT_EQ(seconds_since_boot + 900, session_of("own")->idle_time);
	EXPECT_EQ(1000u + 600, session_of("limited")->idle_time) << "exempt from traffic";

	// Switched off in the block, the signal not yet there: traffic ends the waiting, not the session.
	uconf->enable_idle_detection = 0;
	EXPECT_EQ(0, dispatch(VEK_EVENT_UPDATE_IDLE_TIME));
	EXPECT_EQ("limited own admin ", listed(DEADLINE_IDLE));

	uconf->enable_idle_detection = uconf->max_idle_minute = 1;
	EXPECT_EQ(0, dispatch(VEK_EVENT_CONFIG_CHANGE));
	EXPECT_EQ("last own user ", listed(DEADLINE_IDLE)) << "in session order";
	ended();
	tick(60); // "user" is due too, but behind one that is not
	EXPECT_EQ("8:last ", ended());
}

std::string rhythm;
TEST_F(Timers, TicksOfTheClock)
{
	vek_register_event(VEK_EVENT_TIMER_SECOND, 9,
			   [](vek_event *, vek_socket *) { return rhythm += 's', 0; });
	vek_register_event(VEK_EVENT_TIMER_10SECONDS, 9,
			   [](vek_event *, vek_socket *) { return rhythm += 'T', 0; });
	std::string want;
	for (int call = 1; call <= 363; ++call) {
		want += call % 11 ? "s" : "sT";
		seconds_since_boot = 5000000000;
		vek_tick();
		EXPECT_EQ(call % 181 == 1, seconds_since_boot != 5000000001) << call;
		EXPECT_TRUE(call % 181 != 1 || seconds_since_boot - get_uptime() + 1 <= 2) << call;
	}
	EXPECT_EQ(want, rhythm);
}

} // namespace
