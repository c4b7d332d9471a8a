// peers.h: the programs that road talks to, each a child of its own: daemons, and the floor servers, which do
// what the kernel alone costs. What is said to them, and how long it took, is road's.
//
// Everybody runs on one core at one priority, so that a round trip is two changes of process and nothing
// else. A peer that does not answer within some seconds fails the run.
#ifndef PEERS_H
#define PEERS_H

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "vek_client.h"

// Prints the message with errno's text and ends the run.
[[noreturn]] void fail(const std::string &what);

double now_ns();

// Puts this process and its children to come on one core and at one priority: real time, or where that is not
// allowed the low one that the daemon gives itself. What was done, in words.
std::string share_one_core();

// Writes one record in one write and reads `size` bytes.
void exchange(int fd, const void *record, std::size_t record_size, void *answer, std::size_t size);
void read_all(int fd, void *into, std::size_t size);

// A child process, ended and reaped with its owner.
class child {
public:
	child() = default;
	explicit child(pid_t pid) : pid_(pid) {}
	child(child &&other) noexcept : pid_(std::exchange(other.pid_, -1)) {}
	child &operator=(child &&other) noexcept
	{
		std::swap(pid_, other.pid_);
		return *this;
	}
	~child();
	pid_t pid() const { return pid_; }

private:
	pid_t pid_ = -1;
};

// A running daemon with a notify connection, and a request connection if one was asked for: each costs every
// pass of a select. Any number of daemons run beside each other: a later one takes the sockets' names over,
// the earlier one keeps its connections.
class daemon_peer {
public:
	enum requests : bool { no_requests, with_requests };
	// `counter`: a file that its allocations are counted in, by way of the library `preload`.
	explicit daemon_peer(const std::string &program, requests wanted = no_requests,
			     const std::string &preload = "", const std::string &counter = "");
	daemon_peer(daemon_peer &&) = delete;
	~daemon_peer();

	int notify() const { return vek_client_fd(notify_); }
	int request() const { return vek_client_fd(request_); }
	pid_t pid() const { return process_.pid(); }
	double start_ms() const { return start_ms_; } // from the fork until both sockets had answered

	void report(const vek_event &event); // fails the run when the daemon does
	// A number of a line of /proc/PID/status.
	long status(const char *name) const;

private:
	child process_;
	vek_client *notify_ = nullptr, *request_ = nullptr;
	double start_ms_ = 0;
};

// Programs that follow a daemon, or a floor server: each sleeps in read until its copy comes.
class reader_peer {
public:
	explicit reader_peer(int fd); // gives the descriptor away

private:
	child process_;
};

// Floor servers: select on where they listen and on their client, one read, and what their name says.
class floor_peer {
public:
	enum kind {
		answering, // a vek_event in, a vek_response out
		listing,   // a vek_request in; a vek_event and request.method records out, a write for each
		copying,   // a vek_event in, a copy of it in one write to each reader, a vek_response out
	};
	explicit floor_peer(kind what, int readers = 0);
	floor_peer(floor_peer &&) = delete;
	~floor_peer();
	int fd() const { return fd_; }

private:
	int fd_ = -1;
	std::vector<reader_peer> readers_;
	child process_;
};

#endif
