// endpoint.cpp: connections on the notify and the request socket, from accept to close: one record per
// readiness, read, checked and turned into an event; revocable logouts parked; every write to a client.
// What an event does is left to the handlers on the bus.
#include "endpoint.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <optional>

#include "child.h"
#include "daemon.h"
#include "listener.h"
#include "misc.h"
#include "userdb.h"
#include "vek_event.h"
#include "vek_fields.h"

list_of<&vek_socket::list> vek_socket_list;
list_of<&vek_deferred_logout::list> vek_deferred_logout_list;
int vek_notify_fd = -1, vek_request_fd = -1;
sock_event vek_skevent = {vek_sock_event_write, vek_sock_event_read, vek_sock_event_error};

namespace {

// ---- waiting for slow clients ----

// Everybody waits while we wait for one client, so waiting is rationed: a pass of the main loop waits at most
// PATIENCE_MS for services of user 0, and as long for all others. A wait in vain is paid for, and so is every
// one for an unprivileged client: until the patience has grown back, a pass waits no longer than what is left
// of it, or MIN_PASS_MS. A long answer is begun only with that much left; a request that comes later in a
// pass is put off, and has its turn before the next one.
constexpr std::int64_t PATIENCE_MS = 500;
constexpr std::int64_t MIN_PASS_MS = 100;
constexpr std::int64_t REGROWTH = 4; // milliseconds until one of patience is back
constexpr int FITS_AT_ONCE = 100;    // records of an answer that any client's empty buffer takes

class ration {
public:
	void begin_pass()
	{
		if (patience_ms_ < PATIENCE_MS)
			regrow(monotonic_ms());
		left_ms_ = std::max(patience_ms_, MIN_PASS_MS);
	}
	bool allows_a_long_answer() const { return left_ms_ >= MIN_PASS_MS; }

	// Waits until a client takes bytes again for which we have been waiting on and off since then, but no
	// longer in all than the pass has left. Whether it does.
	bool wait_for(int fd, std::int64_t since) const
	{
		const std::int64_t deadline = since + left_ms_;
		for (std::int64_t now; (now = monotonic_ms()) < deadline;) {
			pollfd ready{fd, POLLOUT, 0};
			const int result = poll(&ready, 1, static_cast<int>(deadline - now));
			if (result > 0)
				return true;
			if (result < 0 && errno != EINTR)
				return false;
		}
		return false;
	}

	// That wait is over; what it took is missing in this pass, or in the next ones too.
	void spend(std::int64_t since, bool in_next_passes)
	{
		const std::int64_t waited = monotonic_ms() - since;
		left_ms_ = std::max<std::int64_t>(0, left_ms_ - waited);
		if (!in_next_passes)
			return;
		regrow(since);
		patience_ms_ = std::max<std::int64_t>(0, patience_ms_ - waited);
		patience_at_ms_ += waited;
	}

private:
	// By whole milliseconds of patience, so that no part of the time is lost however often this is
	// called.
	void regrow(std::int64_t now)
	{
		const std::int64_t regrown = (now - patience_at_ms_) / REGROWTH;
		patience_ms_ = std::min(PATIENCE_MS, patience_ms_ + regrown);
		patience_at_ms_ += regrown * REGROWTH;
	}

	std::int64_t patience_ms_ = PATIENCE_MS;
	std::int64_t patience_at_ms_ = 0; // when that was so
	std::int64_t left_ms_ = PATIENCE_MS;
};
ration of_services, of_others;

bool is_service(const vek_socket *sock) { return sock != nullptr && sock->uid == 0; }
ration &ration_of(const vek_socket *sock) { return is_service(sock) ? of_services : of_others; }

// ---- descriptors that programs pass ----

// A program may send descriptors along with its bytes. They are closed unseen when the bytes are read, or
// with the connection; and when the sender has not kept the last of them, one may be a socket that lingers
// for as long as he likes, or until a signal comes. So one comes each millisecond while this lives. A service
// of user 0 has no need of such means.
class no_lingering {
public:
	explicit no_lingering(const vek_socket *sock) : on_(!is_service(sock) && timer().made)
	{
		if (on_)
			timer_settime(timer().id, 0, &often, nullptr);
	}
	~no_lingering()
	{
		if (on_)
			timer_settime(timer().id, 0, &never, nullptr);
	}
	no_lingering(const no_lingering &) = delete;
	no_lingering &operator=(const no_lingering &) = delete;

private:
	static constexpr itimerspec often{{0, 1'000'000}, {0, 1'000'000}}, never{};

