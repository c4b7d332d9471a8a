// driver.cpp: see driver.h. This process adopts what the daemon leaves behind (it is a subreaper), so that
// the detached daemon's end can be waited for and nothing lives on unseen.
#include "driver.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

static sockaddr_un address_of(const char *path)
{
	sockaddr_un address{};
	address.sun_family = AF_UNIX;
	set_text(address.sun_path, path);
	return address;
}

int checked(int result, const std::string &what)
{
	if (result < 0)
		throw std::runtime_error(what + ": " + std::strerror(errno));
	return result;
}

bool eventually(const std::function<bool()> &condition, milliseconds limit)
{
	const auto end = steady::now() + limit;
	while (!condition()) {
		if (steady::now() > end)
			return false;
		std::this_thread::sleep_for(2ms);
	}
	return true;
}

double ms_since(steady::time_point start)
{
	return std::chrono::duration<double, std::milli>(steady::now() - start).count();
}

int setting(const char *name, int otherwise)
{
	const char *text = std::getenv(name);
	return text != nullptr ? std::atoi(text) : otherwise;
}

// ---- files ----

void write_file(const std::string &path, const std::string &text, mode_t mode)
{
	std::ofstream file(path, std::ios::trunc);
	checked((file << text).flush() ? 0 : -1, path);
	chmod(path.c_str(), mode);
}

std::string read_file(const std::string &path)
{
	std::ifstream file(path);
	return {std::istreambuf_iterator<char>(file), {}};
}

bool exists(const std::string &path)
{
	struct stat status;
	return lstat(path.c_str(), &status) == 0;
}

int occurrences(const std::string &text, const std::string &of)
{
	int count = 0;
	for (std::size_t at = 0; (at = text.find(of, at)) != text.npos; at++)
		count++;
	return count;
}

// ---- what the daemon finds on a device ----

void stand_in(const std::string &program, const std::string &script)
{
	std::filesystem::create_directories(std::filesystem::path(program).parent_path());
	write_file(program, "#!/bin/sh\n" + script, 0755);
}

