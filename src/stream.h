// stream.h: bytes from and to one client. Reading never waits. Writing waits only where fairness.h allows it,
// and a client that cannot be written to is shut down: a partial record is never followed by another. What lies
// in a connection that was shut down is still handled; its end is read in a later pass. Nothing here frees a
// connection, and all of it but stream_close may be called from inside a handler.
#ifndef STREAM_H
#define STREAM_H

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "vek_socket.h"

// Makes a socket that listens refuse the descriptors that its clients may pass along with their bytes, where the
// kernel can.
void stream_refuse_descriptors(int listening_fd);

// Takes one record of exactly this size. False when there is none that is whole; the connection is then of no
// more use.
bool stream_read_record(vek_socket *sock, void *record, std::size_t size);

// Copies a record that waits to be read without taking it. False when it is not whole.
bool stream_peek_record(const vek_socket *sock, void *record, std::size_t size);

// Is there room for an answer of this size, beside what the client has not read yet?
bool stream_has_room(vek_socket *sock, std::size_t size);

// As the kernel sees it: is three quarters of the send buffer free?
bool stream_is_writable(vek_socket *sock);

// Has the client read so much that the rest is little for a usual buffer too?
bool stream_is_read(vek_socket *sock);

// The kernel memory that is taken by what the client has not read, as the kernel says.
std::uint32_t stream_ask_unread(vek_socket *sock);

// Makes the send buffer deep, or what it is by default.
void stream_set_depth(vek_socket *sock, bool deep);

// Does the system make send buffers as deep as they should be?
bool stream_gives_deep_buffers();

// Writes all of `parts` (records that live until it returns; the array is used up). The byte count; or -1 with
// errno, the connection then being shut down.
ssize_t vek_write_client(vek_socket *sock, std::span<iovec> parts);

// Writes a vek_response; never waits. The result of the write.
ssize_t vek_send_response(int result, int fd);

// The client sees the end of the stream behind what it was sent already. `why` is for debugging.
void stream_shut_down(vek_socket *sock, const char *why);

// Closes a client's descriptor. `trusted`: it may be closed right here, whatever was passed through it.
void stream_close(int fd, bool trusted);

// At each tick: closes what could not be closed before.
void stream_close_leftovers();

// To be told of each child of the daemon that has been reaped. Called by a signal handler.
void stream_child_ended(pid_t pid);

#endif
