// turns.cpp: see turns.h. Why a record has to wait is fairness.h's to say, and handling it the endpoints'.
#include "turns.h"

#include <poll.h>

#include "endpoint.h"
#include "fairness.h"
#include "responder.h"
#include "userdb.h"

namespace {

bool some_wait; // a connection is not read from, or was not at some time

// The answer to the request that waits to be read. What counts is what it matches, not what it asks for.
std::size_t answer_size(const vek_socket *sock)
{
	vek_request request;
	if (!stream_peek_record(sock, &request, sizeof(request)) || !vek_request_is_known(request))
		return 0;
	const vek_event event = vek_event_from_request(request);
	return sizeof(vek_event) + sizeof(user_info) * static_cast<std::size_t>(responder_count(&event));
}

// Why a request must stay where it is: the answer has no room.
vek_waits request_waits(vek_socket *sock)
{
	const std::size_t longest = sizeof(vek_event) + sizeof(user_info) * static_cast<std::size_t>(vek_users);
	if (sock->shut_down || stream_has_room(sock, longest))
		return vek_waits::for_nothing;
	const std::size_t size = answer_size(sock);
	if (stream_has_room(sock, size))
		return vek_waits::for_nothing;
	if (!stream_is_writable(sock))
		return vek_waits::for_its_reader;
	// A loan that is not deep enough is all that the system gives.
	return sock->deep || fairness_lend_buffer(sock) ? vek_waits::for_nothing : vek_waits::for_a_buffer;
}

vek_waits why_to_wait(vek_socket *sock)
{
	if (sock->type == VEK_SOCKTYPE_REQUEST)
		return request_waits(sock);
	return fairness_holds_report(sock) ? vek_waits::for_its_turn : vek_waits::for_nothing;
}

void handle_record(vek_socket *sock)
{
	sock->before_tick = false;
	switch (sock->type) {
	case VEK_SOCKTYPE_NOTIFY: return vek_handle_notify(sock->fd, sock);
	case VEK_SOCKTYPE_REQUEST: return vek_handle_request(sock->fd, sock);
	default: return vek_close_client(sock->fd, sock);
	}
}

// Of those that wait for something of this kind, the one that has waited longest.
vek_socket *longest_waiting(vek_waits waits)
{
	vek_socket *longest = nullptr;
	for (vek_socket *sock : vek_socket_list)
		if (sock->waits == waits && (longest == nullptr || sock->waits_since < longest->waits_since))
			longest = sock;
	return longest;
}

// Marks each connection in which a report lies now.
void mark_reports()
{
	pollfd ready[VEK_MAX_FILES];
	vek_socket *socks[VEK_MAX_FILES];
	nfds_t count = 0;
	for (vek_socket *sock : vek_socket_list)
		if (sock->type == VEK_SOCKTYPE_NOTIFY) {
			socks[count] = sock;
			ready[count++] = {sock->fd, POLLIN, 0};
		}
	if (count > 0 && poll(ready, count, 0) > 0)
		for (nfds_t i = 0; i < count; i++)
			socks[i]->before_tick = ready[i].revents != 0;
}

// Nobody hears of the end of a connection that is not read from. Those that have ended wait no longer.
void end_those_gone()
{
	pollfd gone[VEK_MAX_FILES];
	vek_socket *socks[VEK_MAX_FILES];
	nfds_t count = 0;
	for (vek_socket *sock : vek_socket_list)
		if (sock->waits != vek_waits::for_nothing) {
			socks[count] = sock;
			gone[count++] = {sock->fd, 0, 0};
		}
	some_wait = count > 0;
	if (count == 0 || poll(gone, count, 0) <= 0)
		return;
	for (nfds_t i = 0; i < count; i++)
		if (gone[i].revents != 0) {
			stream_shut_down(socks[i], "is gone");
			turns_watch(socks[i], vek_waits::for_nothing);
		}
}

// Serves those whose waiting is over, the longest waiting first.
void serve_waiting()
{
	end_those_gone();
	while (vek_socket *sock = longest_waiting(vek_waits::for_a_buffer)) {
		if (why_to_wait(sock) == vek_waits::for_a_buffer)
			break;
		turns_serve(sock);
	}
	if (const std::int64_t left = fairness_hold_left_ms(); left > 0)
		return vek_sock_event_limit_wait(static_cast<int>(left));
	// All that have waited for subscribers have their turn, whatever the first of them leads to.
	const std::uint64_t now = fairness_stamp();
	vek_socket *sock;
	while ((sock = longest_waiting(vek_waits::for_its_turn)) != nullptr && sock->waits_since < now &&
	       !fairness_holds_tools(sock)) {
		turns_watch(sock, vek_waits::for_nothing);
		handle_record(sock);
	}
	if (sock != nullptr)
		vek_sock_event_limit_wait(0);
}

} // namespace

void turns_look_again() { some_wait = true; }

bool turns_watch(vek_socket *sock, vek_waits waits)
{
	vek_sock_event_del_fd(sock->fd);
	sock->waits = waits;
	some_wait |= waits != vek_waits::for_nothing;
	if (waits == vek_waits::for_nothing)
		return vek_sock_event_add_fd(sock->fd, FD_READ, sock) == 0;
	return waits != vek_waits::for_its_reader || vek_sock_event_add_fd(sock->fd, FD_WRITE, sock) == 0;
}

void turns_serve(vek_socket *sock)
{
	const vek_waits waits = why_to_wait(sock);
	if (waits != sock->waits) {
		if (sock->waits == vek_waits::for_nothing)
			sock->waits_since = fairness_stamp();
		turns_watch(sock, waits);
	}
	if (waits == vek_waits::for_nothing)
		handle_record(sock);
}

void vek_begin_pass()
{
	fairness_begin_pass();
	if (some_wait)
		serve_waiting();
}

bool vek_catch_up()
{
	static bool catching_up;
	if (!catching_up)
		mark_reports();
	catching_up = false;
	for (list_head *const head = vek_socket_list.head(), *link = head->next; link != head;) {
		auto *sock = list_entry<&vek_socket::list>(link);
		link = link->next; // handling a record may free its connection
		if (!sock->before_tick)
			continue;
		// What runs tools takes its turns, between which others are served.
		if (fairness_holds_tools(sock)) {
			catching_up = true;
			continue;
		}
		turns_watch(sock, vek_waits::for_nothing);
		handle_record(sock);
	}
	return !catching_up;
}