// In place and at one length, so that nobody ever reads half of it.
void uptime_clock::advance(long seconds)
{
	char text[32];
	const int length = std::snprintf(text, sizeof(text), "%010ld.00 0000.00\n", now_ += seconds);
	const owned_fd file(open((SCRATCH + "uptime").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
	checked(static_cast<int>(pwrite(file, text, static_cast<std::size_t>(length), 0)), "the uptime");
	if (file_ == nullptr)
		file_ = std::make_unique<mounted>(SCRATCH + "uptime", "/proc/uptime");
}

// ---- processes ----

bool alive(pid_t pid)
{
	waitpid(pid, nullptr, WNOHANG);
	const std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
	const std::size_t name_end = stat.rfind(')');
	return name_end != stat.npos && stat[name_end + 2] != 'Z' && stat[name_end + 2] != 'X';
}

int descriptors(pid_t pid)
{
	const std::filesystem::directory_iterator fds("/proc/" + std::to_string(pid) + "/fd");
	return static_cast<int>(std::distance(begin(fds), end(fds)));
}

process::process() : process([] { execl("/bin/sleep", "sleep", "1000", nullptr); }) {}

process::process(const std::function<void()> &body) : pid_(checked(fork(), "fork"))
{
	if (pid_ != 0)
		return;
	prctl(PR_SET_PDEATHSIG, SIGKILL);
	body();
	_exit(0);
}

process::~process()
{
	if (pid_ <= 0)
		return;
	kill(pid_, SIGKILL);
	waitpid(pid_, nullptr, 0);
}

// The exit status of a child, or 1000 and the signal that ended it.
static int status_of(pid_t pid)
{
	int status = 0;
	if (!eventually([&] { return waitpid(pid, &status, WNOHANG) != 0; }))
		throw std::runtime_error("process " + std::to_string(pid) + " does not end");
	return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

int process::status() { return status_of(std::exchange(pid_, -1)); }

std::unique_ptr<process> as_nobody(const std::function<void()> &body)
{
	constexpr uid_t NOBODY = 65534;
	if (process([] { _exit(setuid(NOBODY) == 0 ? 0 : 1); }).status() != 0)
		return nullptr;
	return std::make_unique<process>([&body] {
		if (setuid(NOBODY) < 0)
			_exit(1);
		prctl(PR_SET_PDEATHSIG, SIGKILL); // the change of user took it back
		body();
	});
}

// ---- records ----

in6_addr ip6(const char *text)
{
	in6_addr address{};
	inet_pton(AF_INET6, text, &address);
	return address;
}

vek_event notice(int number, const std::string &service, const std::string &user, const std::string &unique,
		 std::uint32_t ip)
{
	vek_event event{};
	event.event = number;
	set_text(event.service, service);
	set_text(event.username, user);
	set_text(event.real_username, user);
	set_text(event.unique, unique);
	event.ip = ip;
	event.type = USER_TYPE;
	return event;
}

// ---- clients ----

client opened(vek_client *(*open)(int))
{
	client connection(open(static_cast<int>(LIMIT.count())));
	checked(connection != nullptr ? 0 : -1, "connect to the daemon");
	return connection;
}

user_info asker::only(const std::string &user)
{
	const sessions found = named(user);
	if (found.size() != 1)
		throw std::runtime_error(std::to_string(found.size()) + " sessions of " + user);
	return found[0];
}

owned_fd connect_to(const char *path)
{
	owned_fd fd(checked(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
	const timeval limit{std::chrono::duration_cast<std::chrono::seconds>(LIMIT).count(), 0};
	setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
	const sockaddr_un address = address_of(path);
	checked(connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), path);
	return fd;
}

bool ended_by_daemon(int fd)
{
	pollfd end{fd, POLLRDHUP, 0};
	return poll(&end, 1, 0) > 0;
}

std::string read_to_end(int fd)
{
	std::string all;
	char part[65536];
	for (ssize_t got; (got = recv(fd, part, sizeof(part), 0)) > 0;)
		all.append(part, static_cast<std::size_t>(got));
	return all;
}

double latencies::percentile(double part) const
{
	if (ms_.empty())
		return 0;
	std::vector<double> sorted = ms_;
	std::ranges::sort(sorted);
	return sorted[static_cast<std::size_t>(part * static_cast<double>(sorted.size() - 1))];
}

void latencies::print(const char *what) const
{
	std::printf("%s: %zu calls, median %.2f ms, p99 %.2f ms, worst %.2f ms\n", what, ms_.size(),
		    percentile(0.5), percentile(0.99), worst());
}

// ---- the system log ----

owned_fd log_socket()
{
	unlink("/dev/log");
	owned_fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
	const sockaddr_un address = address_of("/dev/log");
	checked(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), "/dev/log");
	return fd;
}

system_log::system_log()
{
	reader_ = std::jthread([this](const std::stop_token &stop) {
		pollfd ready{socket_, POLLIN, 0};
		while (!stop.stop_requested())
			if (poll(&ready, 1, 20) > 0)
				lines();
	});
}

system_log::~system_log() { unlink("/dev/log"); }

std::vector<std::string> system_log::lines()
{
	const std::lock_guard lock(mutex_);
	char line[8192];
	for (ssize_t length; (length = recv(socket_, line, sizeof(line), MSG_DONTWAIT)) > 0;) {
		std::string text(line, static_cast<std::size_t>(length));
		// Between the priority and the text stand the time and the program.
		if (const std::size_t program = text.find("]: "); program != text.npos)
			text.erase(text.find('>') + 1, program + 2 - text.find('>'));
		lines_.push_back(text);
	}
	return lines_;
}

bool system_log::has(const std::string &text, int priority)
{
	const std::string line = "<" + std::to_string(priority) + ">" + text;
	return eventually([&] { return std::ranges::count(lines(), line) > 0; });
}

void system_log::clear()
{
	lines();
	const std::lock_guard lock(mutex_);
	lines_.clear();
}

// ---- the daemon ----

void daemon_process::spawn(const words &arguments, const words &environment)
{
	static int starts;
	const char *binary = std::getenv("VEKD");
	prctl(PR_SET_CHILD_SUBREAPER, 1);
	output_file_ = SCRATCH + "output" + std::to_string(++starts);
	words words_of[] = {{binary}, environment};
	words_of[0].insert(words_of[0].end(), arguments.begin(), arguments.end());
	for (const std::string &variable :
	     {"PATH=" + SCRATCH + "bin:" + std::getenv("PATH"), "ASAN_OPTIONS=log_path=" + SCRATCH + "report",
	      "UBSAN_OPTIONS=print_stacktrace=1:log_path=" + SCRATCH + "report"})
		words_of[1].push_back(variable);
	std::vector<char *> texts[2];
	for (int i : {0, 1}) {
		for (std::string &word : words_of[i])
			texts[i].push_back(word.data());
		texts[i].push_back(nullptr);
	}
	pid_ = checked(fork(), "fork");
	if (pid_ != 0)
		return;
	dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
	dup2(open(output_file_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644), STDOUT_FILENO);
	dup2(STDOUT_FILENO, STDERR_FILENO);
	closefrom(3);
	execve(binary, texts[0].data(), texts[1].data());
	_exit(126);
}

int daemon_process::status_of_end()
{
	const int status = status_of(pid_);
	pid_ = -1;
	return status;
}

void daemon_process::start(const words &arguments, const words &environment)
{
	spawn(arguments, environment);
	// Detaching, the process we started leaves another behind.
	const bool up = (!arguments.empty() || status_of_end() == 0) && eventually([this] {
				const pid_t written = std::atoi(read_file(VEK_PID_FILE).c_str());
				if (written > 0)
					pid_ = written;
				return written > 0;
			});
	checked(up ? 0 : -1, "the daemon does not start: " + output());
	own_ = std::make_unique<asker>();
	own_->count();
	niceness_ = getpriority(PRIO_PROCESS, static_cast<id_t>(pid_));
	setpriority(PRIO_PROCESS, static_cast<id_t>(pid_), 0);
}

// ---- a test on a device of its own ----

// Processes of this sandbox beside its first and this one.
static std::string other_processes()
{
	std::string others;
	for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
		const pid_t pid = std::atoi(entry.path().filename().c_str());
		if (pid > 1 && pid != getpid() && alive(pid))
			others += std::to_string(pid) + " " + read_file(entry.path() / "comm");
	}
	return others;
}

// What the sanitizers had to say, in whichever process.
static std::string reports()
{
	std::string all;
	for (const auto &entry : std::filesystem::directory_iterator(SCRATCH))
		if (entry.path().filename().string().starts_with("report"))
			all += read_file(entry.path());
	return all;
}

on_device::on_device()
{
	std::filesystem::remove_all(SCRATCH);
	std::filesystem::create_directories(SCRATCH + "bin");
	for (const char *left :
	     {"/tmp/logout_defer_time.txt", "/tmp/sshcon_pts.txt", "/etc/vekd/platform.conf", "/util/suexec",
	      "/usr/local/bin/dbctl", VEK_PID_FILE, VEK_ADDRESS_NOTIFY, VEK_ADDRESS_REQUEST})
		unlink(left);
}

void on_device::TearDown()
{
	if (vekd.pid() > 0 && alive(vekd.pid())) {
		EXPECT_EQ(0, vekd.stop());
		EXPECT_FALSE(exists(VEK_PID_FILE));
		EXPECT_FALSE(segment_exists(USER_CONFIG_IPC_KEY));
		EXPECT_FALSE(segment_exists(USER_LOCK_IPC_KEY));
		EXPECT_LT(semget(USER_LOCK_IPC_KEY, 1, 0), 0);
	} else {
		EXPECT_LT(vekd.pid(), 0) << "the daemon died";
	}
	EXPECT_EQ("", reports());
	eventually([] { return other_processes().empty(); }, 2s); // what was killed may still be going
	EXPECT_EQ("", other_processes());
	if (!HasFailure())
		return;
	const std::string output = vekd.output();
	std::cout << "the daemon's output ends:\n"
		  << output.substr(output.size() - std::min<std::size_t>(output.size(), 2000));
}

void on_device::platform(const std::string &settings)
{
	write_file("/etc/vekd/new", settings);
	std::filesystem::rename("/etc/vekd/new", "/etc/vekd/platform.conf");
	std::this_thread::sleep_for(20ms); // the daemon looks once in a tick of the coarse clock
}

void on_device::fill(service &reporter, int wanted)
{
	char user[16];
	for (int i = 0; i < wanted; i++) {
		std::snprintf(user, sizeof(user), "u%04d", i);
		ASSERT_EQ(0, reporter.login(SERVICE_NAME_HTTP_HTTPS, user, user, htonl(0x0a000000u + i)));
	}
}

int main(int argc, char **argv)
{
	// Not on a real machine.
	if (read_file("/proc/1/cmdline").find("scripts/sandbox") == std::string::npos) {
		std::fprintf(stderr, "%s: run it through scripts/sandbox, with VEKD=the daemon's binary\n",
			     argv[0]);
		return 2;
	}
	write_file("/run/ps", "#!/bin/sh\nexec " + SCRATCH + "bin/ps \"$@\"\n", 0755);
	const mounted ps("/run/ps", "/bin/ps");
	testing::InitGoogleTest(&argc, argv);
	return RUN_ALL_TESTS();
}
