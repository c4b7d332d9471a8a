// vek_client.cpp: the client's side of the daemon's two sockets, for programs in C and in C++. The protocol
// is written here once; vekctl, the demo and the tests use it. An answer is read whole before the caller sees
// any of it, so that a slow caller never keeps the daemon waiting. Nothing here needs the C++ library: no
// allocation but malloc, no exceptions.
#include "vek_client.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "text.h"
#include "vek_fields.h"

namespace {

enum class connection : std::uint8_t { notify, request, subscribed, unusable };

constexpr int most_early_copies = 4 * VEK_MAX_USERS; // before a subscription is confirmed

} // namespace

struct vek_client {
	int fd;
	int timeout_ms;
	connection kind;
	bool awaiting;       // the status of what was sent
	std::size_t arrived; // bytes of the record that has begun to arrive
	union {
		struct vek_event copy; // of a subscription
		struct vek_response response;
	};
	struct vek_event *early; // copies that came before the subscription was confirmed, `pending` of them
	int pending;
};

namespace {

int failed(int error)
{
	errno = error;
	return -1;
}

std::int64_t now_ms()
{
	struct timespec now = {};
	clock_gettime(CLOCK_MONOTONIC, &now);
	return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// The end of one call, whatever it does inside.
class deadline {
public:
	explicit deadline(int timeout_ms) : end_(timeout_ms < 0 ? -1 : now_ms() + timeout_ms) {}

	// As poll takes it: -1 without a limit, 0 when it has passed.
	int remaining() const
	{
		if (end_ < 0)
			return -1;
		const std::int64_t left = end_ - now_ms();
		return left <= 0 ? 0 : left > INT_MAX ? INT_MAX : static_cast<int>(left);
	}

	// As SO_SNDTIMEO takes it, where 0 would be no limit.
	struct timeval remaining_time() const
	{
		const int left = remaining();
		return left < 0 ? timeval{} : timeval{left / 1000, left == 0 ? 1 : left % 1000 * 1000};
	}

	// Waits for `events` on the descriptor. 0 or -1 with errno.
	int wait(int fd, short events) const
	{
		for (;;) {
			const int left = remaining();
			if (left == 0)
				return failed(ETIMEDOUT);
			struct pollfd ready = {fd, events, 0};
			const int found = poll(&ready, 1, left);
			if (found > 0)
				return 0;
			if (found < 0 && errno != EINTR)
				return -1;
		}
	}

private:
	std::int64_t end_;
};

// A record goes out in one write, as the daemon takes it in one read.
int send_record(int fd, const void *record, std::size_t size, const deadline &end)
{
	for (;;) {
		const ssize_t sent = send(fd, record, size, MSG_NOSIGNAL | MSG_DONTWAIT);
		if (sent == static_cast<ssize_t>(size))
			return 0;
		if (sent >= 0)
			return failed(EIO);
		if (errno == EPIPE)
			return failed(ECONNRESET);
		if (errno == EAGAIN ? end.wait(fd, POLLOUT) < 0 : errno != EINTR)
			return -1;
	}
}

// Reads until `size` bytes are there, `have` of which are already.
int receive(int fd, void *into, std::size_t size, std::size_t &have, const deadline &end)
{
	while (have < size) {
		const ssize_t got = recv(fd, static_cast<char *>(into) + have, size - have, MSG_DONTWAIT);
		if (got > 0)
			have += static_cast<std::size_t>(got);
		else if (got == 0)
			return failed(ECONNRESET);
		else if (errno == EAGAIN ? end.wait(fd, POLLIN) < 0 : errno != EINTR)
			return -1;
	}
	return 0;
}

int receive(int fd, void *into, std::size_t size, const deadline &end)
{
	std::size_t have = 0;
	return receive(fd, into, size, have, end);
}

// While the daemon's queue of connections is full, the kernel lets those in who wait in connect, one after
// the other. Whoever tried again now and then would find the place taken each time.
bool joined(int fd, const char *path, const deadline &end)
{
	struct sockaddr_un address = {};
	address.sun_family = AF_UNIX;
	std::strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
	for (;;) {
		const struct timeval limit = end.remaining_time();
		if (setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) < 0)
			return false;
		if (connect(fd, reinterpret_cast<const struct sockaddr *>(&address), sizeof(address)) == 0)
			return fcntl(fd, F_SETFL, O_NONBLOCK) == 0;
		if (errno == EAGAIN)
			errno = ETIMEDOUT;
		if (errno != EINTR)
			return false;
	}
}

int connect_to(const char *path, const deadline &end)
{
	const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	if (fd < 0 || joined(fd, path, end))
		return fd;
	const int error = errno;
	close(fd);
	return failed(error);
}

struct vek_client *open_at(const char *path, connection kind, int timeout_ms)
{
	const int fd = connect_to(path, deadline(timeout_ms));
	if (fd < 0)
		return nullptr;
	auto *client = static_cast<struct vek_client *>(std::calloc(1, sizeof(struct vek_client)));
	if (client == nullptr) {
		close(fd);
		errno = ENOMEM;
		return nullptr;
	}
	client->fd = fd;
	client->timeout_ms = timeout_ms;
	client->kind = kind;
	return client;
}

bool is(const struct vek_client *client, connection kind)
{
	if (client != nullptr && client->kind == kind)
		return true;
	errno = client != nullptr && client->kind == connection::unusable ? ENOTCONN : EINVAL;
	return false;
}

// What remains of a failed exchange may still arrive and would pass for the next answer.
int give_up(struct vek_client *client)
{
	client->kind = connection::unusable;
	return -1;
}

int give_up(struct vek_client *client, int error)
{
	errno = error;
	return give_up(client);
}

// Sends a request and reads its answer's header. The header's count, at most `most`, or -1.
int ask(struct vek_client *client, const struct vek_request &request, int most, const deadline &end)
{
	if (!is(client, connection::request))
		return -1;
	struct vek_event header;
	if (send_record(client->fd, &request, sizeof(request), end) < 0 ||
	    receive(client->fd, &header, sizeof(header), end) < 0)
		return give_up(client);
	if (header.event != VEK_EVENT_QUERY_RESULT || header.count < 0 || header.count > most)
		return give_up(client, EPROTO);
	return header.count;
}

int query(struct vek_client *client, const struct vek_request &request, vek_client_session_fn *each,
	  void *arg)
{
	const deadline end(client != nullptr ? client->timeout_ms : 0);
	const int count =
	    ask(client, request, request.method == VEK_QUERY_FROM_FIRST ? 1 : VEK_MAX_USERS, end);
	if (count <= 0)
		return count;
	const std::size_t size = static_cast<std::size_t>(count) * sizeof(struct user_info);
	auto *sessions = static_cast<struct user_info *>(std::malloc(size));
	if (sessions == nullptr)
		return give_up(client, ENOMEM);
	if (receive(client->fd, sessions, size, end) < 0) {
		const int error = errno;
		std::free(sessions);
		return give_up(client, error);
	}
	bool wanted = each != nullptr;
	for (int i = 0; wanted && i < count; i++) {
		cut_text<user_info_fields>(&sessions[i]);
		wanted = each(&sessions[i], arg) == 0;
	}
	std::free(sessions);
	return count;
}

struct vek_request asking(enum vek_method method)
{
	struct vek_request request = {};
	request.method = method;
	return request;
}

struct vek_request asking(enum vek_method method, std::uint32_t ip)
{
	struct vek_request request = asking(method);
	request.u.ip = ip;
	return request;
}

struct vek_request asking(enum vek_method method, const struct in6_addr &ip6)
{
	struct vek_request request = asking(method);
	request.u.ip6 = ip6;
	request.req_flags = VEK_HANDLE_FLAG_IPV6_ADDR;
	return request;
}

struct vek_request asking_name(const char *username)
{
	struct vek_request request = asking(VEK_QUERY_NAME);
	copy_text(request.u.username, username);
	return request;
}

// Sessions copied out of an answer, as many as there is room for.
struct storage {
	struct user_info *sessions;
	int room;
	int stored;
};

int store(const struct user_info *session, void *arg)
{
	auto *into = static_cast<struct storage *>(arg);
	if (into->stored >= into->room)
		return 1;
	into->sessions[into->stored++] = *session;
	return 0;
}

int fetch(struct vek_client *client, const struct vek_request &request, struct user_info *sessions, int room)
{
	struct storage into = {sessions, sessions != nullptr ? room : 0, 0};
	return query(client, request, store, &into);
}

// Reports the logouts of one service's sessions as an answer is walked.
struct ending {
	struct vek_client *notify;
	const char *service;
	const deadline &end;
	int ended;
	int error;
};

int end_session(const struct user_info *session, void *arg)
{
	auto *ending = static_cast<struct ending *>(arg);
	if (std::strcmp(session->service, ending->service) != 0)
		return 0;
	struct vek_event logout = {};
	logout.event = VEK_EVENT_USER_LOGOUT;
	copy_text(logout.service, session->service);
	copy_text(logout.username, session->username);
	copy_text(logout.real_username, session->username);
	copy_text(logout.unique, session->unique);
	logout.ip = session->ip;
	logout.ip6 = session->ip6;
	// As IPv6 "no address" is a key too; without it and without a name, a unique key that holds a MAC
	// address would mean a station.
	if (!IN6_IS_ADDR_UNSPECIFIED(&session->ip6) || (session->ip == 0 && *session->username == '\0'))
		logout.event_flag = VEK_EVENT_FLAG_USED_IPV6_ADDR;
	vek_client_set_timeout(ending->notify, ending->end.remaining());
	// Nobody matched: the logout of one alike, or the user, was faster. It is ended all the same.
	if (vek_client_report(ending->notify, &logout) < 0) {
		ending->error = errno;
		return 1;
	}
	ending->ended++;
	return 0;
}

// The status of what was sent. What has arrived of it when the time is up stays for the next call.
int take_status(struct vek_client *client, const deadline &end)
{
	if (!is(client, connection::notify))
		return -1;
	if (receive(client->fd, &client->response, sizeof(client->response), client->arrived, end) < 0)
		return errno == ETIMEDOUT ? -1 : give_up(client);
	client->awaiting = false;
	client->arrived = 0;
	const int code = client->response.code;
	return code == VEK_RESPONSE_SUCCESS || code == VEK_RESPONSE_FAIL ? code : give_up(client, EPROTO);
}

bool keep_early(struct vek_client *client, const struct vek_event &record)
{
	const std::size_t size = (static_cast<std::size_t>(client->pending) + 1) * sizeof(record);
	auto *grown = static_cast<struct vek_event *>(std::realloc(client->early, size));
	if (grown == nullptr)
		return false;
	client->early = grown;
	client->early[client->pending++] = record;
	return true;
}

} // namespace

