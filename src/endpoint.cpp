// endpoint.cpp: connections on the notify and the request socket, from accept to close, and the way of a record
// from its socket to the event bus. What an event does is left to the handlers there.
#include "endpoint.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "deferred_logout.h"
#include "fairness.h"
#include "misc.h"
#include "responder.h"
#include "userdb.h"
#include "vek_event.h"
#include "vek_fields.h"

list_of<&vek_socket::list> vek_socket_list;
int vek_notify_fd = -1, vek_request_fd = -1;
sock_event vek_skevent = {vek_sock_event_write, vek_sock_event_read, vek_sock_event_error};

namespace {

// ---- connections ----

constexpr int BACKLOG = 5;
bool accept_paused;
int spare_fd = -1; // given up for a moment to turn a connection away when descriptors have run out
bool some_wait;    // a connection is not read from, or was not at some time

ucred peer_of(int fd)
{
	ucred peer{0, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};
	socklen_t length = sizeof(peer);
	getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length);
	return peer;
}

// Reads from a connection, or leaves what it sends where it is for a while.
bool watch(vek_socket *sock, vek_waits waits)
{
	vek_sock_event_del_fd(sock->fd);
	sock->waits = waits;
	some_wait |= waits != vek_waits::for_nothing;
	if (waits == vek_waits::for_nothing)
		return vek_sock_event_add_fd(sock->fd, FD_READ, sock) == 0;
	return waits != vek_waits::for_its_reader || vek_sock_event_add_fd(sock->fd, FD_WRITE, sock) == 0;
}

// The usual end of a request connection: its subscription goes first.
void end_client(vek_socket *sock)
{
	if (sock->type == VEK_SOCKTYPE_REQUEST) {
		vek_event event = vek_new_event(VEK_EVENT_APP_CLOSE);
		vek_dispatch_event(&event, sock);
	}
	vek_close_client(sock->fd, sock);
}

// ---- notify records ----

int dispatch_notice(vek_event *event, vek_socket *sock)
{
	event->count = 0;
	return vek_dispatch_event(event, sock) == VEK_STOP_DISPATCH ? VEK_RESPONSE_FAIL
								    : VEK_RESPONSE_SUCCESS;
}

// Handles one report. False when there was none that is whole.
bool handle_report(vek_socket *sock)
{
	vek_event event;
	if (!stream_read_record(sock, &event, sizeof(event)))
		return false;
	cut_text<vek_event_fields>(&event);
	if (!vek_event_is_reported(event.event))
		return true;

	int code = VEK_RESPONSE_FAIL;
	if (event.event == VEK_EVENT_USER_LOGOUT_REVOKE) {
		vek_revoke_logouts(event);
	} else if (event.event != VEK_EVENT_USER_LOGOUT_REVOCABLE) {
		code = dispatch_notice(&event, sock);
	} else if (!vek_park_logout(event)) {
		event.event = VEK_EVENT_USER_LOGOUT;
		code = dispatch_notice(&event, sock);
	}
	// Who does not take answers is not spoken to again, but what lies in the connection still counts.
	if (!sock->shut_down && vek_send_response(code, sock->fd) < 0)
		stream_shut_down(sock, errno == EAGAIN ? "did not read its answers" : "is gone");
	return true;
}

// ---- request records ----

constexpr int event_of_method[] = {
    0,
    VEK_EVENT_APP_QUERY_NAME,
    VEK_EVENT_APP_QUERY_FROM,
    VEK_EVENT_APP_QUERY_FROM_FIRST,
    VEK_EVENT_APP_QUERY_ALL,
    VEK_EVENT_APP_LISTEN,
    VEK_EVENT_APP_QUERY_TOTAL_USER_NUM,
};

bool is_known(const vek_request &request)
{
	return request.method >= VEK_QUERY_NAME && request.method <= VEK_QUERY_TOTAL_USER_NUM;
}

