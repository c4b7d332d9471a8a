// fake_platform.cpp: the six platform functions, the wall clock and the child processes, recorded.
// See fake_platform.h.
#include "fake_platform.h"

#include <cstdio>
#include <cstring>

#include "child.h"
#include "rrm.h"

fake_platform fake;

extern "C" {

std::time_t time(std::time_t *result) noexcept
{
	if (result != nullptr)
		*result = fake.wall_clock;
	return fake.wall_clock;
}

int qzlog_init(void) { return 0; }

int qzlog2(const qzlog_entry *entry, int flags)
{
	fake.logs.push_back({*entry, flags});
	return 7;
}

int qzkit_wlan_get_hybridmode(void) { return fake.mode; }

int get_user_privilege_by_type_id(user_profile_t *profile, int type)
{
	fake.asked = std::to_string(type) + " " + std::to_string(profile->flag) + " ";
	*profile = fake.profile;
	return fake.profile_result;
}

int get_info_from_local(user_profile_t *profile, const char *username, int type)
{
	fake.asked = std::to_string(type) + " " + std::to_string(profile->flag) + " " + username;
	*profile = fake.profile;
	return -1; // of no consequence
}

int rrm_get_common_mac(char *buffer, int size)
{
	std::snprintf(buffer, static_cast<std::size_t>(size), "%s", fake.mac.c_str());
	return 0;
}
}

static std::int64_t tools_took_ms;
std::int64_t vek_children_took_ms() { return tools_took_ms; }

static int ran(const std::string &command)
{
	fake.commands.push_back(command);
	tools_took_ms += fake.tool_ms;
	return fake.child_status;
}

int vek_run(const char *const argv[])
{
	std::string line;
	for (; *argv != nullptr; ++argv)
		line += (line.empty() ? "" : " ") + std::string(*argv);
	return ran(line);
}

int vek_run_shell(const char *command) { return ran(command); }

// The pipe's private members serve as it pleases: fd_ tells which listing, used_ the next line.
bool vek_pipe::start(const char *command, int)
{
	if (fake.failing_pipe >= 0 && fake.failing_pipe-- == 0)
		return false;
	fake.commands.emplace_back(command);
	fd_ = std::strstr(command, "-f AUTH_TIME") != nullptr;
	used_ = 0;
	return true;
}

bool vek_pipe::read_line(char *buffer, std::size_t size)
{
	const std::vector<std::string> &lines = fd_ == 1 ? fake.station_times : fake.station_macs;
	if (used_ >= lines.size())
		return false;
	std::snprintf(buffer, size, "%s", lines[used_++].c_str());
	return true;
}

void vek_pipe::close() {}
