// sessions_test.cpp: sessions through the real sockets: the status, copy, log line and answers of each login
// and logout, the full table, and what a device's day ends and changes. That all of it is wired up is shown
// here, once each; its cases are the unit tests'.
#include "driver.h"

#include <sys/sem.h>
#include <sys/stat.h>

#include <set>

namespace {

using Road = on_device;
using FullPool = on_device;
using Day = on_device;

using names = std::vector<std::string>;
names users(const std::vector<user_info> &found)
{
	names all;
	for (const user_info &session : found)
		all.emplace_back(session.username);
	return all;
}

TEST_F(Road, LoginsAndLogoutsAreCopiedLoggedAndAnswered)
{
	const std::uint32_t home = inet_addr("10.0.0.5");
	std::vector<vek_event> road; // the users have the names of their services
	for (const std::string service : {SERVICE_NAME_CONSOLE, SERVICE_NAME_SSH, SERVICE_NAME_FTP})
		road.push_back(
		    notice(VEK_EVENT_USER_LOGIN, service, service, "u", service == "ftp" ? 0 : home));
	road[2].ip6 = in6addr_loopback;
	road[2].event_flag = VEK_EVENT_FLAG_USED_IPV6_ADDR;
	vekd.start();
	std::vector<subscriber> subscribers(100); // so many that to tell all of them takes its time
	service reporter;
	asker ask;
	for (const vek_event &event : road) {
		EXPECT_EQ(0, reporter.report(event));
		EXPECT_TRUE(subscribers.back().pending()) << "a copy is there before the status";
		for (subscriber &one : subscribers) {
			const vek_event copy = one.next();
			EXPECT_EQ(VEK_EVENT_USER_LOGIN, copy.event);
			EXPECT_STREQ(event.real_username, copy.real_username);
			EXPECT_NE(0, copy.attribute) << "it is the user database's copy";
		}
	}
	EXPECT_EQ(3, ask.count());
	EXPECT_EQ((names{"console", "ftp", "ssh"}), users(ask.all()));
	EXPECT_EQ((names{"ssh"}), users(ask.named("ssh")));
	EXPECT_EQ((names{"ftp"}), users(ask.query(vek_client_query_ip6, &in6addr_loopback)));
	EXPECT_EQ((names{"console", "ssh"}), users(ask.query(vek_client_query_ip, home)));
	EXPECT_EQ((names{"console"}), users(ask.query(vek_client_query_ip_first, home)));
	for (vek_event &event : road) {
		event.event = VEK_EVENT_USER_LOGOUT;
		EXPECT_EQ(0, reporter.report(event));
		EXPECT_EQ(VEK_EVENT_USER_LOGOUT, subscribers[0].next().event);
		EXPECT_EQ(1, reporter.report(event)) << "nobody is left to log out";
	}
	EXPECT_FALSE(subscribers[0].pending());
	EXPECT_EQ(0, ask.count());
	for (const char *line : {"User console console login.", "User ssh ssh login.", "User ftp ftp login.",
				 "User ssh ssh logout", "User ftp (IP:  [::1] ) ftp logout."})
		EXPECT_TRUE(logged(line)) << line;
}

TEST_F(Road, RevocableLogoutWaitsAndCanBeRevoked)
{
	vekd.start();
	service reporter;
	const auto left_after = [&](long seconds) {
		advance(seconds);
		vekd.settle();
		return asker().count();
	};
	reporter.login(SERVICE_NAME_SSH, "alice");
	for (int number : {VEK_EVENT_USER_LOGOUT_REVOCABLE, VEK_EVENT_USER_LOGOUT_REVOKE})
		EXPECT_EQ(1, reporter.report(notice(number, SERVICE_NAME_SSH, "alice")));
	EXPECT_EQ(1, left_after(60));
	reporter.logout(SERVICE_NAME_SSH, "alice");

	// The time comes from a file that others plant.
	const auto takes = [&](int seconds) {
		reporter.login(SERVICE_NAME_SSH, "alice");
		reporter.report(notice(VEK_EVENT_USER_LOGOUT_REVOCABLE, SERVICE_NAME_SSH, "alice"));
		EXPECT_EQ(1, left_after(seconds)) << "not before the time is over";
		EXPECT_EQ(0, left_after(1));
	};
	takes(VEK_DEFAULT_LOGOUT_DEFER_TIME);
	write_file(VEK_LOGOUT_DEFER_TIME, "2\n");
	takes(2);
	EXPECT_FALSE(exists(VEK_LOGOUT_DEFER_TIME));
	ASSERT_EQ(0, mkfifo(VEK_LOGOUT_DEFER_TIME, 0666)); // not opened, which could take for ever
	takes(VEK_DEFAULT_LOGOUT_DEFER_TIME);
	unlink(VEK_LOGOUT_DEFER_TIME);
}

TEST_F(FullPool, RefusesDisplacesAndCleansUp)
{
	write_file(PLATFORM, "mode cloud\n");
	stand_in("/usr/local/bin/dbctl", "echo x 02:00:00:00:00:02\n"); // the stations that are there
	vekd.start();
	service reporter;
	reporter.fill(VEK_MAX_USERS);
	subscriber copies;
	asker ask;
	const names all = users(ask.all());
	EXPECT_EQ(static_cast<std::size_t>(VEK_MAX_USERS), std::set(all.begin(), all.end()).size());
	EXPECT_EQ(1, reporter.login(SERVICE_NAME_SSH, "late"));
	EXPECT_TRUE(
	    eventually([&] { return occurrences(log_lines(), "<25>Failed login attempt to ") == 1; }));
	EXPECT_FALSE(copies.pending());
	EXPECT_EQ(0, reporter.login(SERVICE_NAME_SSH, "admin"));
	EXPECT_EQ(0, reporter.logout(SERVICE_NAME_SSH, "admin"));
	vek_event station = notice(VEK_EVENT_USER_LOGIN, SERVICE_NAME_CAPTIVE_PORTAL, "gone");
	set_text(station.sta_mac, "02:00:00:00:00:01");
	set_text(station.ssid_profile_name, "vap-1");
	EXPECT_EQ(0, reporter.report(station));
	EXPECT_EQ(0, reporter.login(SERVICE_NAME_CAPTIVE_PORTAL, "new"));
	for (const char *user : {"0", "admin", "admin", "gone", "gone", "new"})
		EXPECT_STREQ(user, copies.next().real_username);
	EXPECT_EQ(VEK_MAX_USERS, ask.count());
}

// ---- a day ----

TEST_F(Day, SessionsEndWithTheirProcesses)
{
	stand_in("/util/suexec", "exec \"$@\"\n");
	stand_in("/usr/local/bin/qzsh", "echo \"$@\" >>" + SCRATCH + "commands\n");
	// Some of those have a terminal whose number begins like another's, or are not its shell.
	const process ftp, ssh, telnet, dialin, console, bystanders[4];
	write_file("/proc/consoles", "netcon -W- (E p) 9:9\nttyX0 -W- (EC p a)    204:65\n");
	stand_in("/bin/ps", "cat <<end\nPID TT COMMAND\n" + std::to_string(bystanders[0].pid()) +
				" 136,22 -qzsh\n" + std::to_string(bystanders[1].pid()) +
				" 136,1 /usr/bin/vi\n" + std::to_string(telnet.pid()) + " 136,1 -qzsh\n" +
				std::to_string(ssh.pid()) + " 136,2 -qzsh\n" + std::to_string(dialin.pid()) +
				" 136,3 -qzsh\n" + std::to_string(console.pid()) + " 204,65 -qzsh\nend\n");
	const shared<ClientTerminateList> clients(PUREFTP_IPC_SHM_KEY, IPC_CREAT);
	const int lock = checked(semget(PUREFTP_IPC_KEY, 1, IPC_CREAT | 0666), "semget");
	semctl(lock, 0, SETVAL, 1);
	clients->size = 3;
	for (int i = 0; i < 3; i++) { // another's by a longer name, one from elsewhere, the session's
		clients->list[i].pid = i == 2 ? ftp.pid() : bystanders[2 + i].pid();
		set_text(clients->list[i].username, i == 0 ? "ftpp" : "ftp");
		set_text(clients->list[i].ipaddr, i == 1 ? "10.0.0.77" : "10.0.0.7");
	}
	vekd.start();
	service reporter;
	subscriber copies;
	vek_event login = notice(VEK_EVENT_USER_LOGIN, SERVICE_NAME_TELNET, "telnet", "pts/1");
	login.session_timeout = 60;
	EXPECT_EQ(0, reporter.report(login));
	login = notice(VEK_EVENT_USER_LOGIN, SERVICE_NAME_FTP, "ftp", "f1", inet_addr("10.0.0.7"));
	login.idle_timeout_form_acct_flag = 1;
	login.idle_timeout = 60;
	EXPECT_EQ(0, reporter.report(login));
	copies.next(), copies.next();
	reporter.login(SERVICE_NAME_CONSOLE, "console", "console");
	reporter.login(SERVICE_NAME_DIALIN, "dialin", "/dev/pts/3");
	for (const char *service : {SERVICE_NAME_CONSOLE, SERVICE_NAME_DIALIN}) {
		EXPECT_EQ(0, reporter.logout(service, service));
		copies.next(), copies.next();
	}
	vekd.tick(30);
	EXPECT_FALSE(copies.pending());
	vekd.tick(30 + 22); // idle sessions are looked for on every eleventh tick only
	EXPECT_EQ(VEK_EVENT_USER_LOGOUT2, copies.next().event);
	EXPECT_EQ(VEK_EVENT_USER_IDLE_TIMEOUT, copies.next().event);
	EXPECT_TRUE(logged("User telnet telnet logout (sessoin timeout)"));
	EXPECT_TRUE(logged("User ftp ftp logout (idle timeout)."));

	// An ssh session's terminal is what its shell told; the feature that was on for it goes off.
	write_file("/tmp/sshcon_pts.txt", "2\n");
	EXPECT_EQ(0, reporter.login(SERVICE_NAME_SSH, "alice"));
	vek_event update = notice(VEK_EVENT_UPDATE_SSH_TTY, SERVICE_NAME_SSH, "alice");
	set_text(update.ssh_tty, "pts/2");
	EXPECT_EQ(0, reporter.report(update));
	EXPECT_EQ(0, reporter.logout(SERVICE_NAME_SSH, "alice"));
	EXPECT_EQ("-p 100 -e sshcon disable\n", read_file(SCRATCH + "commands"));
	for (const process *ended : {&telnet, &ftp, &ssh, &dialin, &console})
		EXPECT_TRUE(eventually([&] { return !alive(ended->pid()); }));
	for (const process &bystander : bystanders)
		EXPECT_TRUE(alive(bystander.pid()));
	EXPECT_EQ(2u, clients->size);
	semctl(lock, 0, IPC_RMID);
}

TEST_F(Day, IdleDetectionIsSwitchedWhenTold)
{
	vekd.start();
	const shared<user_config> config(USER_CONFIG_IPC_KEY);
	service().login(SERVICE_NAME_HTTP_HTTPS, "amy");
	asker ask;
	for (bool on : {true, false}) {
		config->enable_idle_detection = on;
		EXPECT_EQ(!on, ask.all().at(0).idle_time != 0);
		vekd.signal(SIGHUP);
		vekd.settle();
		EXPECT_EQ(on, ask.all().at(0).idle_time != 0);
	}
}

} // namespace
