// daemon.cpp: the daemon as vekctl sees it from outside: connecting to its sockets, what a failed call means
// for the exit status, its clock, and its process, which is looked at before it gets a signal.
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fstream>

#include "vekctl.h"

namespace {

connection opened(vek_client *client, const char *path)
{
	if (client == nullptr)
		throw client_failure(std::string("cannot connect to ") + path);
	return {client, &vek_client_close};
}

} // namespace

connection connect_notify(const settings &set)
{
	return opened(vek_client_open_notify(set.timeout_ms()), VEK_ADDRESS_NOTIFY);
}

connection connect_request(const settings &set)
{
	return opened(vek_client_open_request(set.timeout_ms()), VEK_ADDRESS_REQUEST);
}

failure client_failure(const std::string &doing)
{
	switch (errno) {
	case ENOENT:
	case ECONNREFUSED: return {status_no_daemon, doing + ": vekd is not running"};
	case ETIMEDOUT: return {status_timed_out, doing + ": vekd did not answer in time"};
	case EPROTO: return {status_unexpected, doing + ": vekd answered something unexpected"};
	case ECONNRESET: return {status_unexpected, doing + ": vekd closed the connection"};
	default: return {status_no_daemon, doing + ": " + std::strerror(errno)};
	}
}

int checked(int result, const std::string &doing)
{
	if (result < 0)
		throw client_failure(doing);
	return result;
}

int collect(const user_info *session, void *into)
{
	static_cast<sessions *>(into)->push_back(*session);
	return 0;
}

std::uint64_t uptime_now()
{
	double seconds = 0;
	if (std::ifstream("/proc/uptime") >> seconds)
		return static_cast<std::uint64_t>(seconds);
	struct timespec now = {};
	clock_gettime(CLOCK_BOOTTIME, &now);
	return static_cast<std::uint64_t>(now.tv_sec);
}

times settings::when() const { return {uptime_now(), std::time(nullptr), absolute}; }

int daemon_pid()
{
	std::string text;
	int pid = 0;
	if (!(std::ifstream(VEK_PID_FILE) >> text))
		throw failure{status_no_daemon, "vekd is not running: there is no " VEK_PID_FILE};
	const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), pid);
	if (error != std::errc() || *end != '\0' || pid <= 1)
		throw failure{status_no_daemon, VEK_PID_FILE " names no process"};
	std::string name;
	std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/comm"), name);
	if (name != "vekd")
		throw failure{status_no_daemon,
			      "vekd is not running: the process that " VEK_PID_FILE " names is not "
			      "vekd (no vekd starts before the file is removed)"};
	return pid;
}

void signal_daemon(int pid, int signal)
{
	if (kill(pid, signal) == 0)
		return;
	if (errno == ESRCH)
		throw failure{status_no_daemon, "vekd is not running"};
	throw failure{status_refused,
		      "cannot signal vekd (process " + std::to_string(pid) + "): " + std::strerror(errno)};
}