vek_event event_from(const vek_request &request)
{
	const bool ipv6 = request.req_flags & VEK_HANDLE_FLAG_IPV6_ADDR;
	vek_event event = vek_new_event(event_of_method[request.method]);
	switch (request.method) {
	case VEK_QUERY_NAME: copy_text(event.username, request.u.username); break;
	case VEK_QUERY_FROM:
	case VEK_QUERY_FROM_FIRST:
		if (ipv6)
			event.ip6 = request.u.ip6;
		else
			event.ip = request.u.ip;
		break;
	case VEK_QUERY_ALL: break;
	default: return event;
	}
	if (ipv6)
		event.event_flag = VEK_EVENT_FLAG_USED_IPV6_ADDR;
	return event;
}

// ---- who has to wait ----

// The answer to the request that waits to be read. What counts is what it matches, not what it asks for.
std::size_t answer_size(const vek_socket *sock)
{
	vek_request request;
	if (!stream_peek_record(sock, &request, sizeof(request)) || !is_known(request))
		return 0;
	const vek_event event = event_from(request);
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

// A record may lie in this connection: handles it unless it has to wait.
void serve(vek_socket *sock)
{
	const vek_waits waits = why_to_wait(sock);
	if (waits != sock->waits) {
		if (sock->waits == vek_waits::for_nothing)
			sock->waits_since = fairness_stamp();
		watch(sock, waits);
	}
	if (waits == vek_waits::for_nothing)
		handle_record(sock);
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
			watch(socks[i], vek_waits::for_nothing);
		}
}

// Serves those whose waiting is over, the longest waiting first.
void serve_waiting()
{
	end_those_gone();
	while (vek_socket *sock = longest_waiting(vek_waits::for_a_buffer)) {
		if (why_to_wait(sock) == vek_waits::for_a_buffer)
			break;
		serve(sock);
	}
	if (const std::int64_t left = fairness_hold_left_ms(); left > 0)
		return vek_sock_event_limit_wait(static_cast<int>(left));
	// All that have waited for subscribers have their turn, whatever the first of them leads to.
	const std::uint64_t now = fairness_stamp();
	vek_socket *sock;
	while ((sock = longest_waiting(vek_waits::for_its_turn)) != nullptr && sock->waits_since < now &&
	       !fairness_holds_tools(sock)) {
		watch(sock, vek_waits::for_nothing);
		handle_record(sock);
	}
	if (sock != nullptr)
		vek_sock_event_limit_wait(0);
}

// ---- accepting ----

// Takes the place of another connection. What lies whole in that one is handled first.
bool displace_for(vek_socket *sock)
{
	vek_socket *silent = fairness_to_displace(sock);
	if (silent == nullptr)
		return false;
	stream_shut_down(silent, "its place was needed");
	int unread;
	if (silent->type == VEK_SOCKTYPE_NOTIFY)
		while (ioctl(silent->fd, FIONREAD, &unread) == 0 &&
		       unread >= static_cast<int>(sizeof(vek_event)) && handle_report(silent))
			;
	end_client(silent);
	// The new connection moves into the freed descriptor's number.
	const int fd = fcntl(sock->fd, F_DUPFD_CLOEXEC, 0);
	if (fd < 0)
		return false;
	close(sock->fd);
	sock->fd = fd;
	return watch(sock, vek_waits::for_nothing);
}

void pause_accept()
{
	accept_paused = true;
	vek_sock_event_del_fd(vek_notify_fd);
	vek_sock_event_del_fd(vek_request_fd);
}

void resume_accept()
{
	if (!accept_paused)
		return;
	accept_paused = false;
	vek_sock_event_add_fd(vek_notify_fd, FD_READ, nullptr);
	vek_sock_event_add_fd(vek_request_fd, FD_READ, nullptr);
}

