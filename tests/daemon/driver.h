// driver.h: what a run against the real daemon needs: starting and ending it, ticks, its clients, a reader of
// the system log, and stand-ins for what it finds on a device. Only inside scripts/sandbox: everything here
// sits at the real paths. What cannot be set up is thrown as std::runtime_error; what the daemon does is
// judged by the callers. Whatever waits here waits for a condition, at most LIMIT.
#ifndef DRIVER_H
#define DRIVER_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "vek_client.h"

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

#ifdef VEK_SANITIZED
inline constexpr int SLOWER = 4; // than the release build, where a time is measured
#else
inline constexpr int SLOWER = 1;
#endif
inline constexpr milliseconds LIMIT = 10s;
inline const std::string SCRATCH = "/run/drive/"; // not in /tmp, which some runs make unusable

int checked(int result, const std::string &what); // throws, with errno, below zero
bool eventually(const std::function<bool()> &condition, milliseconds limit = LIMIT);
double ms_since(steady::time_point start);
// A whole number from the environment, for runs that are also tools.
int setting(const char *name, int otherwise);

// ---- files ----

void write_file(const std::string &path, const std::string &text, mode_t mode = 0644);
std::string read_file(const std::string &path); // empty when it is not there
bool exists(const std::string &path);
int occurrences(const std::string &text, const std::string &of);

class owned_fd {
public:
	explicit owned_fd(int fd = -1) : fd_(fd) {}
	owned_fd(owned_fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
	owned_fd &operator=(owned_fd &&other) noexcept
	{
		std::swap(fd_, other.fd_);
		return *this;
	}
	~owned_fd() { fd_ >= 0 ? close(fd_) : 0; }
	operator int() const { return fd_; }

private:
	int fd_;
};

// ---- what the daemon finds on a device ----

// Something mounted over a path until the end of the scope: a file, or a file system of memory.
class mounted {
public:
	mounted(const std::string &source, std::string target, unsigned long flags = MS_BIND,
		const char *options = "")
	    : target_(std::move(target))
	{
		checked(mount(source.c_str(), target_.c_str(), "tmpfs", flags, options),
			"mount over " + target_);
	}
	mounted(const mounted &) = delete;
	~mounted() { umount2(target_.c_str(), MNT_DETACH); }

private:
	const std::string target_;
};

// A shell script in a program's place, until the test ends. /bin/ps is looked for in SCRATCH "bin" too.
void stand_in(const std::string &program, const std::string &script);

// The system's uptime, standing still at what it was set to.
class uptime_clock {
public:
	explicit uptime_clock(long seconds) : now_(seconds) { advance(0); }
	void advance(long seconds);

private:
	long now_;
	std::unique_ptr<mounted> file_;
};

// A System V segment: one that is there, or (with a size) one of ours, removed at the end.
class shared_segment {
public:
	explicit shared_segment(int key, std::size_t size = 0)
	    : id_(checked(shmget(key, size, size > 0 ? IPC_CREAT | IPC_EXCL | 0666 : 0), "shmget")),
	      address_(shmat(id_, nullptr, 0)), ours_(size > 0)
	{
	}
	shared_segment(const shared_segment &) = delete;
	~shared_segment()
	{
		shmdt(address_);
		ours_ ? shmctl(id_, IPC_RMID, nullptr) : 0;
	}
	template <class T> T *as() const { return static_cast<T *>(address_); }
	int id() const { return id_; }

private:
	int id_;
	void *address_;
	bool ours_;
};
inline bool segment_exists(int key) { return shmget(key, 0, 0) >= 0; }

// ---- processes ----

// Alive, which a zombie is not. One that was left to us is reaped.
bool alive(pid_t pid);
int descriptors(pid_t pid);

// A child of ours, ended with the scope.
class process {
public:
	process(); // one that only sleeps
	explicit process(const std::function<void()> &body);
	process(process &&other) noexcept : pid_(std::exchange(other.pid_, -1)) {}
	~process();
	pid_t pid() const { return pid_; }
	int status(); // when it has ended, which is waited for

private:
	pid_t pid_;
};
// Runs the body as a user without rights; null when this sandbox has no second user.
std::unique_ptr<process> as_nobody(const std::function<void()> &body);

// ---- records ----

template <std::size_t N> void set_text(char (&field)[N], const std::string &text)
{
	std::memset(field, 0, N);
	std::memcpy(field, text.data(), std::min(text.size(), N - 1));
}
inline std::uint32_t ip4(const char *text) { return inet_addr(text); }
in6_addr ip6(const char *text);

// Of a user, by both names.
vek_event notice(int number, const std::string &service, const std::string &user,
		 const std::string &unique = "", std::uint32_t ip = 0);

// ---- clients ----

struct client_closer {
	void operator()(vek_client *client) const { vek_client_close(client); }
};
using client = std::unique_ptr<vek_client, client_closer>;
client opened(vek_client *(*open)(int));

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

private:
	client client_ = opened(vek_client_open_notify);
};

