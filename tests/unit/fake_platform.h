// fake_platform.h: the platform and the device's tools as the tests see them: what the daemon asked for is
// recorded, what it is told is set here. Linked in place of the platform libraries, the wall clock and the
// running of child processes, so that no test starts a program or waits.
#ifndef FAKE_PLATFORM_H
#define FAKE_PLATFORM_H

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "qzkit.h"
#include "qzlog.h"
#include "user_profile.h"

struct fake_log {
	qzlog_entry entry;
	std::int64_t flags; // wide enough that nothing is padded, so that two can be compared byte by byte
};

struct fake_platform {
	// told to the daemon
	int mode = WHOPMODE_STANDALONE;
	int profile_result = 0; // of get_user_privilege_by_type_id
	user_profile_t profile{};
	std::string mac = "02:00:00:00:00:01";
	std::vector<std::string> station_macs, station_times; // lines of the station database's two listings
	int tool_ms = 0;                     // that each tool takes
	int child_status = 0;                // of what is run, and not read through a pipe
	int failing_pipe = -1;               // the n-th vek_pipe::start from now on fails
	std::time_t wall_clock = 1700000000; // what time() says

	// recorded
	std::vector<fake_log> logs;
	std::vector<std::string> commands; // run, in a shell or not, or read through a pipe
	std::string asked;                 // about rights: type, flag and, unless by type, name
};
extern fake_platform fake;

#endif
