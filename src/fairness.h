// fairness.h: what one client may cost the others. The kernel's buffers are the queues, and the daemon does
// not wait: a client that is behind gets a deep send buffer on loan, and a request whose answer has no room
// stays in its socket until there is room. There are two classes of clients, and fairness.cpp, which holds
// the one table of their limits, is the only place that knows them.
//
// Nothing here closes a connection. All of it may be called from inside a handler.
#ifndef FAIRNESS_H
#define FAIRNESS_H

#include <cstdint>

#include "vek_socket.h"

// Renews the budgets of a pass of the main loop.
void fairness_begin_pass();

// The order in which connections came, spoke and began to wait.
std::uint64_t fairness_stamp();

// True for a connection of the device's own services, and for what the daemon does by itself (null).
bool fairness_is_privileged(const vek_socket *sock);

// ---- deep send buffers ----

// Lends a connection a deep send buffer. False when its class has none left. A loan ends when the client has
// read what it was sent, or is gone.
bool fairness_lend_buffer(vek_socket *sock);
void fairness_return_buffer(vek_socket *sock);

// At each tick: when somebody waits for a deep buffer, a client that has read nothing of its own since the last
// tick is shut down.
void fairness_end_stalled_loans();

// ---- waiting for a client: the last resort, where there is no deep buffer ----

// How long the daemon may now wait for this client to read, and that it did.
std::int64_t fairness_patience_ms(const vek_socket *sock);
void fairness_waited(std::int64_t ms);

// ---- reports, subscribers and tools ----

// False when the connection may not subscribe (once more). The subscriptions of a class are bounded in all, not
// those of one connection; when there is no room, the connection with the most of them is shut down.
bool fairness_may_subscribe(const vek_socket *sock);

// Says whether a subscriber has more than half a deep buffer to read. Reports of unprivileged clients are held for a
// moment while a privileged subscriber that reads is so far behind; a subscriber that reads nothing holds nobody.
void fairness_note_behind(vek_socket *sock, bool is_behind);

// Must a report of this connection wait: for such a subscriber, or because what other unprivileged clients reported
// in this pass has run tools for long enough?
bool fairness_holds_report(const vek_socket *sock);

// Only for the tools?
bool fairness_holds_tools(const vek_socket *sock);

// How long subscribers make reports wait; 0 when they do not.
std::int64_t fairness_hold_left_ms();

// May what this connection's report (null: the daemon's own) asks for be run at once? Otherwise it is deferred.
bool fairness_allows_tools(const vek_socket *sock);

// May what was deferred take a turn now? Not when tools have to leave time for the rest first; `idle` says that
// nobody else wants it. A turn starts when it is known what there is to do, and is over after a while.
bool fairness_may_take_turn(bool idle);
void fairness_turn_starts();
bool fairness_turn_is_over();

// ---- places ----

// The connection whose place a newcomer gets when all are taken: of the unprivileged user with the most connections,
// one that does not subscribe before one that does, the longest silent first. Null when there is none, or when the
// newcomer is unprivileged and its own user has as many.
vek_socket *fairness_to_displace(const vek_socket *newcomer);

#endif