	struct signal_timer {
		timer_t id{};
		bool made;
		signal_timer()
		{
			struct sigaction action {};
			action.sa_handler = [](int) {};
			sigevent by_signal{};
			by_signal.sigev_notify = SIGEV_SIGNAL;
			by_signal.sigev_signo = SIGURG;
			made = sigaction(SIGURG, &action, nullptr) == 0 &&
			       timer_create(CLOCK_MONOTONIC, &by_signal, &id) == 0;
		}
	};
	// Made when it is first needed: a process that detaches leaves its timers behind.
	static const signal_timer &timer()
	{
		static const signal_timer timer;
		return timer;
	}

	const bool on_;
};

// ---- connections ----

constexpr int BACKLOG = 5;
std::uint64_t activity_stamp;
bool some_put_off; // a record, at some time
bool accept_paused;
int spare_fd = -1; // given up for a moment to turn a connection away when descriptors have run out

vek_socket *socket_of(int fd)
{
	for (vek_socket *sock : vek_socket_list)
		if (sock->fd == fd)
			return sock;
	return nullptr;
}

// No more of this client: it sees the end of the stream behind what it was already sent, and a later pass
// reads ours and cleans up.
void cut(int fd, const char *why)
{
	shutdown(fd, SHUT_RDWR);
	vek_socket *sock = socket_of(fd);
	if (sock == nullptr || sock->cut)
		return;
	sock->cut = true;
	if (debug)
		std::fprintf(stderr, "endpoint: shut down %s connection %d of process %d, user %d: %s\n",
			     sock->type == VEK_SOCKTYPE_NOTIFY ? "notify" : "request", fd,
			     static_cast<int>(sock->pid), static_cast<int>(sock->uid), why);
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

ucred peer_of(int fd)
{
	ucred peer{0, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};
	socklen_t length = sizeof(peer);
	getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length);
	return peer;
}

bool keep(vek_socket *sock) { return vek_sock_event_add_fd(sock->fd, FD_READ, sock) == 0; }

// All places are taken: a service of user 0 gets that of the unprivileged connection that has been silent
// longest. The new connection moves into the freed descriptor's number.
bool displace_for(vek_socket *sock)
{
	if (!is_service(sock))
		return false;
	vek_socket *silent = nullptr;
	for (vek_socket *other : vek_socket_list)
		if (!is_service(other) && (silent == nullptr || other->activity < silent->activity))
			silent = other;
	if (silent == nullptr)
		return false;
	cut(silent->fd, "silent, and its place was needed");
	end_client(silent);
	const int fd = fcntl(sock->fd, F_DUPFD_CLOEXEC, 0);
	if (fd < 0)
		return false;
	close(sock->fd);
	sock->fd = fd;
	return keep(sock);
}

void pause_accept()
{
	accept_paused = true;
	vek_sock_event_del_fd(vek_notify_fd);
	vek_sock_event_del_fd(vek_request_fd);
}

// Without descriptors a waiting connection would make every pass ready at once. It is turned away with the
// spare one; when even that fails, nobody is accepted until the next tick.
void turn_away(int listening_fd)
{
	if (spare_fd >= 0)
		close(spare_fd);
	const int fd = accept4(listening_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
	const bool helpless = fd < 0 && errno != EAGAIN;
	if (fd >= 0) {
		const no_lingering now(nullptr);
		close(fd);
	}
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
		vek_close_client(fd, nullptr);
		return true;
	}
	const ucred peer = peer_of(fd);
	sock->type = type;
	sock->fd = fd;
	sock->pid = peer.pid;
	sock->uid = peer.uid;
	sock->activity = ++activity_stamp;
	if (!keep(sock) && !displace_for(sock)) {
		const no_lingering now(sock);
		close(sock->fd);
		vek_free(sock);
		return true;
	}
	vek_socket_list.push_back(sock);
	return true;
}

// A whole queue at a time: a pass may be long, and a crowd must not keep services out for many of them.
void accept_queue(int listening_fd, std::uint8_t type)
{
	for (int i = 0; i < BACKLOG && accept_client(listening_fd, type); i++)
		;
}

// One whole record, as it lies there; the one read a readiness gets.
bool read_record(vek_socket *sock, void *record, std::size_t size)
{
	sock->activity = ++activity_stamp;
	const no_lingering now(sock);
	return !sock->cut && recv(sock->fd, record, size, MSG_DONTWAIT) == static_cast<ssize_t>(size);
}

// ---- notify records ----

// As many as there can be sessions to log out.
constexpr int MAX_DEFERRED_LOGOUTS = VEK_MAX_USERS;
int deferred_logouts;

bool park_logout(const vek_event &event)
{
	if (deferred_logouts >= MAX_DEFERRED_LOGOUTS)
		return false;
	auto *parked = static_cast<vek_deferred_logout *>(vek_malloc(sizeof(vek_deferred_logout)));
	if (parked == nullptr)
		return false;
	parked->event_time = get_uptime();
	parked->event = event;
	vek_deferred_logout_list.push_back(parked);
	deferred_logouts++;
	return true;
}

void revoke_logouts(const vek_event &event)
{
	list_head *const head = vek_deferred_logout_list.head();
	for (list_head *link = head->next; link != head;) {
		auto *parked = list_entry<&vek_deferred_logout::list>(link);
		link = link->next;
		if (VEK_EVENT_LOGOUT_MATCHED(&parked->event, &event))
			vek_free_deferred_logout(parked);
	}
}

int dispatch_notice(vek_event *event, vek_socket *sock)
{
	event->count = 0;
	return vek_dispatch_event(event, sock) == VEK_STOP_DISPATCH ? VEK_RESPONSE_FAIL
								    : VEK_RESPONSE_SUCCESS;
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

// Does a request wait to be read whose answer its sender may have to read while it is written?
bool may_be_long(const vek_socket *sock)
{
	std::int32_t method;
	if (sock->cut || userdb_query_total_user_num() <= FITS_AT_ONCE ||
	    recv(sock->fd, &method, sizeof(method), MSG_PEEK | MSG_DONTWAIT) !=
		static_cast<ssize_t>(sizeof(method)))
		return false;
	return method == VEK_QUERY_NAME || method == VEK_QUERY_FROM || method == VEK_QUERY_ALL;
}

// ---- records that are put off ----

// What a report starts may take long as well: the tools that it has run, or the thousand sessions that it
// moves or ends. Those of programs without rights have this much of a pass, from the first of them on.
constexpr std::int64_t OTHERS_TURN_MS = 20;
std::int64_t others_turn_since_ms; // 0 until there is one

bool others_turn_is_over()
{
	const std::int64_t now = monotonic_ms();
	if (others_turn_since_ms == 0)
		others_turn_since_ms = now;
	return now - others_turn_since_ms >= OTHERS_TURN_MS || vek_child_turn_is_over();
}

bool must_wait(const vek_socket *sock)
{
	if (sock->type == VEK_SOCKTYPE_NOTIFY)
		return !is_service(sock) && others_turn_is_over();
	return sock->type == VEK_SOCKTYPE_REQUEST && !ration_of(sock).allows_a_long_answer() &&
	       may_be_long(sock);
}

// The one whose turn it is: waiting longest.
vek_socket *next_put_off(const ration &ration)
{
	vek_socket *next = nullptr;
	for (vek_socket *sock : vek_socket_list)
		if (sock->put_off != 0 && &ration_of(sock) == &ration &&
		    (next == nullptr || sock->put_off < next->put_off))
			next = sock;
	return next;
}

void handle_record(vek_socket *sock)
{
	sock->put_off = 0;
	switch (sock->type) {
	case VEK_SOCKTYPE_NOTIFY: return vek_handle_notify(sock->fd, sock);
	case VEK_SOCKTYPE_REQUEST: return vek_handle_request(sock->fd, sock);
	default: return vek_close_client(sock->fd, sock);
	}
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

// A copy for a subscriber is one part, for which the plain call is the cheaper.
ssize_t send_parts(int fd, std::span<iovec> parts)
{
	constexpr int flags = MSG_DONTWAIT | MSG_NOSIGNAL;
	if (parts.size() == 1)
		return send(fd, parts.front().iov_base, parts.front().iov_len, flags);
	msghdr message{};
	message.msg_iov = parts.data();
	message.msg_iovlen = parts.size();
	return sendmsg(fd, &message, flags);
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

	auto *sock = static_cast<vek_socket *>(data);
	if (!must_wait(sock))
		return handle_record(sock);
	some_put_off = true;
	if (sock->put_off == 0)
		sock->put_off = ++activity_stamp;
}

void vek_sock_event_write(int fd, void *data) { vek_close_client(fd, static_cast<vek_socket *>(data)); }

int vek_sock_event_error(int) { return -1; }

void vek_accept_notify(int fd, void *) { accept_queue(fd, VEK_SOCKTYPE_NOTIFY); }

void vek_accept_request(int fd, void *) { accept_queue(fd, VEK_SOCKTYPE_REQUEST); }

void vek_resume_accept()
{
	if (!accept_paused)
		return;
	accept_paused = false;
	vek_sock_event_add_fd(vek_notify_fd, FD_READ, nullptr);
	vek_sock_event_add_fd(vek_request_fd, FD_READ, nullptr);
}

void vek_handle_notify(int fd, vek_socket *sock)
{
	vek_event event;
	if (!read_record(sock, &event, sizeof(event)))
		return vek_close_client(fd, sock);
	cut_text<vek_event_fields>(&event);

	if (!vek_event_is_reported(event.event))
		return;

	int code = VEK_RESPONSE_FAIL;
	if (event.event == VEK_EVENT_USER_LOGOUT_REVOKE) {
		revoke_logouts(event);
	} else if (event.event != VEK_EVENT_USER_LOGOUT_REVOCABLE) {
		code = dispatch_notice(&event, sock);
	} else if (!park_logout(event)) {
		event.event = VEK_EVENT_USER_LOGOUT;
		code = dispatch_notice(&event, sock);
	}
	if (vek_send_response(code, fd) < 0)
		vek_close_client(fd, sock);
}

void vek_handle_request(int, vek_socket *sock)
{
	vek_request request;
	if (!read_record(sock, &request, sizeof(request)))
		return end_client(sock);
	if (request.method < VEK_QUERY_NAME || request.method > VEK_QUERY_TOTAL_USER_NUM)
		return;
	vek_event event = event_from(request);
	vek_dispatch_event(&event, sock);
}

void vek_close_client(int fd, vek_socket *sock)
{
	const no_lingering now(sock);
	if (sock != nullptr) {
		list_del(&sock->list);
		vek_free(sock);
	}
	if (fd >= 0) {
		listener_forget(fd);
		vek_sock_event_del_fd(fd);
		close(fd);
	}
}

ssize_t vek_send_response(int result, int fd)
{
	const vek_response response{result};
	const ssize_t sent = send(fd, &response, sizeof(response), MSG_DONTWAIT | MSG_NOSIGNAL);
	if (sent == static_cast<ssize_t>(sizeof(response)))
		return sent;
	if (errno == EAGAIN)
		cut(fd, "did not read its answers");
	return -1;
}

ssize_t vek_write_client(int fd, std::span<iovec> parts)
{
	ssize_t total = 0;
	std::optional<std::int64_t> since; // when it first took no more
	while (!parts.empty()) {
		ssize_t sent = send_parts(fd, parts);
		if (sent < 0) {
			const int reason = errno;
			if (reason == EINTR)
				continue;
			if (!since)
				since = monotonic_ms();
			// Without memory for it (ENOBUFS) there is room at once, and the next try is as slow
			// as it likes; so it is the clock that ends this.
			ration &patience = ration_of(socket_of(fd));
			if ((reason == EAGAIN || reason == ENOBUFS) && patience.wait_for(fd, *since))
				continue;
			patience.spend(*since, true);
			if (reason != EPIPE && reason != ECONNRESET)
				cut(fd, "did not read what it asked for");
			errno = reason;
			return -1;
		}
		total += sent;
		while (!parts.empty() && static_cast<std::size_t>(sent) >= parts.front().iov_len) {
			sent -= static_cast<ssize_t>(parts.front().iov_len);
			parts = parts.subspan(1);
		}
		if (sent > 0) {
			iovec &part = parts.front();
			part.iov_base = static_cast<char *>(part.iov_base) + sent;
			part.iov_len -= static_cast<std::size_t>(sent);
		}
	}
	if (since) {
		const vek_socket *sock = socket_of(fd);
		ration_of(sock).spend(*since, !is_service(sock));
	}
	return total;
}

void vek_deepen_buffer(vek_socket *sock)
{
	// Kernel memory, so only for those we trust: room for a burst of about 500 copies.
	if (!is_service(sock))
		return;
	const int room = 640 * 1024; // the kernel doubles it for its own needs
	if (setsockopt(sock->fd, SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof(room)) < 0)
		setsockopt(sock->fd, SOL_SOCKET, SO_SNDBUF, &room, sizeof(room));
}

void vek_free_deferred_logout(vek_deferred_logout *parked)
{
	list_del(&parked->list);
	vek_free(parked);
	deferred_logouts--;
}

void vek_begin_pass()
{
	vek_begin_child_turn();
	others_turn_since_ms = 0;
	for (ration *ration : {&of_services, &of_others})
		ration->begin_pass();
	if (!some_put_off)
		return;
	some_put_off = false;
	for (const ration *ration : {&of_services, &of_others})
		if (vek_socket *sock = next_put_off(*ration)) {
			some_put_off = true;
			handle_record(sock);
		}
}