struct vek_client *vek_client_open_notify(int timeout_ms)
{
	return open_at(VEK_ADDRESS_NOTIFY, connection::notify, timeout_ms);
}

struct vek_client *vek_client_open_request(int timeout_ms)
{
	return open_at(VEK_ADDRESS_REQUEST, connection::request, timeout_ms);
}

void vek_client_close(struct vek_client *client)
{
	if (client == nullptr)
		return;
	close(client->fd);
	std::free(client->early);
	std::free(client);
}

int vek_client_fd(const struct vek_client *client) { return client->fd; }

void vek_client_set_timeout(struct vek_client *client, int timeout_ms) { client->timeout_ms = timeout_ms; }

int vek_client_send(struct vek_client *client, const struct vek_event *event)
{
	if (!is(client, connection::notify))
		return -1;
	if (client->awaiting)
		return failed(EBUSY);
	if (event == nullptr || !vek_event_is_reported(event->event))
		return failed(EINVAL);
	struct vek_event record = *event;
	cut_text<vek_event_fields>(&record);
	// There is room for it: the daemon has read what was sent before, or there would be no status of it.
	if (send_record(client->fd, &record, sizeof(record), deadline(0)) < 0)
		return give_up(client);
	client->awaiting = true;
	return 0;
}

int vek_client_answer(struct vek_client *client)
{
	if (is(client, connection::notify) && !client->awaiting)
		return failed(EINVAL);
	const int status = take_status(client, deadline(0));
	return status < 0 && errno == ETIMEDOUT ? failed(EAGAIN) : status;
}

