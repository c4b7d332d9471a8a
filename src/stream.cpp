// stream.cpp: see stream.h. The first half moves records; the second half keeps the daemon from closing what a
// client passed to it, because only the kernel knows how long that takes.
#include "stream.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "daemon.h"
#include "fairness.h"
#include "misc.h"
#include "sock_event.h"
#include "vek.h"

namespace {

// ---- room ----

// Takes the answer to everything, or a copy for the end of each session, from a client that reads nothing
// meanwhile.
constexpr int DEEP_BUFFER = 1280 * 1024;
std::uint32_t usual_room;     // of a send buffer that nobody changed
bool gives_deep_buffers = true; // the system does, as far as is known

std::uint32_t ask_room(int fd)
{
	int room = 0;
	socklen_t length = sizeof(room);
	getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &room, &length);
	return static_cast<std::uint32_t>(room);
}

void learn_room(vek_socket *sock)
{
	if (sock->room != 0)
		return;
	sock->room = ask_room(sock->fd);
	if (!sock->deep)
		usual_room = sock->room;
}

// The most that so many bytes, written at once, take of a send buffer: the kernel counts its own needs too.
std::uint32_t taken_by(std::size_t size)
{
	return static_cast<std::uint32_t>(size < 4096 ? 2 * size + 1024 : size + size / 4 + 4096);
}

// ---- writing ----

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

std::span<iovec> without_first(std::span<iovec> parts, std::size_t sent)
{
	while (!parts.empty() && sent >= parts.front().iov_len) {
		sent -= parts.front().iov_len;
		parts = parts.subspan(1);
	}
	if (sent > 0) {
		iovec &part = parts.front();
		part.iov_base = static_cast<char *>(part.iov_base) + sent;
		part.iov_len -= sent;
	}
	return parts;
}

// One write, which may have to wait for its client in several places, but not longer in all than it may when the
// first of them comes.
class last_resort {
public:
	explicit last_resort(const vek_socket *sock) : sock_(sock) {}

	// Waits until the socket takes bytes again. Whether it does.
	bool wait()
	{
		const std::int64_t start = monotonic_ms();
		if (deadline_ < 0)
			deadline_ = start + fairness_patience_ms(sock_);
		bool ready = false;
		std::int64_t now = start;
		while (!ready && now < deadline_) {
			pollfd writable{sock_->fd, POLLOUT, 0};
			const int result = poll(&writable, 1, static_cast<int>(deadline_ - now));
			if (result < 0 && errno != EINTR)
				break;
			ready = result > 0;
			now = monotonic_ms();
		}
		fairness_waited(now - start);
		return ready;
	}

private:
	const vek_socket *sock_;
	std::int64_t deadline_ = -1;
};

// The kernel did not take what was to be written. Whether it is worth another try.
bool make_room(vek_socket *sock, int reason, last_resort &resort)
{
	if (reason == EAGAIN && !sock->deep && fairness_lend_buffer(sock))
		return true;
	if (reason != EAGAIN && reason != ENOBUFS)
		return false;
	// Without memory for it (ENOBUFS) there is room at once, and the next try is as slow as it likes; so it is
	// the clock that ends this.
	return resort.wait();
}

// ---- descriptors that clients pass ----

// A client may send descriptors along with its bytes, and whoever closes the last of one may be held for as long
// as its owner likes: it lingers, holds a thousand others, or belongs to a file system that never answers. The
// kernel refuses to take them where it can (SO_PASSRIGHTS, since Linux 6.16). Elsewhere a connection that carries
// any, or that ends with anything unread, is shared with a child, which is the one that closes it last.
constexpr int PASS_RIGHTS = 83;
constexpr int MAX_CHILDREN = 8;
bool kernel_refuses_descriptors = true;
volatile pid_t closing_children[MAX_CHILDREN];
int leftovers[VEK_MAX_FILES]; // that no child was free for
int count_leftovers;

bool carries_descriptors(const vek_socket *sock, std::size_t size)
{
	char bytes[sizeof(vek_event)];
	iovec part{bytes, std::min(size, sizeof(bytes))};
	msghdr message{};
	message.msg_iov = &part;
	message.msg_iovlen = 1;
	// Looking takes nothing, and without room for them the kernel only says that there are some.
	return recvmsg(sock->fd, &message, MSG_PEEK | MSG_DONTWAIT) > 0 && message.msg_flags & MSG_CTRUNC;
}

[[noreturn]] void close_after_parent(int fd, int parent)
{
	const int first = std::min(fd, parent), last = std::max(fd, parent);
	if (first > 0)
		close_range(0, static_cast<unsigned>(first) - 1, 0);
	if (last > first + 1)
		close_range(static_cast<unsigned>(first) + 1, static_cast<unsigned>(last) - 1, 0);
	close_range(static_cast<unsigned>(last) + 1, ~0U, 0);
	char end;
	while (read(parent, &end, 1) < 0 && errno == EINTR)
		;
	_exit(0);
}