using sessions = std::vector<user_info>;

class asker {
public:
	int count() { return checked(vek_client_count(client_.get()), "count"); }
	sessions all() { return query(vek_client_query_all); }
	sessions named(const std::string &user) { return query(vek_client_query_name, user.c_str()); }
	user_info only(const std::string &user); // throws unless there is just one
	sessions at(std::uint32_t ip) { return query(vek_client_query_ip, ip); }
	sessions at(const in6_addr &ip) { return query(vek_client_query_ip6, &ip); }
	sessions first_at(std::uint32_t ip) { return query(vek_client_query_ip_first, ip); }
	int fd() const { return vek_client_fd(client_.get()); }

private:
	template <class F, class... Keys> sessions query(F ask, Keys... keys)
	{
		sessions found;
		const auto collect = [](const user_info *session, void *into) {
			static_cast<sessions *>(into)->push_back(*session);
			return 0;
		};
		checked(ask(client_.get(), keys..., collect, &found), "query");
		return found;
	}
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

// A connection for records that the client library would not send.
owned_fd connect_to(const char *address);
inline void send_bytes(int fd, const void *bytes, std::size_t size) // as much as goes out at once
{
	[[maybe_unused]] const ssize_t sent = send(fd, bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT);
}
bool ended_by_daemon(int fd); // what it sent before need not be read
std::string read_to_end(int fd);
inline vek_request request(int method) { return {method, {}, 0}; }

// How long calls took.
class latencies {
public:
	template <class F> auto measure(F call)
	{
		struct stop {
			latencies *self;
			steady::time_point start = steady::now();
			~stop() { self->ms_.push_back(ms_since(start)); }
		} stop{this};
		return call();
	}
	double percentile(double part) const;
	double worst() const { return percentile(1); }
	void print(const char *what) const;

private:
	std::vector<double> ms_;
};

// ---- the system log ----

owned_fd log_socket(); // at /dev/log

class system_log {
public:
	system_log();
	~system_log();
	// A line of exactly this text at this priority (facility included) has come.
	bool has(const std::string &text, int priority = 29);
	std::vector<std::string> lines(); // all that were written before this call: "<priority>text"
	void clear();

private:
	owned_fd socket_ = log_socket();
	std::mutex mutex_;
	std::vector<std::string> lines_;
	std::jthread reader_;
};

// ---- the daemon ----

class daemon_process {
public:
	daemon_process() = default;
	~daemon_process() { pid_ > 0 ? kill(pid_, SIGKILL) : 0; }
	daemon_process(const daemon_process &) = delete;

	using words = std::vector<std::string>;
	// Until it answers. It then gets a common priority, so that what else runs here decides nothing.
	void start(const words &arguments = {}, const words &environment = {});
	int niceness() const { return niceness_; } // that it gave itself
	// A start that ends at once: its status; what it printed is in output().
	int run(const words &arguments = {})
	{
		spawn(arguments, {});
		return status_of_end();
	}
	pid_t pid() const { return pid_; }
	void signal(int number) const { checked(kill(pid_, number), "kill"); }
	// One second of the daemon's time each. Its own timer ticks beside it.
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
	int stop(int with = SIGTERM) // the status
	{
		own_.reset();
		signal(with);
		return status_of_end();
	}
	void kill_hard() { stop(SIGKILL); }
	std::string output() const { return read_file(output_file_); } // of the latest start
	bool said(const std::string &text) const { return occurrences(output(), text) > 0; }

private:
	void spawn(const words &arguments, const words &environment);
	int status_of_end();

	pid_t pid_ = -1;
	int niceness_ = 0;
	std::string output_file_;
	std::unique_ptr<asker> own_;
};

// ---- a test on a device of its own ----

// A log reader, a daemon to start, and the check that nothing is left of it.
class on_device : public testing::Test {
protected:
	on_device();
	void TearDown() override;

	void platform(const std::string &settings); // counts at once
	void fill(service &reporter, int sessions); // "u0000", "u0001", ... of the web interface

	std::optional<system_log> log{std::in_place};
	daemon_process vekd;
};

#endif
