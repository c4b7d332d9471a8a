// driver.cpp: see driver.h. This process adopts what the daemon leaves behind (it is a subreaper), so that
// the detached daemon's end can be waited for and nothing lives on unseen.
#include "driver.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

int checked(int result, const std::string &what)
{
	if (result < 0)
		throw std::runtime_error(what + ": " + std::strerror(errno));
	return result;
}

bool eventually(const std::function<bool()> &condition, std::chrono::milliseconds limit)
{
	const auto end = steady::now() + limit;
	while (!condition()) {
		if (steady::now() > end)
			return false;
		std::this_thread::sleep_for(2ms);
	}
	return true;
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

int occurrences(const std::string &text, const std::string &of)
{
	int count = 0;
	for (std::size_t at = 0; (at = text.find(of, at)) != text.npos; at++)
		count++;
	return count;
}

// ---- processes ----

bool alive(pid_t pid)
{
	waitpid(pid, nullptr, WNOHANG);
	const std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
	const std::size_t name_end = stat.rfind(')');
	return name_end != stat.npos && stat[name_end + 2] != 'Z' && stat[name_end + 2] != 'X';
}

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

// ---- clients ----

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

std::string raw::read(std::size_t most)
{
	std::string all;
	char part[65536];
	for (pollfd ready{fd(), POLLIN, 0}; all.size() < most && poll(&ready, 1, LIMIT / 1ms) > 0;) {
		const ssize_t got = recv(fd(), part, std::min(sizeof(part), most - all.size()), MSG_DONTWAIT);
		if (got <= 0)
			break;
		all.append(part, static_cast<std::size_t>(got));
	}
	return all;
}

// ---- the daemon ----

int daemon_process::run(const std::string &option, bool aside)
{
	static int starts;
	output_file_ = SCRATCH + "output" + std::to_string(++starts);
	return process([&] {
		       if (aside && fork() > 0)
			       _exit(0);
		       dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
		       dup2(open(output_file_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644), STDOUT_FILENO);
		       dup2(STDOUT_FILENO, STDERR_FILENO);
		       closefrom(3);
		       const char *binary = std::getenv("VEKD");
		       execl(binary, binary, option.empty() ? nullptr : option.c_str(), nullptr);
		       _exit(126);
	       })
	    .status();
}

void daemon_process::start(const std::string &option)
{
	const bool up = run(option, !option.empty()) == 0 && eventually([this] {
				pid_ = std::atoi(read_file(VEK_PID_FILE).c_str());
				return pid_ > 0;
			});
	checked(up ? 0 : -1, "the daemon does not start: " + output());
	own_ = std::make_unique<asker>();
	own_->count();
	EXPECT_EQ(19, getpriority(PRIO_PROCESS, static_cast<id_t>(pid_)));
	setpriority(PRIO_PROCESS, static_cast<id_t>(pid_), 0);
}

int daemon_process::stop(int with)
{
	own_.reset();
	signal(with);
	return status_of(std::exchange(pid_, -1));
}

// ---- a test on a device of its own ----

static void read_log()
{
	const int socket = ::socket(AF_UNIX, SOCK_DGRAM, 0);
	const sockaddr_un address = {AF_UNIX, "/dev/log"};
	bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof(address));
	std::ofstream file(SCRATCH + "log", std::ios::app);
	char line[8192];
	for (ssize_t length; (length = recv(socket, line, sizeof(line), 0)) > 0;) {
		std::string text(line, static_cast<std::size_t>(length));
		// Between the priority and the text stand the time and the program.
		if (const std::size_t program = text.find("]: "); program != text.npos)
			text.erase(text.find('>') + 1, program + 2 - text.find('>'));
		file << text << std::endl;
	}
}

on_device::on_device()
{
	std::filesystem::remove_all(SCRATCH);
	std::filesystem::create_directory(SCRATCH);
	for (const std::string &left :
	     {PLATFORM, std::string("/dev/log"), std::string("/util/suexec"), std::string(VEK_PID_FILE)})
		unlink(left.c_str());
	stand_in("/bin/ps", "");
	advance(0);
	log_reader = std::make_unique<process>(read_log);
	eventually([] { return exists("/dev/log"); });
}

void on_device::advance(long seconds)
{
	// In place and at one length, so that nobody ever reads half of it.
	std::fstream("/proc/uptime", std::ios::in | std::ios::out) << (now_ += seconds) << ".00 1.00\n";
}

bool on_device::logged(const std::string &text, int priority)
{
	const std::string line = "\n<" + std::to_string(priority) + ">" + text + "\n";
	return eventually([&] { return occurrences("\n" + log_lines(), line) > 0; });
}

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

void on_device::TearDown()
{
	if (vekd.pid() > 0 && alive(vekd.pid())) {
		EXPECT_EQ(0, vekd.stop());
		EXPECT_FALSE(exists(VEK_PID_FILE));
		EXPECT_FALSE(segments_exist());
		EXPECT_LT(semget(USER_LOCK_IPC_KEY, 1, 0), 0);
	} else {
		EXPECT_LT(vekd.pid(), 0) << "the daemon died";
	}
	log_reader.reset();
	for (const auto &entry : std::filesystem::directory_iterator(SCRATCH)) // of the sanitizers
		EXPECT_FALSE(entry.path().filename().string().starts_with("report"))
		    << read_file(entry.path());
	eventually([] { return other_processes().empty(); }, 2s); // what was killed may still be going
	EXPECT_EQ("", other_processes());
	if (HasFailure())
		std::cout << "the daemon's output:\n" << vekd.output().substr(0, 2000) << std::endl;
}

int main(int argc, char **argv)
{
	// Not on a real machine.
	if (read_file("/proc/1/cmdline").find("scripts/sandbox") == std::string::npos) {
		std::fprintf(stderr, "%s: run it through scripts/sandbox, with VEKD=the daemon's binary\n",
			     argv[0]);
		return 2;
	}
	prctl(PR_SET_CHILD_SUBREAPER, 1);
	setenv("ASAN_OPTIONS", ("log_path=" + SCRATCH + "report").c_str(), 1);
	setenv("UBSAN_OPTIONS", ("print_stacktrace=1:log_path=" + SCRATCH + "report").c_str(), 1);
	for (const char *path : {"/bin/ps", "/proc/uptime", "/proc/consoles"}) {
		const std::string ours = "/run/" + std::string(basename(path));
		write_file(ours, "");
		checked(mount(ours.c_str(), path, nullptr, MS_BIND, nullptr), path);
	}
	testing::InitGoogleTest(&argc, argv);
	return RUN_ALL_TESTS();
}
