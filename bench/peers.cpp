// peers.cpp: starting and ending what road measures, and the floor servers themselves.
#include "peers.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>

namespace {

constexpr int PATIENCE_S = 5;

void limit_waiting(int fd)
{
	const timeval limit{PATIENCE_S, 0};
	setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
	setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
}

// The library's descriptors do not block; here the peer runs while we wait in the one call.
void make_blocking(const vek_client *client)
{
	const int fd = vek_client_fd(client);
	fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
	limit_waiting(fd);
}

void make_pair(int (&ends)[2])
{
	if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) < 0)
		fail("socketpair");
}

sockaddr_un address_of(const std::string &path)
{
	sockaddr_un address{};
	address.sun_family = AF_UNIX;
	path.copy(address.sun_path, sizeof(address.sun_path) - 1);
	return address;
}

// ---- the floor servers; they end with their client ----

struct server {
	int listening, client;
};

template <class Record> void take(const server &own, Record &record)
{
	int ready;
	do {
		fd_set readable;
		FD_ZERO(&readable);
		FD_SET(own.listening, &readable);
		FD_SET(own.client, &readable);
		timeval second{1, 0};
		ready = select(std::max(own.listening, own.client) + 1, &readable, nullptr, nullptr, &second);
	} while (ready == 0);
	if (read(own.client, &record, sizeof(record)) != static_cast<ssize_t>(sizeof(record)))
		_exit(0);
}

template <class Record> void put(int fd, const Record &record)
{
	if (write(fd, &record, sizeof(record)) != static_cast<ssize_t>(sizeof(record)))
		_exit(1);
}

[[noreturn]] void answer_events(const server &own)
{
	for (;;) {
		vek_event event;
		take(own, event);
		put(own.client, vek_response{VEK_RESPONSE_SUCCESS});
	}
}

[[noreturn]] void list_records(const server &own)
{
	static user_info records[VEK_MAX_USERS];
	std::memset(records, 'x', sizeof(records));
	for (;;) {
		vek_request request;
		take(own, request);
		vek_event header{};
		header.count = request.method;
		put(own.client, header);
		for (int i = 0; i < request.method; i++)
			put(own.client, records[i]);
	}
}

[[noreturn]] void copy_events(const server &own, const std::vector<int> &readers)
{
	for (;;) {
		vek_event event;
		take(own, event);
		for (int reader : readers)
			put(reader, event);
		put(own.client, vek_response{VEK_RESPONSE_SUCCESS});
	}
}

} // namespace

void fail(const std::string &what)
{
	std::fprintf(stderr, "road: %s: %s\n", what.c_str(), std::strerror(errno));
	std::exit(1);
}

