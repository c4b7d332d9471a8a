// driver.h: what a run against the real daemon needs: starting and ending it, ticks, its clients, the system
// log, and stand-ins for what it finds on a device. Only inside scripts/sandbox: everything here sits at the
// real paths. What cannot be set up is thrown as std::runtime_error; what the daemon does is judged by the
// callers. Whatever waits here waits for a condition, at most LIMIT.
#ifndef DRIVER_H
#define DRIVER_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "vek_client.h"

using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;

#ifdef VEK_SANITIZED
inline constexpr int SLOWER = 4; // than the release build, where a time is measured
#else
inline constexpr int SLOWER = 1;
#endif
inline constexpr std::chrono::milliseconds LIMIT = 10s;
inline const std::string SCRATCH = "/run/drive/"; // not in /tmp, which some runs make unusable
inline const std::string PLATFORM = "/etc/vekd/platform.conf";

int checked(int result, const std::string &what); // throws, with errno, below zero
bool eventually(const std::function<bool()> &condition, std::chrono::milliseconds limit = LIMIT);
inline double ms_since(steady::time_point start)
{
	return std::chrono::duration<double, std::milli>(steady::now() - start).count();
}
// From the environment, for runs that are also tools.
inline int setting(const char *name, int otherwise)
{
	const char *text = std::getenv(name);
	return text != nullptr ? std::atoi(text) : otherwise;
}

// ---- files ----

void write_file(const std::string &path, const std::string &text, mode_t mode = 0644);
std::string read_file(const std::string &path); // empty when it is not there
inline bool exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }
int occurrences(const std::string &text, const std::string &of);
// A shell script in a program's place, until the test ends.
inline void stand_in(const std::string &program, const std::string &script)
{
	write_file(program, "#!/bin/sh\n" + script, 0755);
}

// A System V segment: one that is there, or with IPC_CREAT one of ours, removed at the end.
template <class T> class shared {
public:
	explicit shared(int key, int flags = 0)
	    : id_(checked(shmget(key, sizeof(T), flags | 0666), "shmget")), ours_(flags != 0),
	      address_(static_cast<T *>(shmat(id_, nullptr, 0)))
	{
	}
	shared(const shared &) = delete;
	~shared()
	{
		shmdt(address_);
		ours_ ? shmctl(id_, IPC_RMID, nullptr) : 0;
	}
	T *operator->() const { return address_; }

private:
	int id_;
	bool ours_;
	T *address_;
};

// ---- processes ----

// Alive, which a zombie is not. One that was left to us is reaped.
bool alive(pid_t pid);
inline int descriptors(pid_t pid)
{
	const std::filesystem::directory_iterator fds("/proc/" + std::to_string(pid) + "/fd");
	return static_cast<int>(std::distance(begin(fds), end(fds)));
}

// A child of ours, ended with the scope.
class process {
public:
	explicit process(const std::function<void()> &body = [] { pause(); });
	process(process &&other) noexcept : pid_(std::exchange(other.pid_, -1)) {}
	~process();
	pid_t pid() const { return pid_; }
	int status(); // when it has ended, which is waited for

private:
	pid_t pid_;
};

// ---- clients ----

template <std::size_t N> void set_text(char (&field)[N], const std::string &text)
{
	std::memset(field, 0, N);
	std::memcpy(field, text.data(), std::min(text.size(), N - 1));
}
// Of a user, by both names.
vek_event notice(int number, const std::string &service, const std::string &user,
		 const std::string &unique = "", std::uint32_t ip = 0);

using client = std::shared_ptr<vek_client>;
inline client opened(vek_client *(*open)(int))
{
	client connection(open(static_cast<int>(LIMIT.count())), vek_client_close);
	checked(connection != nullptr ? 0 : -1, "connect to the daemon");
	return connection;
}

class service {
public:
	int report(const vek_event &event) // the status; throws on anything else
	{
		return checked(vek_client_report(client_.get(), &event), "report");
	}
	template <class... Keys> int login(const Keys &...keys)
	{
		return report(notice(VEK_EVENT_USER_LOGIN, keys...));
	}
	template <class... Keys> int logout(const Keys &...keys)
	{
		return report(notice(VEK_EVENT_USER_LOGOUT, keys...));
	}
	void fill(int sessions) // of users "0", "1", ... of the web interface
	{
		for (int i = 0; i < sessions; i++)
			ASSERT_EQ(0, login(SERVICE_NAME_HTTP_HTTPS, std::to_string(i)));
	}

private:
	client client_ = opened(vek_client_open_notify);
};