int vek_client_report_raw(struct vek_client *client, const struct vek_event *event)
{
	const deadline end(client != nullptr ? client->timeout_ms : 0);
	if (vek_client_send(client, event) < 0)
		return -1;
	const int status = take_status(client, end);
	return status < 0 ? give_up(client) : status;
}

int vek_client_report(struct vek_client *client, const struct vek_event *event)
{
	if (!is(client, connection::notify))
		return -1;
	const bool is_login = event != nullptr && (event->event == VEK_EVENT_USER_LOGIN ||
						   event->event == VEK_EVENT_USER_SOCIAL_LOGIN_STAGE1);
	return is_login && *event->real_username == '\0' ? failed(EINVAL)
							 : vek_client_report_raw(client, event);
}

int vek_client_query_name(struct vek_client *client, const char *username, vek_client_session_fn *each,
			  void *arg)
{
	return query(client, asking_name(username), each, arg);
}

int vek_client_query_ip(struct vek_client *client, uint32_t ip, vek_client_session_fn *each, void *arg)
{
	return query(client, asking(VEK_QUERY_FROM, ip), each, arg);
}

int vek_client_query_ip6(struct vek_client *client, const struct in6_addr *ip6, vek_client_session_fn *each,
			 void *arg)
{
	return query(client, asking(VEK_QUERY_FROM, *ip6), each, arg);
}

