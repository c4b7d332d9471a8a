// both.cpp: everything that reaches the daemon, in any order: records, requests, subscribers that read or do not,
// ticks, parked logouts, changes of the mode and of the shared blocks, a full pool. The core lives on from input to
// input. A run is a list of steps, a byte each with what it needs behind it, so that inputs put one behind the
// other are one input: with VEK_FUZZ_TRAIL a file always holds what led to the present state, to be replayed.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "harness.h"
#include "rbtree.h"
#include "vek_fields.h"

namespace {

std::unique_ptr<client> service, programs[4];

// A record that names the n-th session, of some event, with some fields written over.
vek_event take_event(input &in)
{
	vek_event event = make_event(in.byte());
	if (int n = in.byte(); n > 0)
		for (const user_list *session : userdb_use_list)
			if (--n == 0) {
				const user_info &info = *session->uinfo;
				event = make_event(event.event, {info.service, info.username, info.unique, info.ip});
				event.ip6 = info.ip6;
			}
	for (int fields = in.byte() % 8; fields > 0; fields--) {
		const vek_field &field = vek_event_fields[1 + in.byte() % (std::size(vek_event_fields) - 1)];
		const bytes value = in.take(in.byte() % (field.size + 1U));
		std::copy(value.begin(), value.end(), reinterpret_cast<std::uint8_t *>(&event) + field.offset);
	}
	return event;
}

vek_request take_request(input &in)
{
	vek_request request{};
	request.method = in.byte();
	request.req_flags = in.byte();
	const bytes value = in.take(in.byte() % (sizeof(request.u) + 1));
	std::copy(value.begin(), value.end(), reinterpret_cast<std::uint8_t *>(&request.u));
	return request;
}

client &client_of(std::unique_ptr<client> &place, std::uint8_t type)
{
	if (!place || !place->alive())
		place.reset(); // first, so that the two never have the same descriptor
	if (!place)
		place = std::make_unique<client>(type);
	return *place;
}

void fill_pool()
{
	for (int i = 0; vek_users < VEK_MAX_USERS; i++) {
		vek_event login = make_event(VEK_EVENT_USER_LOGIN, {.service = SERVICE_NAME_CAPTIVE_PORTAL});
		std::snprintf(login.real_username, sizeof(login.real_username), "u%d", i);
		std::snprintf(login.sta_mac, sizeof(login.sta_mac), "02:00:00:00:%02x:%02x", i >> 8 & 255, i & 255);
		login.ip = static_cast<std::uint32_t>(i);
		dispatch(login);
	}
}

void step(input &in)
{
	switch (in.byte() % 12) {
	case 0:
	case 1:
	case 2: {
		const vek_event event = take_event(in);
		client_of(service, VEK_SOCKTYPE_NOTIFY).send(&event, sizeof(event));
		break;
	}
	case 3:
	case 4: {
		std::unique_ptr<client> &program = programs[in.byte() % std::size(programs)];
		const vek_request request = take_request(in);
		client_of(program, VEK_SOCKTYPE_REQUEST).send(&request, sizeof(request));
		break;
	}
	case 5:
		for (int ticks = in.byte(); ticks >= 0; ticks--)
			vek_tick();
		break;
	case 6:
		for (vek_deferred_logout *parked : vek_deferred_logout_list)
			parked->event_time -= std::min<std::uint64_t>(parked->event_time, in.byte());
		vek_run_deferred_logouts();
		break;
	case 7: {
		const int block = in.byte() % BLOCKS;
		std::size_t offset = in.byte();
		offset = offset << 8 | in.byte();
		offset = offset << 2;
		write_block(block, offset, in.take(in.byte()));
		dispatch(VEK_EVENT_CONFIG_CHANGE);
		break;
	}
	case 8: fake.mode = in.byte() % 6; break;
	case 9: {
		std::unique_ptr<client> &program = programs[in.byte() % std::size(programs)];
		if (program && in.byte() & 1)
			program->reads = !program->reads;
		else
			program.reset();
		break;
	}
	case 10:
		fill_pool();
		fake.failing_pipe = in.byte() % 4 - 1;
		for (auto *lines : {&fake.station_macs, &fake.station_times}) {
			const bytes line = in.take(in.byte() % 32);
			lines->assign(in.byte(), std::string(line.begin(), line.end()));
		}
		break;
	default:
		if (vek_users < 16) {
			print_rb_tree(0);
			print_rb_tree_if_asked();
		}
		break;
	}
}

// What was done since the core was fresh.
struct history {
	static constexpr std::size_t room = 1 << 17;
	std::uint8_t *start = nullptr;
	std::size_t length = room; // full: the first input gets a fresh core
	int fd = -1;

	void begin()
	{
		const char *path = std::getenv("VEK_FUZZ_TRAIL");
		if (path != nullptr && fd < 0) {
			fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
			void *file = mmap(nullptr, room, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
			start = file == MAP_FAILED ? nullptr : static_cast<std::uint8_t *>(file);
		}
		if (fd >= 0 && (ftruncate(fd, 0) < 0 || ftruncate(fd, room) < 0))
			broken("no room for the trail");
		length = 0;
	}
	void add(bytes data)
	{
		if (start != nullptr)
			std::copy(data.begin(), data.end(), start + length);
		length += data.size();
	}
} trail;

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	if (trail.length + size + 1024 > trail.room) {
		service.reset();
		for (auto &program : programs)
			program.reset();
		fresh_core();
		trail.begin();
	}
	trail.add({data, size});
	input in{{data, size}};
	while (!in.rest.empty())
		step(in);
	trail.length += in.past; // zeros, as they were read
	check_core();
	return 0;
}
