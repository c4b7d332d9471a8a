// vek_socket.h: one accepted connection, as everybody who serves it sees it. The endpoints make and free it,
// stream.h moves its bytes, and fairness.h says what it may cost the others.
#ifndef VEK_SOCKET_H
#define VEK_SOCKET_H

#include <sys/types.h>

#include <cstdint>

#include "list.h"

enum : std::uint8_t { VEK_SOCKTYPE_NOTIFY = 1, VEK_SOCKTYPE_REQUEST = 2 };

// Why a connection is not read from, although a record may lie in it.
enum class vek_waits : std::uint8_t {
	for_nothing,     // it is read from
	for_its_reader,  // until the client has read most of what it was sent
	for_a_buffer,    // until a deep buffer is free for the answer to its request
	for_its_turn,    // a report, until subscribers have caught up and tools have time
};

// Owned by vek_socket_list. All zero but for list, type and fd is a connection that works.
struct vek_socket {
	list_head list;
	std::uint8_t type; // VEK_SOCKTYPE_*
	int fd;
	pid_t pid; // of the peer, as of accept
	uid_t uid; // of the peer, as of accept

	bool shut_down;              // by the daemon: what lies in it is handled, nothing is sent any more
	bool deep;                   // its send buffer is a deep one, on loan
	vek_waits waits;             // why it is not read from
	bool before_tick;            // a record lay in it when the tick came, which waits for it
	int subscriptions;           // its entries in vek_listener_list
	std::uint64_t activity;      // stamp of the last record read; smaller is longer silent
	std::uint64_t waits_since;   // stamp; smaller waits longer
	std::uint32_t room;          // kernel memory that its send buffer may take, 0 before that is asked
	std::uint32_t unread;        // at most this much of it is taken by what the client has not read
	std::uint32_t unread_before; // as it was found when the client was last looked at
	std::int64_t progress_ms;    // when a subscriber that is far behind was last seen to read; 0 otherwise

	void (*on_close)(vek_socket *sock); // called before the connection goes; null when nobody cares
};

extern list_of<&vek_socket::list> vek_socket_list; // newest last

#endif