// Without descriptors a waiting connection would make every pass ready at once. It is turned away with the
// spare one; when even that fails, nobody is accepted until the next tick.
void turn_away(int listening_fd)
{
	if (spare_fd >= 0)
		close(spare_fd);
	const int fd = accept4(listening_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
	const bool helpless = fd < 0 && errno != EAGAIN;
	if (fd >= 0)
		stream_close(fd, false);
	spare_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
	if (helpless)
		pause_accept();
}

// False when nobody else waits to be accepted.
bool accept_client(int listening_fd, std::uint8_t type)
{
	const int fd = accept4(listening_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
	if (fd < 0) {
		if (errno != EINTR && errno != EAGAIN && errno != ECONNABORTED)
			turn_away(listening_fd);
		return false;
	}
	if (spare_fd < 0)
		spare_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
	auto *sock = static_cast<vek_socket *>(vek_malloc(sizeof(vek_socket)));
	if (sock == nullptr) {
		stream_close(fd, false);
		return true;
	}
	const ucred peer = peer_of(fd);
	sock->type = type;
	sock->fd = fd;
	sock->pid = peer.pid;
	sock->uid = peer.uid;
	sock->activity = fairness_stamp();
	if (!watch(sock, vek_waits::for_nothing) && !displace_for(sock)) {
		stream_close(sock->fd, fairness_is_privileged(sock));
		vek_free(sock);
		return true;
	}
	vek_socket_list.push_back(sock);
	return true;
}

// Until nobody waits: a crowd must not keep services out. The limit is for a crowd that comes as fast, and whose
// connections would take all places before the end of any is read.
void accept_queue(int listening_fd, std::uint8_t type)
{
	constexpr int AT_ONCE = 32;
	for (int i = 0; i < AT_ONCE && accept_client(listening_fd, type); i++)
		;
}

} // namespace

int vek_bind_unix_address(const char *path)
{
	const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
	if (fd < 0)
		return -1;
	const int on = 1;
	sockaddr_un address{};
	address.sun_family = AF_UNIX;
	copy_text(address.sun_path, path);
	stream_refuse_descriptors(fd);
	if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) < 0 ||
	    bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) < 0 ||
	    listen(fd, BACKLOG) < 0) {
		close(fd);
		return -1;
	}
	return fd;
}

void vek_sock_event_read(int fd, void *data)
{
	if (fd == vek_notify_fd)
		return vek_accept_notify(fd, data);
	if (fd == vek_request_fd)
		return vek_accept_request(fd, data);
	serve(static_cast<vek_socket *>(data));
}

void vek_sock_event_write(int fd, void *data)
{
	auto *sock = static_cast<vek_socket *>(data);
	if (sock == nullptr || sock->waits != vek_waits::for_its_reader)
		return vek_close_client(fd, sock);
	if (sock->subscriptions == 0)
		fairness_return_buffer(sock);
	watch(sock, vek_waits::for_nothing);
}

int vek_sock_event_error(int) { return -1; }

void vek_accept_notify(int fd, void *) { accept_queue(fd, VEK_SOCKTYPE_NOTIFY); }

void vek_accept_request(int fd, void *) { accept_queue(fd, VEK_SOCKTYPE_REQUEST); }

void vek_handle_notify(int fd, vek_socket *sock)
{
	if (!handle_report(sock))
		vek_close_client(fd, sock);
}

void vek_handle_request(int, vek_socket *sock)
{
	vek_request request;
	if (sock->shut_down || !stream_read_record(sock, &request, sizeof(request)))
		return end_client(sock);
	if (!is_known(request))
		return;
	vek_event event = event_from(request);
	vek_dispatch_event(&event, sock);
	// The loan for an answer lasts until that is read, but nothing is added to it.
	if (sock->deep && sock->subscriptions == 0) {
		stream_set_depth(sock, false);
		watch(sock, vek_waits::for_its_reader);
	}
}

void vek_close_client(int fd, vek_socket *sock)
{
	const bool trusted = fairness_is_privileged(sock);
	if (sock != nullptr) {
		if (sock->on_close != nullptr)
			sock->on_close(sock);
		list_del(&sock->list);
		vek_free(sock);
	}
	if (fd >= 0) {
		vek_sock_event_del_fd(fd);
		stream_close(fd, trusted);
	}
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
		watch(sock, vek_waits::for_nothing);
		handle_record(sock);
	}
	return !catching_up;
}

void vek_tick_endpoints()
{
	resume_accept();
	fairness_end_stalled_loans();
	stream_close_leftovers();
	some_wait = true;
}