class asker {
public:
	int count() { return checked(vek_client_count(client_.get()), "count"); }
	// By one of the client library's calls.
	template <class F, class... Keys> std::vector<user_info> query(F ask, Keys... keys)
	{
		std::vector<user_info> found(VEK_MAX_USERS);
		user_info *end = found.data();
		const auto store = [](const user_info *session, void *into) {
			*(*static_cast<user_info **>(into))++ = *session;
			return 0;
		};
		found.resize(
		    static_cast<std::size_t>(checked(ask(client_.get(), keys..., store, &end), "query")));
		return found;
	}
	auto all() { return query(vek_client_query_all); }
	auto named(const std::string &user) { return query(vek_client_query_name, user.c_str()); }

private:
	client client_ = opened(vek_client_open_request);
};

class subscriber {
public:
	subscriber() { checked(vek_client_subscribe(client_.get()), "subscribe"); }
	vek_event next()
	{
		vek_event event{};
		checked(vek_client_next(client_.get(), &event), "next copy");
		return event;
	}
	// A copy is there. Each is written before the reporting service gets its status.
	bool pending()
	{
		pollfd ready{vek_client_fd(client_.get()), POLLIN, 0};
		return poll(&ready, 1, 0) > 0;
	}

private:
	client client_ = opened(vek_client_open_request);
};

// A connection for what the client library would not do.
class raw {
public:
	explicit raw(vek_client *(*open)(int)) : client_(opened(open)) {}
	template <class T> void write(const T &record, std::size_t size = sizeof(T)) // if there is room
	{
		[[maybe_unused]] const ssize_t sent = send(fd(), &record, size, MSG_NOSIGNAL | MSG_DONTWAIT);
	}
	std::string read(std::size_t most = SIZE_MAX); // waits for so much, or for the daemon to end it
	bool ended()                                   // by the daemon, even if what it sent is unread
	{
		pollfd end{fd(), POLLRDHUP, 0};
		return poll(&end, 1, 0) > 0;
	}

private:
	int fd() const { return vek_client_fd(client_.get()); }
	client client_;
};

// How long calls took.
class latencies {
public:
	template <class F> auto measure(F call)
	{
		const auto start = steady::now();
		auto result = call();
		ms_.push_back(ms_since(start));
		return result;
	}
	double percentile(double part)
	{
		std::ranges::sort(ms_);
		return ms_.empty()
			   ? 0
			   : ms_[static_cast<std::size_t>(part * static_cast<double>(ms_.size() - 1))];
	}
	void print(const char *what)
	{
		std::printf("%s: %zu calls, median %.2f ms, p99 %.2f ms, worst %.2f ms\n", what, ms_.size(),
			    percentile(0.5), percentile(0.99), percentile(1));
	}

private:
	std::vector<double> ms_;
};

// ---- the daemon ----

class daemon_process {
public:
	daemon_process() = default;
	~daemon_process() { pid_ > 0 ? kill(pid_, SIGKILL) : 0; }
	daemon_process(const daemon_process &) = delete;

	// Until it answers. It then gets a common priority, so that what else runs here decides nothing.
	void start(const std::string &option = "");
	// A start that ends at once: its status; what it printed is in output(). Or one that is left to
	// itself.
	int run(const std::string &option = "", bool aside = false);
	int stop(int with = SIGTERM); // the status
	pid_t pid() const { return pid_; }
	void signal(int number) const { checked(kill(pid_, number), "kill"); }
	// One second of the daemon's time each. Its own timer ticks beside it, and may swallow one.
	void tick(int seconds = 1)
	{
		for (; seconds > 0; seconds--, settle())
			signal(SIGALRM);
	}
	// Passes of its loop. Two and a signal, or one record each of any connections, has been acted on: the
	// first answer can be given in the pass that began before.
	void settle(int passes = 2)
	{
		while (passes-- > 0)
			own_->count();
	}
	std::string output() const { return read_file(output_file_); } // of the latest start
	int said(const std::string &text) const { return occurrences(output(), text); }

private:
	pid_t pid_ = -1;
	std::string output_file_;
	std::unique_ptr<asker> own_;
};

// ---- a test on a device of its own ----

// A clock that stands still at an uptime, a reader of the system log, a daemon to start, and the check that
// nothing is left of it.
class on_device : public testing::Test {
protected:
	on_device();
	void TearDown() override;
	void advance(long seconds);
	static bool segments_exist() // any of the daemon's
	{
		return shmget(USER_CONFIG_IPC_KEY, 0, 0) >= 0 || shmget(USER_LOCK_IPC_KEY, 0, 0) >= 0;
	}
	// A line of exactly this text at this priority (facility included) has come.
	static bool logged(const std::string &text, int priority = 29);
	static std::string log_lines() { return read_file(SCRATCH + "log"); } // each as "<priority>text"

	std::unique_ptr<process> log_reader;
	daemon_process vekd;

private:
	long now_ = 100000; // the uptime
};

#endif
