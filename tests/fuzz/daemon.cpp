// daemon.cpp: what reaches the daemon, through the functions that its main loop calls, over the recording
// platform: nothing here starts a process or waits. The targets notify and request are one client's stream of
// records (STREAM is its socket's type) to a fresh core. The target both is everything in any order: records,
// requests, subscribers that read or do not, ticks, parked logouts, changes of the mode and of the shared
// blocks, a full pool. Its core lives on from input to input, and inputs put one behind the other are one
// input: the file that VEK_FUZZ_TRAIL names always holds what led to the present state, to be replayed.
#include <fcntl.h>
#include <sys/sem.h>

#include <algorithm>
#include <fstream>
#include <optional>

#include "core.h"
#include "init.h"
#include "listener.h"
#include "misc.h"
#include "rbtree.h"
#include "target.h"
#include "terminator.h"
#include "vek_fields.h"

namespace {

std::optional<client> clients[5], &service = clients[0];

// On a new connection unless there is one.
void say(std::optional<client> &by, std::uint8_t type, const void *data, std::size_t size)
{
	if (!by || by->sock() == nullptr)
		by.emplace(type);
	by->say(data, size);
	by->take();
}

// What other programs write to: configuration, lockout table, the ftp server's table.
std::span<char> shared_blocks[3];

// A core without sessions, parked logouts and clients; the first call starts it.
void fresh_core()
{
	static const core *daemon;
	if (daemon == nullptr) {
		daemon = new core;
		require(terminator_init() == 0 && lockout_init() == 0, "a module did not start");
		int id;
		shared_blocks[0] = {reinterpret_cast<char *>(uconf), sizeof(user_config)};
		shared_blocks[1] = {static_cast<char *>(get_shm(USER_LOCK_IPC_KEY)), sizeof(user_lock)};
		void *ftp = vek_create_shm(PUREFTP_IPC_SHM_KEY, sizeof(ClientTerminateList), "", "", &id);
		shared_blocks[2] = {static_cast<char *>(ftp), sizeof(ClientTerminateList)};
		semctl(vek_create_sem(PUREFTP_IPC_KEY, "", ""), 0, SETVAL, 1);
	}
	for (std::optional<client> &one : clients)
		one.reset();
	end_all();
	for (const auto block : shared_blocks)
		std::fill(block.begin(), block.end(), 0);
	seconds_since_boot = 1000;
	fake = fake_platform{};
}

// The input, taken off its front; past its end everything is zero.
struct input {
	bytes rest;
	std::size_t past = 0;

