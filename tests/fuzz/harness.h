// harness.h: what the targets that feed the daemon share: the input as a stream, and the daemon's core over the
// recording platform with clients on it, through the functions that the main loop calls. Nothing here starts a
// process or waits.
#ifndef HARNESS_H
#define HARNESS_H

#include "core.h"
#include "target.h"

// The input, taken off its front; past its end everything is zero.
struct input {
	bytes rest;
	std::size_t past = 0;

	std::uint8_t byte();
	bytes take(std::size_t size); // fewer at the end
};

// A core without sessions, parked logouts or clients, as at every run's beginning; started by the first call.
// Terminator and lockout table run too.
void fresh_core();

// Ends the program when an invariant is broken; forgets what the platform recorded.
void check_core();

// A connection of user 1 to the daemon, of which both ends are here.
class client {
public:
	explicit client(std::uint8_t type);
	~client();
	client(const client &) = delete;
	client &operator=(const client &) = delete;

	// Sends, and lets the daemon read until nothing is left. What it answers is read, unless this client
	// does not read.
	void send(bytes data);
	void send(const void *record, std::size_t size) { send({static_cast<const std::uint8_t *>(record), size}); }
	bool alive() const { return daemon_side() != nullptr; }

	bool reads = true;

private:
	friend struct clients;
	vek_socket *daemon_side() const; // null once the daemon has closed it
	void serve();
	void drain() const;

	int fd_ = -1, number_;
};

// The blocks that other programs write to, as the daemon sees them.
enum block { BLOCK_CONFIG, BLOCK_LOCKOUT, BLOCK_FTP, BLOCKS };
void write_block(int block, std::size_t offset, bytes data);

#endif
