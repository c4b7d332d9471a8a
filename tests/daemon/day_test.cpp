// day_test.cpp: a device's day: everything that ends or changes a session while time passes, by ticks and
// with a clock of the test's own; and the lockout table, which ages beside it.
#include "driver.h"

#include <sys/sem.h>

#include <map>
#include <sstream>

namespace {

using Day = on_device;

using pids = std::vector<pid_t>;
constexpr long MORNING = 100000; // uptime

// The tools that end a session's processes; they say what they were asked.
class device {
public:
	device()
	{
		stand_in("/util/suexec", "echo \"$@\" >>" + SCRATCH + "kills; exec \"$@\"\n");
		stand_in(SCRATCH + "bin/qzsh", "echo \"$@\" >>" + SCRATCH + "commands\n");
		stand_in(SCRATCH + "bin/ps",
			 "echo \"$@\" >>" + SCRATCH + "asked; cat " + SCRATCH + "listing\n");
		write_file(SCRATCH + "consoles", "netcon -W- (E p) 9:9\nttyX0 -W- (EC p a)    204:65\n");
		if (exists("/proc/consoles"))
			consoles_ = std::make_unique<mounted>(SCRATCH + "consoles", "/proc/consoles");
	}
	const char *console_tty() const { return consoles_ != nullptr ? "204,65" : "4,64"; }