	bytes take(std::size_t size) // fewer at the end
	{
		const bytes taken = rest.first(std::min(size, rest.size()));
		past += size - taken.size();
		rest = rest.subspan(taken.size());
		return taken;
	}
	std::uint8_t byte()
	{
		const bytes taken = take(1);
		return taken.empty() ? 0 : taken[0];
	}
	void overwrite(void *to, std::size_t room)
	{
		const bytes value = take(byte() % (room + 1));
		std::copy(value.begin(), value.end(), static_cast<std::uint8_t *>(to));
	}
};

#ifdef STREAM

constexpr std::size_t life = 0; // every input has a core of its own

// The service or program, which may be subscribed, says everything at once.
void step(input &in)
{
	dispatch(VEK_EVENT_USER_LOGIN, {.service = "ssh", .user = "alice", .unique = "1", .ip = 7});
	dispatch(VEK_EVENT_USER_LOGIN, {.service = "http/https", .user = "alice", .unique = "2", .ip = 8});
	vek_event bob = make_event(VEK_EVENT_USER_LOGIN, {.service = "802.1x", .user = "bob", .unique = "3"});
	set_ip6(bob, "2001:db8::20");
	dispatch(bob);
	say(service, STREAM, in.rest.data(), in.rest.size());
	dispatch(VEK_EVENT_USER_LOGIN, {.service = "ftp", .user = "eve", .unique = "4", .ip = 7});
	dispatch(VEK_EVENT_USER_LOGOUT, {.user = "alice"});
	service.reset();
	in.rest = {};
}

#else

constexpr std::size_t life = 1 << 17; // of a core, in bytes of input

// A record that names the n-th session, of some event, with some fields written over.
vek_event take_event(input &in)
{
	vek_event event = make_event(in.byte());
	if (int n = in.byte(); n > 0)
		for (const user_list *session : userdb_use_list)
			if (--n == 0) {
				const user_info &of = *session->uinfo;
				event = make_event(event.event, {of.service, of.username, of.unique, of.ip});
				event.ip6 = of.ip6;
			}
	for (int fields = in.byte() % 8; fields > 0; fields--) {
		const vek_field &field = vek_event_fields[1 + in.byte() % (std::size(vek_event_fields) - 1)];
		in.overwrite(reinterpret_cast<char *>(&event) + field.offset, field.size);
	}
	return event;
}

// One of the things that happen: a byte, and what it needs behind it.
void step(input &in)
{
	const int number = in.byte() % 12;
	if (number <= 2) {
		const vek_event event = take_event(in);
		say(service, VEK_SOCKTYPE_NOTIFY, &event, sizeof(event));
	} else if (number <= 4) {
		std::optional<client> &program = clients[1 + in.byte() % 4];
		vek_request request{};
		request.method = in.byte();
		request.req_flags = in.byte();
		in.overwrite(&request.u, sizeof(request.u));
		say(program, VEK_SOCKTYPE_REQUEST, &request, sizeof(request));
	} else if (number == 5) {
		for (int ticks = in.byte(); ticks >= 0; ticks--)
			vek_tick();
	} else if (number == 6) {
		for (vek_deferred_logout *parked : vek_deferred_logout_list)
			parked->event_time -= std::min<std::uint64_t>(parked->event_time, in.byte());
		vek_run_deferred_logouts();
	} else if (number == 7) {
		const std::span<char> block = shared_blocks[in.byte() % std::size(shared_blocks)];
		std::size_t offset = in.byte();
		offset = ((offset << 8 | in.byte()) << 2) % block.size();
		in.overwrite(&block[offset], block.size() - offset);
		dispatch(VEK_EVENT_CONFIG_CHANGE);
	} else if (number == 8) {
		const unsigned mode = in.byte();
		fake.mode = static_cast<int>(mode % 6);
		fake.tool_ms = mode >= 128 ? 1000 : 0;
		terminator_run_deferred();
	} else if (number == 9) {
		std::optional<client> &program = clients[1 + in.byte() % 4];
		if (program && in.byte() & 1)
			program->reads = !program->reads;
		else
			program.reset();
	} else if (number == 10) {
		for (int i = 0; vek_users < VEK_MAX_USERS; i++) {
			const std::string name = std::to_string(i);
			vek_event login =
			    make_event(VEK_EVENT_USER_LOGIN, {SERVICE_NAME_CAPTIVE_PORTAL, name.c_str()});
			copy_text(login.sta_mac, name.c_str());
			dispatch(login);
		}
		fake.failing_pipe = in.byte() % 4 - 1;
		for (auto *lines : {&fake.station_macs, &fake.station_times}) {
			const bytes line = in.take(in.byte() % 32);
			lines->assign(in.byte(), std::string(line.begin(), line.end()));
		}
	} else if (vek_users < 16) {
		print_rb_tree(0);
		if (rb_tree_dump_asked())
			DEBUG_print_tree(rb_root);
	}
}

#endif

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	static std::size_t lived = life;
	static std::ofstream trail;
	if (lived + size >= life) {
		fresh_core();
		lived = 0;
		if (const char *path = std::getenv("VEK_FUZZ_TRAIL"))
			trail = std::ofstream(path, std::ios::binary);
	}
	trail.write(reinterpret_cast<const char *>(data), static_cast<std::streamsize>(size)).flush();
	input in{{data, size}};
	while (!in.rest.empty())
		step(in);
	trail << std::string(in.past, '\0'); // as they were read
	lived += size + in.past;
	const std::string error = check_invariants();
	require(error.empty(), error.c_str());
	for (const vek_listener *listener : vek_listener_list)
		require(fcntl(listener->fd, F_GETFD) >= 0, "a subscription outlives its client");
	fake.logs.clear();
	fake.commands.clear();
	announced.clear();
	return 0;
}