bool close_in_child(int fd)
{
	volatile pid_t *const place = std::find(closing_children, std::end(closing_children), 0);
	int ends[2];
	if (place == std::end(closing_children) || pipe(ends) < 0)
		return false;
	const pid_t child = fork();
	if (child == 0) {
		close(ends[1]);
		close_after_parent(fd, ends[0]);
	}
	if (child > 0) {
		*place = child;
		close(fd);
	}
	close(ends[0]);
	close(ends[1]); // the child's turn
	return child > 0;
}

} // namespace

void stream_refuse_descriptors(int listening_fd)
{
	const int none = 0;
	if (setsockopt(listening_fd, SOL_SOCKET, PASS_RIGHTS, &none, sizeof(none)) < 0)
		kernel_refuses_descriptors = false;
}

bool stream_read_record(vek_socket *sock, void *record, std::size_t size)
{
	sock->activity = fairness_stamp();
	if (!kernel_refuses_descriptors && !fairness_is_privileged(sock) && carries_descriptors(sock, size)) {
		stream_shut_down(sock, "passed descriptors");
		return false;
	}
	return recv(sock->fd, record, size, MSG_DONTWAIT) == static_cast<ssize_t>(size);
}

bool stream_peek_record(const vek_socket *sock, void *record, std::size_t size)
{
	return recv(sock->fd, record, size, MSG_PEEK | MSG_DONTWAIT) == static_cast<ssize_t>(size);
}

std::uint32_t stream_ask_unread(vek_socket *sock)
{
	int unread = 0;
	if (ioctl(sock->fd, SIOCOUTQ, &unread) == 0)
		sock->unread = static_cast<std::uint32_t>(unread);
	return sock->unread;
}

bool stream_has_room(vek_socket *sock, std::size_t size)
{
	learn_room(sock);
	const std::uint64_t taken = taken_by(size);
	return sock->unread + taken <= sock->room || stream_ask_unread(sock) + taken <= sock->room;
}

bool stream_is_writable(vek_socket *sock)
{
	learn_room(sock);
	return stream_ask_unread(sock) <= sock->room / 4;
}

bool stream_is_read(vek_socket *sock)
{
	learn_room(sock);
	return stream_ask_unread(sock) <= usual_room / 4;
}

void stream_set_depth(vek_socket *sock, bool deep)
{
	learn_room(sock);
	const int size = deep ? DEEP_BUFFER : static_cast<int>(usual_room / 2); // the kernel doubles it
	if (setsockopt(sock->fd, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof(size)) < 0)
		setsockopt(sock->fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
	sock->room = ask_room(sock->fd);
	if (deep)
		gives_deep_buffers = sock->room >= 2 * DEEP_BUFFER;
}

bool stream_gives_deep_buffers() { return gives_deep_buffers; }

ssize_t vek_write_client(vek_socket *sock, std::span<iovec> parts)
{
	last_resort resort(sock);
	ssize_t total = 0;
	while (!parts.empty()) {
		ssize_t sent = -1;
		errno = EPIPE;
		if (!sock->shut_down)
			sent = send_parts(sock->fd, parts);
		if (sent < 0) {
			const int reason = errno;
			if (reason == EINTR || make_room(sock, reason, resort))
				continue;
			stream_shut_down(sock, reason == EAGAIN || reason == ENOBUFS
						   ? "did not read what it asked for"
						   : "is gone");
			errno = reason;
			return -1;
		}
		total += sent;
		sock->unread += taken_by(static_cast<std::size_t>(sent));
		parts = without_first(parts, static_cast<std::size_t>(sent));
	}
	const std::uint32_t half = sock->room / 2;
	if (sock->deep && sock->subscriptions > 0 && sock->unread > half)
		fairness_note_behind(sock, stream_ask_unread(sock) > half);
	return total;
}

ssize_t vek_send_response(int result, int fd)
{
	const vek_response response{result};
	return send(fd, &response, sizeof(response), MSG_DONTWAIT | MSG_NOSIGNAL);
}

void stream_shut_down(vek_socket *sock, const char *why)
{
	if (sock->shut_down)
		return;
	shutdown(sock->fd, SHUT_RDWR);
	sock->shut_down = true;
	if (debug)
		std::fprintf(stderr, "endpoint: shut down %s connection %d of process %d, user %d: %s\n",
			     sock->type == VEK_SOCKTYPE_NOTIFY ? "notify" : "request", sock->fd,
			     static_cast<int>(sock->pid), static_cast<int>(sock->uid), why);
}

void stream_close(int fd, bool trusted)
{
	int unread = 0;
	if (!kernel_refuses_descriptors && !trusted) {
		shutdown(fd, SHUT_RDWR);
		if (ioctl(fd, FIONREAD, &unread) < 0)
			unread = 0;
	}
	if (unread == 0)
		close(fd);
	else if (!close_in_child(fd))
		leftovers[count_leftovers++] = fd; // each descriptor is there once, so there is a place
}

void stream_close_leftovers()
{
	while (count_leftovers > 0 && close_in_child(leftovers[count_leftovers - 1]))
		count_leftovers--;
}

void stream_child_ended(pid_t pid)
{
	for (volatile pid_t &child : closing_children)
		if (child == pid)
			child = 0;
}
