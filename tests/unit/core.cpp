// core.cpp: see core.h.
#include "core.h"

#include <arpa/inet.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include "init.h"
#include "listener.h"
#include "misc.h"
#include "text.h"
#include "vek_fields.h"

std::vector<vek_event> announced;

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
	while (user_list *session = userdb_use_list.front())
		userdb_end_session(session);
	userdb_unuse_list.clear();
	vek_free(rb_root);
	rb_root = nullptr;
	for (avl_table **tree : {&avl_username_tree, &avl_ip_tree, &avl_ip6_tree})
		avl_destroy(std::exchange(*tree, nullptr), nullptr);
	while (vek_listener *listener = vek_listener_list.front())
		listener_forget(listener->fd);
	vek_fini_event();
	userdb_exit();
	shmdt(uconf);
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

std::string sessions()
{
	std::string all;
	for (const user_list *session : userdb_use_list) {
		const user_info &info = *session->uinfo;
		all += (all.empty() ? "" : " ") + std::string(info.username) + "@" + info.service + "#" +
		       info.unique;
	}
	return all;
}

user_info *session_of(const char *unique)
{
	for (user_list *session : userdb_use_list)
		if (std::strcmp(session->uinfo->unique, unique) == 0)
			return session->uinfo;
	return nullptr;
}

connection::connection()
{
	int ends[2];
	if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) < 0)
		give_up("socketpair");
	const timeval limit{5, 0};
	setsockopt(ends[1], SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
	sock_.type = VEK_SOCKTYPE_REQUEST;
	sock_.fd = ends[0];
	sock_.uid = 1;
	peer_ = ends[1];
	vek_socket_list.push_back(&sock_);
}

connection::~connection()
{
	list_del(&sock_.list);
	close(sock_.fd);
	close(peer_);
}

void connection::expect(std::size_t size)
{
	constexpr std::size_t KERNEL_HOLDS = 32 * 1024;
	if (size <= KERNEL_HOLDS)
		return;
	got_.resize(size);
	reader_ = std::thread([this] {
		const ssize_t got = recv(peer_, got_.data(), got_.size(), MSG_WAITALL);
		got_.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
	});
}

std::string connection::take()
{
	if (reader_.joinable())
		reader_.join();
	char piece[4096];
	for (ssize_t got; (got = recv(peer_, piece, sizeof(piece), MSG_DONTWAIT)) > 0;)
		got_.append(piece, static_cast<std::size_t>(got));
	return std::exchange(got_, {});
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
