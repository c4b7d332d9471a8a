// road_test.cpp: the road of logins and logouts through the real sockets: status, copies, log lines, answers;
// and what happens when the table is full.
#include "driver.h"

#include <sys/stat.h>

#include <climits>

namespace {

using Road = on_device;
using FullPool = on_device;

constexpr int ALERT = 25; // facility and priority of a syslog line

using names = std::vector<std::string>;
names users(const sessions &found)
{
	names all;
	for (const user_info &session : found)
		all.emplace_back(session.username);
	return all;
}

vek_event station(const std::string &user, const std::string &mac, const std::string &auth_time = "")
{
	vek_event event =
	    notice(VEK_EVENT_USER_LOGIN, SERVICE_NAME_CAPTIVE_PORTAL, user, mac, ip4("10.1.0.1"));
	set_text(event.sta_mac, mac);
	set_text(event.ssid_profile_name, "vap-1");
	set_text(event.auth_time, auth_time);
	event.usr_from = auth_time.empty() ? LOCAL_AUTHENTICATED_USER : FOREIGN_AUTHENTICATED_USER;
	return event;
}

TEST_F(Road, LoginsAndLogoutsAreCopiedLoggedAndAnswered)
{
	struct {
		vek_event event;
		int attribute;
		const char *login, *logout;
	} road[] = {
	    {notice(VEK_EVENT_USER_LOGIN, SERVICE_NAME_CONSOLE, "admin", "console", ADDR_NAME_CONSOLE), 3,
	     "Administrator admin console login.", "Administrator admin console logout"},
	    {notice(VEK_EVENT_USER_LOGIN, SERVICE_NAME_SSH, "alice", "pts/3", ip4("10.0.0.5")), 2,
	     "User alice ssh login.", "User alice ssh logout"},
	    {notice(VEK_EVENT_USER_LOGIN, SERVICE_NAME_HTTP_HTTPS, "carol", "77"), 2,
	     "Guest carol http/https login.", "Guest carol (IP:  [2001:db8::7] ) http/https logout."},
	};
	road[0].event.type = ADMIN_TYPE;
	set_text(road[1].event.username, "virtual"); // the account stays "alice"
	road[2].event.type = GUEST_TYPE;
	road[2].event.ip6 = ip6("2001:db8::7");
	road[2].event.event_flag = VEK_EVENT_FLAG_USED_IPV6_ADDR;

	vekd.start();
	EXPECT_EQ(19, vekd.niceness());
	subscriber first, second;
	service reporter;
	asker ask;
	for (const auto &one : road) {
		EXPECT_EQ(0, reporter.report(one.event));
		for (subscriber *copies : {&first, &second}) {
			const vek_event copy = copies->next();
			EXPECT_EQ(VEK_EVENT_USER_LOGIN, copy.event);
			EXPECT_STREQ(one.event.real_username, copy.real_username);
			EXPECT_EQ(one.attribute, copy.attribute);
		}
		EXPECT_TRUE(log->has(one.login)) << one.login;
	}

	ASSERT_EQ(0, reporter.login(SERVICE_NAME_FTP, "dave", "", ip4("10.0.0.5")));
	first.next();
	EXPECT_EQ(4, ask.count());
	EXPECT_EQ((names{"admin", "alice", "carol", "dave"}), users(ask.all()));
	const user_info alice = ask.only("alice");
	EXPECT_STREQ(SERVICE_NAME_SSH, alice.service);
	EXPECT_STREQ("virtual", alice.virtual_username);
	EXPECT_STREQ("pts/3", alice.unique);
	EXPECT_EQ(ip4("10.0.0.5"), alice.ip);
	EXPECT_TRUE(ask.named("virtual").empty());
	EXPECT_EQ((names{"carol"}), users(ask.at(ip6("2001:db8::7"))));
	EXPECT_EQ(3u, ask.at(ip6("::")).size());
	EXPECT_EQ((names{"alice", "dave"}), users(ask.at(ip4("10.0.0.5"))));
	EXPECT_EQ((names{"alice"}), users(ask.first_at(ip4("10.0.0.5"))));

	for (auto &one : road) {
		one.event.event = VEK_EVENT_USER_LOGOUT;
		set_text(one.event.username, one.event.real_username);
		EXPECT_EQ(0, reporter.report(one.event));
		const vek_event copy = first.next();
		EXPECT_EQ(VEK_EVENT_USER_LOGOUT, copy.event);
		EXPECT_STREQ(one.event.unique, copy.unique);
		EXPECT_TRUE(log->has(one.logout)) << one.logout;
		EXPECT_EQ(1, reporter.report(one.event)) << "nobody is left to log out";
	}
	EXPECT_FALSE(first.pending());
	EXPECT_EQ((names{"dave"}), users(ask.all()));
}

TEST_F(Road, SocialLoginWebLogoutAndAChangeOfMode)
{
	vekd.start();
	service reporter;
	subscriber copies;
	vek_event login =
	    notice(VEK_EVENT_USER_SOCIAL_LOGIN_STAGE1, SERVICE_NAME_SOCIAL_LOGIN_FB, "zoe", "z");
	EXPECT_EQ(1, reporter.report(login));
	EXPECT_FALSE(copies.pending());
	EXPECT_EQ(names{}, log->lines());
	login.event = VEK_EVENT_USER_SOCIAL_LOGIN_STAGE2;
	EXPECT_EQ(0, reporter.report(login));
	EXPECT_EQ(VEK_EVENT_USER_SOCIAL_LOGIN_STAGE2, copies.next().event);
	EXPECT_TRUE(log->has("User zoe social login fb login."));

	reporter.login(SERVICE_NAME_CAPTIVE_PORTAL, "zoe", "two");
	copies.next();
	EXPECT_EQ(1, reporter.report(notice(VEK_EVENT_WEB_USER_LOGOUT, "", "zoe")));
	for (const char *unique : {"z", "two"}) {
		const vek_event copy = copies.next();
		EXPECT_EQ(VEK_EVENT_USER_LOGOUT, copy.event);
		EXPECT_STREQ(unique, copy.unique);
	}
	EXPECT_EQ(0, asker().count());

	// An edit of the settings counts at once. Who was authenticated elsewhere is not logged here.
	platform("mode cloud\n");
	EXPECT_EQ(0, reporter.report(station("undefined", "02:00:00:00:00:02")));
	EXPECT_TRUE(log->has("User N/A (MAC: 02:00:00:00:00:02, IP: 10.1.0.1) captive portal login."));
	log->clear();
	EXPECT_EQ(0, reporter.report(station("faraway", "02:00:00:00:00:03", "1000")));
	EXPECT_EQ(names{}, log->lines());
}

// ---- logouts that wait ----

TEST_F(Road, RevocableLogoutWaitsAndCanBeRevoked)
{
	uptime_clock clock(100000);
	vekd.start();
	service reporter;
	asker ask;
	const vek_event logout =
	    notice(VEK_EVENT_USER_LOGOUT_REVOCABLE, SERVICE_NAME_SSH, "alice", "pts/1", ip4("10.0.0.1"));
	reporter.login(logout.service, logout.username, logout.unique, logout.ip);
	subscriber copies;
	const auto left_after = [&](long seconds) {
		clock.advance(seconds);
		vekd.settle();
		return ask.count();
	};

	for (int i = 0; i < 2; i++)
		EXPECT_EQ(1, reporter.report(logout));
	vek_event revoke = logout;
	revoke.event = VEK_EVENT_USER_LOGOUT_REVOKE;
	EXPECT_EQ(1, reporter.report(revoke)); // takes both
	EXPECT_EQ(1, left_after(60));

	reporter.report(logout);
	vek_event others[] = {revoke, revoke, revoke, revoke};
	others[0].ip++, others[1].unique[0]++, others[2].service[0]++, others[3].username[0]++;
	for (const vek_event &other : others)
		EXPECT_EQ(1, reporter.report(other));
	EXPECT_EQ(1, left_after(VEK_DEFAULT_LOGOUT_DEFER_TIME)) << "not before the time is over";
	EXPECT_EQ(0, left_after(1));
	EXPECT_EQ(VEK_EVENT_USER_LOGOUT, copies.next().event);
	EXPECT_TRUE(log->has("User alice ssh logout"));

	// The time comes from a file that others plant.
	const std::string victim = SCRATCH + "victim";
	const char *file = VEK_LOGOUT_DEFER_TIME;
	struct {
		const char *text; // or what stands there instead
		int seconds;
		bool taken; // and removed
	} files[] = {{"2\n", 2, true},   {"", 2, true},      {"soon\n", 5, true},
		     {" 20 ", 20, true}, {"link", 5, false}, {"pipe", 5, false}};
	write_file(victim, "7");
	for (const auto &[text, seconds, taken] : files) {
		if (text == std::string("link"))
			EXPECT_EQ(0, symlink(victim.c_str(), file));
		else if (text == std::string("pipe"))
			EXPECT_EQ(0, mkfifo(file, 0666));
		else if (*text != '\0')
			write_file(file, text);
		reporter.login(SERVICE_NAME_SSH, "alice", "pts/1", logout.ip);
		reporter.report(logout);
		EXPECT_EQ(1, left_after(seconds)) << text;
		EXPECT_EQ(0, left_after(1)) << text;
		EXPECT_EQ(!taken, exists(file)) << text;
		unlink(file);
	}
	EXPECT_EQ("7", read_file(victim));
}

// ---- the full table ----

TEST_F(FullPool, RefusesDisplacesAndCleansUp)
{
	platform("mode cloud\nmac 02:00:5e:10:00:01\n");
	// One list is asked for twice: the stations, and the times they came, row for row.
	stand_in("/usr/local/bin/dbctl", "cd " + SCRATCH + "; echo \"$2\" >>tables\n" +
					     "case \"$*\" in *\"-f AUTH_TIME\"*) sed 's/.*/x 1/' macs;;"
					     " *) cat macs;; esac\n");
	vekd.start();
	service reporter;
	asker ask;
	fill(reporter, VEK_MAX_USERS - 3);
	const char *mac[] = {"02:00:00:00:00:01", "02:00:00:00:00:02", "02:00:00:00:00:03"};
	for (int i : {2, 0, 1})
		reporter.report(station("sta" + std::to_string(i), mac[i], std::to_string(10 * i + 10)));
	subscriber copies;
	char host[HOST_NAME_MAX + 1]{};
	gethostname(host, sizeof(host) - 1);

	EXPECT_EQ(1, reporter.login(SERVICE_NAME_SSH, "late"));
	EXPECT_TRUE(log->has("Failed login attempt to " + std::string(host) +
				 " from ssh (reach the maximum number of user)",
			     ALERT));
	EXPECT_FALSE(copies.pending());
	EXPECT_EQ(VEK_MAX_USERS, ask.count());

	// The third in the order of authentication is where tree and list part.
	write_file(SCRATCH + "macs", "x " + std::string(mac[0]) + "\nx nothing\nx " + mac[1] + "\n");
	EXPECT_EQ(0, reporter.report(station("late1", "02:00:00:00:01:01", "99")));
	const vek_event gone = copies.next();
	EXPECT_EQ(VEK_EVENT_USER_LOGOUT, gone.event);
	EXPECT_STREQ(mac[2], gone.sta_mac);
	EXPECT_EQ(DO_NOT_NOTIFY_CC, gone.notify_cc);
	EXPECT_STREQ("late1", copies.next().real_username);
	EXPECT_EQ("STA_STATISTIC-02:00:5e:10:00:01\nSTA_STATISTIC-02:00:5e:10:00:01\n",
		  read_file(SCRATCH + "tables"));

	platform("mode standalone\n");
	EXPECT_EQ(0, reporter.login(SERVICE_NAME_SSH, "admin"));
	const vek_event displaced = copies.next();
	EXPECT_EQ(VEK_EVENT_USER_LOGOUT, displaced.event);
	EXPECT_STREQ("u0000", displaced.real_username);
	EXPECT_STREQ("admin", copies.next().real_username);
	EXPECT_TRUE(log->has("User u0000 http/https logout"));
	EXPECT_TRUE(log->has("User admin ssh login."));
	EXPECT_EQ(static_cast<std::size_t>(VEK_MAX_USERS), ask.all().size());
}

} // namespace