int vek_client_query_ip_first(struct vek_client *client, uint32_t ip, vek_client_session_fn *each, void *arg)
{
	return query(client, asking(VEK_QUERY_FROM_FIRST, ip), each, arg);
}

int vek_client_query_ip6_first(struct vek_client *client, const struct in6_addr *ip6,
			       vek_client_session_fn *each, void *arg)
{
	return query(client, asking(VEK_QUERY_FROM_FIRST, *ip6), each, arg);
}

int vek_client_query_all(struct vek_client *client, vek_client_session_fn *each, void *arg)
{
	return query(client, asking(VEK_QUERY_ALL), each, arg);
}

int vek_client_fetch_all(struct vek_client *client, struct user_info *sessions, int room)
{
	return fetch(client, asking(VEK_QUERY_ALL), sessions, room);
}

int vek_client_fetch_name(struct vek_client *client, const char *username, struct user_info *sessions,
			  int room)
{
	return fetch(client, asking_name(username), sessions, room);
}

int vek_client_count(struct vek_client *client)
{
	const deadline end(client != nullptr ? client->timeout_ms : 0);
	const int count = ask(client, asking(VEK_QUERY_TOTAL_USER_NUM), INT_MAX, end);
	if (count < 0)
		return -1;
	std::int32_t again = -1;
	if (receive(client->fd, &again, sizeof(again), end) < 0)
		return give_up(client);
	return again == count ? count : give_up(client, EPROTO);
}

int vek_client_subscribe(struct vek_client *client)
{
	if (!is(client, connection::request))
		return -1;
	const deadline end(client->timeout_ms);
	const struct vek_request listen = asking(VEK_LISTEN), count = asking(VEK_QUERY_TOTAL_USER_NUM);
	if (send_record(client->fd, &listen, sizeof(listen), end) < 0 ||
	    send_record(client->fd, &count, sizeof(count), end) < 0)
		return give_up(client);
	// A subscription is not answered; the question behind it is, and then it holds. Copies may be faster.
	for (;;) {
		struct vek_event record;
		if (receive(client->fd, &record, sizeof(record), end) < 0)
			return give_up(client);
		if (record.event == VEK_EVENT_QUERY_RESULT)
			break;
		if (client->pending == most_early_copies)
			return give_up(client, EPROTO);
		if (!keep_early(client, record))
			return give_up(client, ENOMEM);
	}
	std::int32_t number;
	if (receive(client->fd, &number, sizeof(number), end) < 0)
		return give_up(client);
	client->kind = connection::subscribed;
	return 0;
}

int vek_client_pending(const struct vek_client *client) { return client->pending; }

int vek_client_next(struct vek_client *client, struct vek_event *event)
{
	if (!is(client, connection::subscribed))
		return -1;
	if (client->pending > 0) {
		*event = client->early[0];
		client->pending--;
		std::memmove(client->early, client->early + 1,
			     static_cast<std::size_t>(client->pending) * sizeof(*event));
	} else {
		// A copy that had begun to arrive when the time was up goes on where it stopped.
		if (receive(client->fd, &client->copy, sizeof(client->copy), client->arrived,
			    deadline(client->timeout_ms)) < 0)
			return errno == ETIMEDOUT ? -1 : give_up(client);
		client->arrived = 0;
		*event = client->copy;
	}
	cut_text<vek_event_fields>(event);
	if (event->event <= 0 || event->event >= VEK_EVENT_LIMIT)
		return give_up(client, EPROTO);
	return 1;
}

int vek_client_end_service(const char *service, int timeout_ms)
{
	if (service == nullptr || *service == '\0')
		return failed(EINVAL);
	char name[VEK_SERVICE_LEN];
	copy_text(name, service);
	const deadline end(timeout_ms);
	struct vek_client *request = vek_client_open_request(timeout_ms);
	if (request == nullptr)
		return -1;
	struct vek_client *notify = vek_client_open_notify(end.remaining());
	int ended = -1;
	int error = errno;
	if (notify != nullptr) {
		struct ending ending = {notify, name, end, 0, 0};
		vek_client_set_timeout(request, end.remaining());
		if (vek_client_query_all(request, end_session, &ending) < 0)
			error = errno;
		else if (ending.error != 0)
			error = ending.error;
		else
			ended = ending.ended;
		vek_client_close(notify);
	}
	vek_client_close(request);
	if (ended < 0)
		errno = error;
	return ended;
}