	// A process on a terminal, as a shell that serves a session would be.
	pid_t shell(const std::string &tty, const std::string &command = "-qzsh")
	{
		const pid_t pid = processes_.emplace_back().pid();
		listing_ += std::to_string(pid) + " " + tty + " " + command + "\n";
		write_file(SCRATCH + "listing", "PID TT COMMAND\n" + listing_);
		return pid;
	}
	// What the launcher was asked to end, in that order.
	static pids kills()
	{
		std::istringstream lines(read_file(SCRATCH + "kills"));
		pids asked;
		std::string program;
		for (pid_t pid; lines >> program >> pid;)
			asked.push_back(program == "/bin/kill" ? pid : -1);
		return asked;
	}

private:
	std::vector<process> processes_;
	std::string listing_;
	std::unique_ptr<mounted> consoles_;
};

TEST_F(Day, SessionsEndByTimeAndOnTheDevice)
{
	uptime_clock clock(MORNING);
	device box;
	vekd.start();
	service reporter;
	asker ask;
	subscriber copies;
	const auto pass_time = [&](int seconds) {
		for (; seconds > 0; seconds--, vekd.tick())
			clock.advance(1);
	};
	const shared_segment ftp(PUREFTP_IPC_SHM_KEY, sizeof(ClientTerminateList));
	const int ftp_lock = checked(semget(PUREFTP_IPC_KEY, 1, IPC_CREAT | 0666), "semget");
	semctl(ftp_lock, 0, SETVAL, 1);
	auto *table = ftp.as<ClientTerminateList>();

	const pid_t bystanders[] = {box.shell("136,11"), box.shell("136,2"),
				    box.shell("136,1", "/usr/bin/vi"), box.shell("4,1"), box.shell("136,33")};
	// One session of each service that has something to end, each by another clock.
	struct {
		const char *service, *unique;
		int event, sub_event;
		std::string log;
		pid_t pid;
	} endings[] = {
	    {SERVICE_NAME_CONSOLE, "console", VEK_EVENT_USER_LEASE_TIMEOUT, 0, "lease timeout).",
	     box.shell(box.console_tty())},
	    {SERVICE_NAME_TELNET, "pts/1", VEK_EVENT_USER_LOGOUT2, VEK_EVENT_USER_SESSION_TIMEOUT,
	     "sessoin timeout)", box.shell("136,1")},
	    {SERVICE_NAME_DIALIN, "/dev/pts/3", VEK_EVENT_USER_REAUTH_TIMEOUT, 0, "re-auth timeout).",
	     box.shell("136,3")},
	    {SERVICE_NAME_FTP, "f1", VEK_EVENT_USER_IDLE_TIMEOUT, 0, "idle timeout).", box.shell("136,30")},
	    // What a time-out says of an ssh session does not name its terminal.
	    {SERVICE_NAME_SSH, "s1", VEK_EVENT_USER_LEASE_TIMEOUT, 0, "lease timeout).", 0},
	};
	// The ftp server's clients: one from elsewhere, the session's, another's.
	table->size = 3;
	for (int i = 0; i < 3; i++) {
		table->list[i].pid = i == 1 ? endings[3].pid : bystanders[i];
		set_text(table->list[i].username, i == 2 ? "ftpp" : "ftp");
		set_text(table->list[i].ipaddr, i == 0 ? "10.0.0.77" : "10.0.0.7");
	}
	for (const auto &end : endings) {
		vek_event login =
		    notice(VEK_EVENT_USER_LOGIN, end.service, end.service, end.unique, ip4("10.0.0.7"));
		switch (end.event) {
		case VEK_EVENT_USER_LEASE_TIMEOUT: login.default_lease_time = 1; break;
		case VEK_EVENT_USER_REAUTH_TIMEOUT: login.default_reauth_time = 1; break;
		case VEK_EVENT_USER_LOGOUT2: login.session_timeout = 60; break;
		default: login.idle_timeout_form_acct_flag = 1, login.idle_timeout = 60;
		}
		ASSERT_EQ(0, reporter.report(login));
		copies.next();
	}
	for (const char *user : {"dropped", "moved", "renewed"}) {
		vek_event login = notice(VEK_EVENT_USER_LOGIN, SERVICE_NAME_HTTP_HTTPS, user);
		login.default_lease_time = 1;
		reporter.report(login);
		copies.next();
	}
	pass_time(30);
	const std::pair<const char *, int> leases[] = {{"renewed", -1}, {"moved", 5}, {"dropped", 0}};
	for (const auto &[user, minutes] : leases) { // -1: by its own length
		vek_event update = notice(VEK_EVENT_UPDATE_LEASE_TIME, "", user);
		update.update.lease_time = static_cast<std::uint32_t>(minutes);
		EXPECT_EQ(0, reporter.report(update));
	}
	EXPECT_EQ(8, ask.count());
	EXPECT_FALSE(copies.pending());

	pass_time(30 + 11); // two of the kinds are looked at on every eleventh tick only
	EXPECT_EQ(3, ask.count());
	std::map<std::string, vek_event> announced;
	while (copies.pending()) {
		const vek_event copy = copies.next();
		announced[copy.real_username] = copy;
	}
	for (const auto &end : endings) {
		const vek_event &copy = announced[end.service];
		EXPECT_EQ(end.event, copy.event) << end.service;
		EXPECT_EQ(end.sub_event, copy.sub_event) << end.service;
		EXPECT_STREQ(end.unique, copy.unique);
		EXPECT_TRUE(
		    log->has("User " + std::string(end.service) + " " + end.service + " logout (" + end.log));
		EXPECT_TRUE(end.pid == 0 || eventually([&] { return !alive(end.pid); })) << end.service;
	}
	EXPECT_EQ(4u, device::kills().size());
	for (pid_t pid : bystanders)
		EXPECT_TRUE(alive(pid));
	EXPECT_EQ(2u, table->size);
	EXPECT_EQ(bystanders[2], table->list[1].pid);
	EXPECT_TRUE(read_file(SCRATCH + "asked").starts_with("-o pid,tty,args\n"));

	pass_time(30); // the renewed one's minute began half a minute later
	EXPECT_EQ(2, ask.count());
	EXPECT_STREQ("renewed", copies.next().real_username);
	pass_time(300); // longer than the daemon counts without a look at the clock
	EXPECT_STREQ("moved", copies.next().real_username);
	EXPECT_EQ(1, ask.count());
	semctl(ftp_lock, 0, IPC_RMID);
}

TEST_F(Day, SshSessionsEndOnTheTerminalThatTheShellTold)
{
	device box;
	vekd.start();
	service reporter;
	const auto leave = [&](const std::string &tty) {
		reporter.login(SERVICE_NAME_SSH, "alice", "s1");
		vek_event update = notice(VEK_EVENT_UPDATE_SSH_TTY, SERVICE_NAME_SSH, "alice", "s1");
		set_text(update.ssh_tty, tty);
		EXPECT_EQ(0, reporter.report(update));
		EXPECT_EQ(0, reporter.logout(SERVICE_NAME_SSH, "alice", "s1"));
	};
	const pid_t longer = box.shell("136,22"); // than another's number, and listed before it
	const pids shells = {box.shell("136,2"), box.shell("136,5")};

	write_file("/tmp/sshcon_pts.txt", "2\n");
	leave("pts/5"); // the feature is another's
	EXPECT_EQ("", read_file(SCRATCH + "commands"));
	leave("pts/2");
	EXPECT_EQ((pids{shells[1], shells[0]}), device::kills());
	EXPECT_EQ("-p 100 -e sshcon disable\n", read_file(SCRATCH + "commands"));
	for (const char *tty : {"pts/7", "pts/", "", "pts/2;reboot", "pts/22222222222"})
		leave(tty);
	EXPECT_EQ(2u, device::kills().size());
	EXPECT_TRUE(alive(longer));
}

TEST_F(Day, ConfigurationRoamingAndRenaming)
{
	platform("mode cloud\n");
	uptime_clock clock(MORNING);
	vekd.start();
	service reporter;
	asker ask;
	const std::uint32_t home = ip4("10.0.0.1"), used = ip4("10.0.0.2"), unused = ip4("10.0.0.3");
	const auto login = [&](const std::string &user, std::uint32_t ip) {
		vek_event event = notice(VEK_EVENT_USER_LOGIN, SERVICE_NAME_CAPTIVE_PORTAL, user, user, ip);
		set_text(event.sta_mac, "02:00:00:00:00:0" + std::to_string(user.size()));
		set_text(event.ssid_profile_name, "vap-1");
		set_text(event.radius_profile_name, "radius-" + user);
		EXPECT_EQ(0, reporter.report(event));
		return event;
	};
	login("amy", home);
	vek_event rover = login("rover", home);
	login("bart", used);
	rover.event = VEK_EVENT_UPDATE_ROAMING_STA_IP;
	for (std::uint32_t to : {unused, unused, used, home}) { // nobody there, where it is, shared, and back
		rover.ip = to;
		EXPECT_EQ(0, reporter.report(rover));
		for (std::uint32_t place : {home, used, unused})
			EXPECT_EQ((place != unused) + (place == to), static_cast<int>(ask.at(place).size()));
		EXPECT_EQ(to, ask.only("rover").ip);
	}

	vek_event rename = notice(VEK_EVENT_RENAME_RADIUS_PROFILE_NAME, "", "");
	set_text(rename.old_radius_profile_name, "radius-amy");
	set_text(rename.radius_profile_name, "new");
	EXPECT_EQ(0, reporter.report(rename));
	EXPECT_STREQ("new", ask.only("amy").radius_profile_name);
	EXPECT_STREQ("radius-bart", ask.only("bart").radius_profile_name);

	// Idle detection is switched in the shared block, and counts when the daemon is told.
	const shared_segment block(USER_CONFIG_IPC_KEY);
	block.as<user_config>()->max_idle_minute = 1;
	for (bool on : {true, false, true}) {
		block.as<user_config>()->enable_idle_detection = on;
		EXPECT_EQ(!on, ask.only("amy").idle_time != 0);
		vekd.signal(SIGHUP);
		vekd.settle();
		EXPECT_EQ(on, ask.only("amy").idle_time != 0);
	}
	subscriber copies;
	vekd.tick(35);
	EXPECT_EQ(0, reporter.report(notice(VEK_EVENT_UPDATE_IDLE_TIME, "", "", "", home)));
	vekd.tick(40);
	EXPECT_EQ(2, ask.count());
	const vek_event copy = copies.next();
	EXPECT_EQ(VEK_EVENT_USER_IDLE_TIMEOUT, copy.event);
	EXPECT_STREQ("bart", copy.real_username);
}

TEST_F(Day, LockoutsAgeAtTheirSecond)
{
	uptime_clock clock(MORNING);
	vekd.start();
	const shared_segment shared(USER_LOCK_IPC_KEY);
	auto *table = shared.as<user_lock>();
	// The last places of the tables, so that all of them are looked at.
	lockout_record *lockouts = table->lockout_rec + MAX_LOCKOUT_RECORD - 2;
	attempt_record *attempts = table->attempt_rec + MAX_ATTEMPT_RECORD - 2;
	lockouts[0] = {}, lockouts[1] = {}, attempts[0] = {}, attempts[1] = {};
	for (int i = 0; i < 2; i++) {
		lockouts[i].inuse = attempts[i].inuse = true;
		lockouts[i].ip = attempts[i].ip = 1;
		lockouts[i].time = static_cast<std::uint64_t>(MORNING + i);      // until when
		attempts[i].time = static_cast<std::uint64_t>(MORNING - 60 + i); // since when
	}
	vekd.tick(11);
	EXPECT_EQ(1u, lockouts[0].ip) << "lockout is not enabled";
	table->enable = 1;
	vekd.tick(11);
	for (unsigned i = 0; i < 2; i++) {
		EXPECT_EQ(i, lockouts[i].ip);
		EXPECT_EQ(i, attempts[i].ip);
	}
}

} // namespace
