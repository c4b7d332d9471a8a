// endpoint.cpp: connections on the notify and the request socket, from accept to close, and the way of a record
// from its socket to the event bus. What an event does is left to the handlers there.
#include "endpoint.h"

#include <fcntl.h>
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
#include "turns.h"
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

ucred peer_of(int fd)
{
	ucred peer{0, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};
	socklen_t length = sizeof(peer);
	getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length);
	return peer;
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
	return turns_watch(sock, vek_waits::for_nothing);
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
	if (!turns_watch(sock, vek_waits::for_nothing) && !displace_for(sock)) {
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

bool vek_request_is_known(const vek_request &request)
{
	return request.method >= VEK_QUERY_NAME && request.method <= VEK_QUERY_TOTAL_USER_NUM;
}

vek_event vek_event_from_request(const vek_request &request)
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
	turns_serve(static_cast<vek_socket *>(data));
}

void vek_sock_event_write(int fd, void *data)
{
	auto *sock = static_cast<vek_socket *>(data);
	if (sock == nullptr || sock->waits != vek_waits::for_its_reader)
		return vek_close_client(fd, sock);
	if (sock->subscriptions == 0)
		fairness_return_buffer(sock);
	turns_watch(sock, vek_waits::for_nothing);
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
	if (!vek_request_is_known(request))
		return;
	vek_event event = vek_event_from_request(request);
	vek_dispatch_event(&event, sock);
	// The loan for an answer lasts until that is read, but nothing is added to it.
	if (sock->deep && sock->subscriptions == 0) {
		stream_set_depth(sock, false);
		turns_watch(sock, vek_waits::for_its_reader);
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

void vek_tick_endpoints()
{
	resume_accept();
	fairness_end_stalled_loans();
	stream_close_leftovers();
	turns_look_again();
}