double now_ns()
{
	timespec now;
	clock_gettime(CLOCK_MONOTONIC, &now);
	return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

std::string share_one_core()
{
	// Daemons leave their first process behind; their end is to be seen here.
	prctl(PR_SET_CHILD_SUBREAPER, 1);
	signal(SIGPIPE, SIG_IGN);

	cpu_set_t allowed, one;
	if (sched_getaffinity(0, sizeof(allowed), &allowed) < 0)
		fail("sched_getaffinity");
	int core = CPU_SETSIZE - 1;
	while (core > 0 && !CPU_ISSET(core, &allowed))
		core--;
	CPU_ZERO(&one);
	CPU_SET(core, &one);
	if (sched_setaffinity(0, sizeof(one), &one) < 0)
		fail("sched_setaffinity");

	const sched_param real_time{1};
	if (sched_setscheduler(0, SCHED_FIFO, &real_time) == 0)
		return "real-time priority";
	return nice(19) == 19 ? "the daemon's own low priority" : "unequal priorities";
}

void read_all(int fd, void *into, std::size_t size)
{
	for (std::size_t have = 0; have < size;) {
		const ssize_t got = read(fd, static_cast<char *>(into) + have, size - have);
		if (got <= 0)
			fail("an answer is missing");
		have += static_cast<std::size_t>(got);
	}
}

void exchange(int fd, const void *record, std::size_t record_size, void *answer, std::size_t size)
{
	if (write(fd, record, record_size) != static_cast<ssize_t>(record_size))
		fail("a record was not taken");
	read_all(fd, answer, size);
}

child::~child()
{
	if (pid_ <= 0)
		return;
	kill(pid_, SIGKILL);
	waitpid(pid_, nullptr, 0);
}

daemon_peer::daemon_peer(const std::string &program, requests wanted, const std::string &preload,
			 const std::string &counter)
{
	unlink(VEK_PID_FILE); // of one that runs on
	const double start = now_ns();
	const pid_t pid = fork();
	if (pid < 0)
		fail("fork");
	if (pid == 0) {
		if (!preload.empty()) {
			setenv("LD_PRELOAD", preload.c_str(), 1);
			setenv("VEK_BENCH_ALLOCATIONS", counter.c_str(), 1);
		}
		execl(program.c_str(), "vekd", static_cast<char *>(nullptr));
		_exit(127);
	}
	// The first process ends when the sockets are there.
	int status;
	if (waitpid(pid, &status, 0) < 0 || status != 0)
		fail(program + " did not start");
	notify_ = vek_client_open_notify(PATIENCE_S * 1000);
	request_ = vek_client_open_request(PATIENCE_S * 1000);
	vek_event nobody{};
	nobody.event = VEK_EVENT_USER_LOGOUT;
	if (notify_ == nullptr || request_ == nullptr || vek_client_report(notify_, &nobody) < 0 ||
	    vek_client_count(request_) < 0)
		fail(program + " does not answer");
	start_ms_ = (now_ns() - start) / 1e6;

	pid_t running = -1;
	std::ifstream(VEK_PID_FILE) >> running;
	if (running <= 0)
		fail(program + " wrote no " VEK_PID_FILE);
	process_ = child(running);
	make_blocking(notify_);
	if (wanted == with_requests) {
		make_blocking(request_);
	} else {
		vek_client_close(request_);
		request_ = nullptr;
	}
}

daemon_peer::~daemon_peer()
{
	vek_client_close(notify_);
	vek_client_close(request_);
}

void daemon_peer::report(const vek_event &event)
{
	if (vek_client_report(notify_, &event) != VEK_RESPONSE_SUCCESS)
		fail("a report was refused");
}

long daemon_peer::status(const char *name) const
{
	std::ifstream file("/proc/" + std::to_string(pid()) + "/status");
	const std::string wanted = std::string(name) + ':';
	for (std::string line; std::getline(file, line);)
		if (line.starts_with(wanted))
			return std::strtol(line.c_str() + wanted.size(), nullptr, 10);
	fail(std::string("no ") + name);
}

reader_peer::reader_peer(int fd)
{
	const pid_t pid = fork();
	if (pid < 0)
		fail("fork");
	if (pid == 0) {
		vek_event copy;
		while (read(fd, &copy, sizeof(copy)) > 0)
			;
		_exit(0);
	}
	close(fd);
	process_ = child(pid);
}

floor_peer::floor_peer(kind what, int readers)
{
	std::vector<int> written;
	for (int i = 0; i < readers; i++) {
		int pair[2];
		make_pair(pair);
		written.push_back(pair[1]);
		readers_.emplace_back(pair[0]);
	}
	static int number;
	const std::string path = "/tmp/bench-floor-" + std::to_string(++number);
	const sockaddr_un address = address_of(path);
	const auto *name = reinterpret_cast<const sockaddr *>(&address);
	server own{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), -1};
	if (bind(own.listening, name, sizeof(address)) < 0 || listen(own.listening, 5) < 0)
		fail(path);
	const pid_t pid = fork();
	if (pid < 0)
		fail("fork");
	if (pid == 0) {
		own.client = accept(own.listening, nullptr, nullptr);
		switch (what) {
		case answering: answer_events(own);
		case listing: list_records(own);
		case copying: copy_events(own, written);
		}
	}
	process_ = child(pid);
	for (int fd : written)
		close(fd);
	close(own.listening);
	fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	if (connect(fd_, name, sizeof(address)) < 0)
		fail(path);
	limit_waiting(fd_);
}

floor_peer::~floor_peer() { close(fd_); }
