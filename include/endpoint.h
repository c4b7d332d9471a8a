// endpoint.h: the client endpoints: the two listening sockets, the connections accepted there, and the records
// read from them. stream.h moves the bytes, and fairness.h says who has to wait.
//
// A record stays in its socket until there is room for its answer. What lies whole in a socket before a tick or a
// due logout is handled before it. Nothing closes or frees a connection inside a dispatch.
#ifndef ENDPOINT_H
#define ENDPOINT_H

#include "sock_event.h"
#include "stream.h"
#include "vek.h"
#include "vek_socket.h"

extern int vek_notify_fd, vek_request_fd; // listening sockets, -1 when closed
extern sock_event vek_skevent;            // callbacks of every pass

// Local stream socket bound to `path` (at most 107 characters are used) and listening; -1 on failure.
int vek_bind_unix_address(const char *path);

// Callbacks of the socket loop. Only connections that wait for their reader are registered for writing; any other
// one is closed by the write callback.
void vek_sock_event_read(int fd, void *data);
void vek_sock_event_write(int fd, void *data);
int vek_sock_event_error(int result);

// Accept all that waits at a listening socket. A connection that cannot be kept is closed at once.
void vek_accept_notify(int fd, void *data);
void vek_accept_request(int fd, void *data);

// Read and handle one record. May close the connection and free `sock`.
void vek_handle_notify(int fd, vek_socket *sock);
void vek_handle_request(int fd, vek_socket *sock);

// A request as the event that it asks for; only of a known method.
bool vek_request_is_known(const vek_request &request);
vek_event vek_event_from_request(const vek_request &request);

// Unlinks and frees `sock` unless null; unregisters and closes `fd` unless negative. Never from a handler.
void vek_close_client(int fd, vek_socket *sock);

// To be called by the main loop before each pass: renews the budgets, and serves those whose waiting is over.
void vek_begin_pass();

// To be called by the main loop when a logout or a tick is due: handles a report of each connection in which one
// lies. False when some have to wait for their turn; the logout and the tick then have to wait for them.
bool vek_catch_up();

// To be called at each tick: ends stalled loans, and listens again after a lack of descriptors or memory.
void vek_tick_endpoints();

#endif
