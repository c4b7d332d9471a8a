// endpoint.h: the client endpoints: connections on the two sockets, the records read from them, revocable
// logouts, and every write to a client.
//
// Waiting for clients is bounded. A client that does not take what it is sent is waited for, for at most
// half a second per pass of the main loop over all services of user 0 together, and as long over all others,
// and is then shut down; its end is read and cleaned up in a later pass. Nothing closes or frees a connection
// inside a dispatch.
#ifndef ENDPOINT_H
#define ENDPOINT_H

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "list.h"
#include "sock_event.h"
#include "vek.h"

enum : std::uint8_t { VEK_SOCKTYPE_NOTIFY = 1, VEK_SOCKTYPE_REQUEST = 2 };

// One accepted connection; owned by vek_socket_list.
struct vek_socket {
	list_head list;
	std::uint8_t type; // VEK_SOCKTYPE_*
	int fd;
	bool cut;               // shut down by us; only its end is still to be read
	pid_t pid;              // peer, as of accept
	uid_t uid;              // peer, as of accept
	std::uint64_t activity; // stamp of the last record read; smaller is longer silent
	std::uint64_t put_off;  // stamp since which its record waits for a later pass; 0 when none does
};

// A revocable logout that waits for its time.
struct vek_deferred_logout {
	list_head list;
	std::uint64_t event_time; // uptime second at which it was parked
	vek_event event;          // as received
};

extern list_of<&vek_socket::list> vek_socket_list;                   // newest last
extern list_of<&vek_deferred_logout::list> vek_deferred_logout_list; // oldest first
extern int vek_notify_fd, vek_request_fd;                            // listening sockets, -1 when closed
extern sock_event vek_skevent;                                       // callbacks of every pass

// Local stream socket bound to `path` (at most 107 characters are used) and listening; -1 on failure.
int vek_bind_unix_address(const char *path);

// Callbacks of the socket loop.
void vek_sock_event_read(int fd, void *data);
void vek_sock_event_write(int fd, void *data);
int vek_sock_event_error(int result);

// Accept what waits at a listening socket, at most its queue. A connection that cannot be kept is closed at
// once.
void vek_accept_notify(int fd, void *data);
void vek_accept_request(int fd, void *data);

// Read and handle one record. May close the connection and free `sock`.
void vek_handle_notify(int fd, vek_socket *sock);
void vek_handle_request(int fd, vek_socket *sock);

// Unlinks and frees `sock` unless null; unregisters and closes `fd` unless negative. Never from a handler.
void vek_close_client(int fd, vek_socket *sock);

// Writes a vek_response. The client owes us its reading of the last one, so this never waits. The byte
// count, or negative when the connection is of no more use.
ssize_t vek_send_response(int result, int fd);

// Writes all of `parts` (records that live until it returns; the array is used up) to a client of either
// kind, waiting within the pass's limit. The byte count; or -1 with errno, the connection then being shut
// down, so that a partial record is never followed by another. May be called from inside a handler.
ssize_t vek_write_client(int fd, std::span<iovec> parts);

// A subscriber's connection gets room for a burst of copies.
void vek_deepen_buffer(vek_socket *sock);

// Unlinks and frees a parked logout.
void vek_free_deferred_logout(vek_deferred_logout *parked);

// To be called by the main loop before each pass: renews the pass's limits of waiting, for clients and for
// tools, and handles the first of the records that were put off.
void vek_begin_pass();

// To be called at each tick: listens again after a lack of descriptors or memory.
void vek_resume_accept();

#endif
