// core.cpp: see core.h.
#include "core.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "init.h"
#include "listener.h"
#include "misc.h"
#include "text.h"
#include "vek_fields.h"

std::vector<vek_event> announced;
std::int64_t clock_ms;

namespace {

constexpr int LAST = 100; // a priority behind all others

int record(vek_event *event, vek_socket *)
{
	announced.push_back(*event);
	return VEK_CONTINUE_DISPATCH;
}

[[noreturn]] void give_up(const std::string &why)
{
	std::fprintf(stderr, "%s\n", why.c_str());
	std::abort();
}

} // namespace

core::core()
{
	fake = fake_platform{};
	seconds_since_boot = 1000;
	debug = 0;
	is_cloud = 0;
	vek_init_event();
	vek_init_sock_event();
	if (userdb_init() < 0 || listener_init() < 0 || responder_init() < 0 || logger_init() < 0)
		give_up("a module did not start");
	rb_root = create_rbtree();
	dispatch(VEK_EVENT_USER_SOCIAL_LOGIN_STAGE2); // the logger's own flag is the standalone device's now
	fake.logs.clear();
	for (int number : {1, 3, 4, 5, 6, 7, 8, 15, 16})
		vek_register_event(number, LAST, record);
	announced.clear();
}

core::~core()
{
	if (std::string error = check_invariants(); !error.empty())
		give_up("at the end of the test: " + error);
	end_all();
	userdb_unuse_list.clear();
	vek_free(rb_root);
	rb_root = nullptr;
	for (avl_table **tree : {&avl_username_tree, &avl_ip_tree, &avl_ip6_tree})
		avl_destroy(std::exchange(*tree, nullptr), nullptr);
	while (vek_listener *listener = vek_listener_list.front())
		listener_forget(listener->sock);
	vek_fini_event();
	userdb_exit();
	shmdt(uconf);
}

void end_all()
{
	while (user_list *session = userdb_use_list.front())
		userdb_end_session(session);
	while (vek_deferred_logout *parked = vek_deferred_logout_list.front())
		vek_free_deferred_logout(parked);
}

vek_event make_event(int number, const keys &keys)
{
	vek_event event;
	std::memset(&event, 0, sizeof(event));
	event.event = number;
	copy_text(event.service, keys.service);
	copy_text(event.username, keys.user);
	copy_text(event.real_username, keys.user);
	copy_text(event.unique, keys.unique);
	event.ip = keys.ip;
	event.type = USER_TYPE;
	return event;
}

int dispatch(vek_event event, vek_socket *sock)
{
	vek_begin_pass();
	return vek_dispatch_event(&event, sock);
}

int dispatch(int number, const keys &keys, vek_socket *sock)
{
	return dispatch(make_event(number, keys), sock);
}

void set_ip6(vek_event &event, const char *address)
{
	event.ip6 = ip6(address);
	event.event_flag |= VEK_EVENT_FLAG_USED_IPV6_ADDR;
}

std::uint32_t ip4(const char *address) { return inet_addr(address); }

in6_addr ip6(const char *address)
{
	in6_addr result{};
	if (inet_pton(AF_INET6, address, &result) != 1)
		give_up(std::string("not an IPv6 address: ") + address);
	return result;
}

static auto &clients = *new std::vector<client *>; // outlives static ones

client::client(std::uint8_t type)
{
	int ends[2];
	if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) < 0)
		give_up("socketpair");
	fd_ = ends[1];
	auto *sock = static_cast<vek_socket *>(vek_malloc(sizeof(vek_socket)));
	sock->type = type;
	sock->fd = ends[0];
	sock->pid = fd_; // as good as any, and says whose it is
	sock->uid = 1;
	vek_sock_event_add_fd(sock->fd, FD_READ, sock);
	vek_socket_list.push_back(sock);
	clients.push_back(this);
}

client::~client()
{
	shutdown(fd_, SHUT_RDWR);
	serve();
	if (sock() != nullptr)
		give_up("a connection outlives its client");
	close(fd_);
	std::erase(clients, this);
}

vek_socket *client::sock() const
{
	for (vek_socket *sock : vek_socket_list)
		if (sock->pid == fd_)
			return sock;
	return nullptr;
}

void client::say(const void *data, std::size_t size)
{
	send(fd_, data, size, MSG_NOSIGNAL);
	serve();
}

void client::serve()
{
	while (sock() != nullptr) {
		while (receive())
			;
		vek_begin_pass();
		vek_sock_event_limit_wait(0);
		vek_sock_event_loop(&vek_skevent);
		if (vek_sock_event_was_idle())
			return;
	}
}

bool client::receive()
{
	static char piece[1 << 20];
	const ssize_t got = reads ? recv(fd_, piece, sizeof(piece), 0) : 0;
	got_.append(piece, static_cast<std::size_t>(std::max<ssize_t>(0, got)));
	return got > 0;
}

std::string client::take()
{
	while (receive())
		;
	return std::exchange(got_, {});
}

// The daemon waits for a client to read: it is the clients' turn, for which no time passes, however busy the
// machine is. For one that does not read, all of it passes at once.
extern "C" int __wrap_clock_gettime(clockid_t, timespec *now)
{
	*now = timespec_of(clock_ms);
	return 0;
}
extern "C" int __real_poll(pollfd *fds, nfds_t count, int limit);
extern "C" int __wrap_poll(pollfd *fds, nfds_t count, int limit)
{
	if (limit > 0 && std::ranges::any_of(clients, &client::receive))
		return 1;
	const int ready = __real_poll(fds, count, 0);
	if (ready == 0)
		clock_ms += limit;
	return ready;
}

vek_event plain(const vek_event &event)
{
	vek_event result;
	std::memset(&result, 0, sizeof(result));
	for (const vek_field &field : vek_event_fields) {
		const char *from = reinterpret_cast<const char *>(&event) + field.offset;
		std::memcpy(reinterpret_cast<char *>(&result) + field.offset, from,
			    field.kind == field_kind::text ? strnlen(from, field.size) : field.size);
	}
	return result;
}
