// harness.cpp: see harness.h.
#include "harness.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "init.h"
#include "misc.h"
#include "sock_event.h"

std::uint8_t input::byte()
{
	if (rest.empty()) {
		past++;
		return 0;
	}
	const std::uint8_t first = rest[0];
	rest = rest.subspan(1);
	return first;
}

bytes input::take(std::size_t size)
{
	past += size - std::min(size, rest.size());
	const bytes taken = rest.first(std::min(size, rest.size()));
	rest = rest.subspan(taken.size());
	return taken;
}

// ---- clients ----

struct clients {
	static inline client *all[8];

	// A wait for a client that does not read would end in vain; for the others it is their turn.
	static bool make_room(int fd)
	{
		for (client *peer : all)
			if (const vek_socket *sock = peer ? peer->daemon_side() : nullptr; sock && sock->fd == fd) {
				peer->drain();
				return peer->reads;
			}
		return false;
	}
};

extern "C" int __wrap_poll(pollfd *fds, nfds_t, int)
{
	if (clients::make_room(fds->fd))
		return fds->revents = POLLOUT, 1;
	errno = EBADF; // the wait is over, without its time having to pass
	return -1;
}

client::client(std::uint8_t type)
{
	static int number;
	number_ = ++number;
	int ends[2];
	auto *sock = static_cast<vek_socket *>(vek_malloc(sizeof(vek_socket)));
	if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) < 0)
		broken("no more sockets");
	fd_ = ends[1];
	sock->type = type;
	sock->fd = ends[0];
	sock->pid = number_; // tells apart who gets the memory of a closed one
	sock->uid = 1;
	if (vek_sock_event_add_fd(sock->fd, FD_READ, sock) < 0)
		broken("a descriptor is left over in the socket loop");
	vek_socket_list.push_back(sock);
	*std::find(clients::all, std::end(clients::all), nullptr) = this;
}

client::~client()
{
	shutdown(fd_, SHUT_RDWR);
	serve();
	if (alive())
		broken("a connection outlives its client");
	*std::find(clients::all, std::end(clients::all), this) = nullptr;
	close(fd_);
}

vek_socket *client::daemon_side() const
{
	for (vek_socket *sock : vek_socket_list)
		if (sock->pid == number_)
			return sock;
	return nullptr;
}

void client::send(bytes data)
{
	while (!data.empty() && alive()) {
		const ssize_t sent = ::send(fd_, data.data(), data.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
		if (sent < 0)
			break;
		data = data.subspan(static_cast<std::size_t>(sent));
		serve();
	}
}

void client::serve()
{
	while (vek_socket *sock = daemon_side()) {
		char next;
		if (recv(sock->fd, &next, 1, MSG_PEEK | MSG_DONTWAIT) < 0 && errno == EAGAIN)
			return;
		vek_begin_pass();
		vek_sock_event_read(sock->fd, sock);
		if (reads)
			drain();
	}
}

void client::drain() const
{
	char piece[65536];
	while (reads && recv(fd_, piece, sizeof(piece), MSG_DONTWAIT) > 0)
		;
}

// ---- the core ----

namespace {

struct shared {
	char *start;
	std::size_t size;
} blocks[BLOCKS];

shared attach(key_t key, std::size_t size)
{
	void *start = shmat(shmget(key, size, IPC_CREAT | 0666), nullptr, 0);
	if (reinterpret_cast<std::intptr_t>(start) == -1)
		broken("no shared block");
	return {static_cast<char *>(start), size};
}

void start()
{
	[[maybe_unused]] static const core *const daemon = new core; // to outlive every client
	if (terminator_init() < 0 || lockout_init() < 0)
		broken("a module did not start");
	blocks[BLOCK_CONFIG] = {reinterpret_cast<char *>(uconf), sizeof(user_config)};
	blocks[BLOCK_LOCKOUT] = attach(USER_LOCK_IPC_KEY, sizeof(user_lock));
	blocks[BLOCK_FTP] = attach(PUREFTP_IPC_SHM_KEY, sizeof(ClientTerminateList));
	semctl(semget(PUREFTP_IPC_KEY, 1, IPC_CREAT | 0666), 0, SETVAL, 1);
}

} // namespace

void fresh_core()
{
	if (blocks[0].start == nullptr)
		start();
	while (user_list *session = userdb_use_list.front())
		userdb_end_session(session);
	while (vek_deferred_logout *parked = vek_deferred_logout_list.front())
		vek_free_deferred_logout(parked);
	for (const shared &block : blocks)
		std::memset(block.start, 0, block.size);
	seconds_since_boot = 1000;
	fake = fake_platform{};
	check_core();
}

void check_core()
{
	if (const std::string error = check_invariants(); !error.empty())
		broken(error.c_str());
	fake.logs.clear();
	fake.commands.clear();
	announced.clear();
}

void write_block(int block, std::size_t offset, bytes data)
{
	const shared &to = blocks[block];
	offset %= to.size;
	std::copy_n(data.begin(), std::min(data.size(), to.size - offset), to.start + offset);
}
