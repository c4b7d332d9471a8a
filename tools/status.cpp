// status.cpp: how the daemon is, as far as it shows from outside: its process, whether it answers, how much
// of what it has room for is in use, and what is wrong. What only the daemon knows is in the system log.
#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <unistd.h>

#include "shared.h"

namespace {

constexpr int many_connections = 100; // of about 120

struct state {
	int pid = 0;
	std::uint64_t since = 0; // uptime second
	int sessions = -1;       // or there was no answer
	int connections = 0;
	std::optional<std::size_t> lockouts; // none: the table is not there
	bool ages_lockouts = false;
	std::vector<std::string> problems;
	failure first{status_ok, ""}; // of the problems that keep the daemon from its work
};

// The twenty-second number of its stat, in clock ticks; the name before it may hold anything.
std::uint64_t started_at(int pid)
{
	std::string line;
	std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/stat"), line);
	line.erase(0, line.rfind(')') + 1);
	std::istringstream fields(line);
	std::string field;
	for (int i = 3; i <= 22; i++)
		fields >> field;
	return std::strtoull(field.c_str(), nullptr, 10) / static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
}

// Connected sockets that bear the daemon's names.
int count_connections(int pid)
{
	int number = 0;
	std::ifstream sockets("/proc/" + std::to_string(pid) + "/net/unix");
	for (std::string line; std::getline(sockets, line);)
		number += line.find(" 03 ") != std::string::npos &&
			  (line.ends_with(" " VEK_ADDRESS_NOTIFY) || line.ends_with(" " VEK_ADDRESS_REQUEST));
	return number;
}

void look_at_process(state &seen)
{
	seen.pid = daemon_pid();
	seen.since = started_at(seen.pid);
	seen.connections = count_connections(seen.pid);
	char program[4096] = "";
	const std::string link = "/proc/" + std::to_string(seen.pid) + "/exe";
	if (readlink(link.c_str(), program, sizeof(program) - 1) > 0 &&
	    std::string_view(program).ends_with(" (deleted)"))
		seen.problems.emplace_back("vekd was replaced since it started; a restart ends all sessions");
	if (seen.connections >= many_connections)
		seen.problems.push_back(
		    std::to_string(seen.connections) +
		    " connections, with room for about 120: some service leaves them open");
}

void look_at_sessions(const settings &set, state &seen)
{
	seen.sessions = checked(vek_client_count(connect_request(set).get()), "cannot count the sessions");
	if (seen.sessions >= VEK_MAX_USERS)
		seen.problems.emplace_back("the table is full: logins are refused, but for admin's");
	connect_notify(set);
}

void look_at_lockouts(state &seen)
{
	const shared_block<const user_lock> block(USER_LOCK_IPC_KEY, "lockout table", false);
	seen.ages_lockouts = block->enable != 0;
	seen.lockouts = static_cast<std::size_t>(
	    std::count_if(std::begin(block->lockout_rec), std::end(block->lockout_rec),
			  [](auto &record) { return record.inuse != 0; }));
	if (*seen.lockouts > 0 && !seen.ages_lockouts)
		seen.problems.emplace_back(
		    "lockouts do not end: they are not enabled (see: vekctl lockouts enable --help)");
}

void look_at_config()
{
	const shared_block<const user_config> there(USER_CONFIG_IPC_KEY, "logon configuration block", false);
}

void print(const settings &set, const state &seen)
{
	const times when = set.when();
	if (set.json) {
		json result = json_result();
		result["running"] = seen.pid != 0;
		result["answers"] = seen.sessions >= 0;
		result["pid"] = seen.pid != 0 ? json(seen.pid) : json();
		result["since"] =
		    seen.pid != 0
			? json(rfc3339(when.now - static_cast<std::time_t>(when.uptime - seen.since)))
			: json();
		result["vekctl"] = VEK_VERSION;
		result["sessions"] = seen.sessions >= 0 ? json(seen.sessions) : json();
		result["table_size"] = VEK_MAX_USERS;
		result["connections"] = seen.connections;
		result["lockouts"] = seen.lockouts ? json(*seen.lockouts) : json();
		result["lockouts_enabled"] = seen.ages_lockouts;
		result["problems"] = seen.problems;
		return put_json(result);
	}
	const auto known = [](bool is, const std::string &text) { return is ? text : "unknown"; };
	table lines({{"WHAT", cutting::exact}, {"STATE"}});
	lines.row({"vekd", seen.pid == 0 ? "not running" : "running, process " + std::to_string(seen.pid)});
	lines.row({"since", seen.pid == 0 ? "" : when.ago(seen.since)});
	lines.row({"vekctl", VEK_VERSION});
	lines.row({"sessions", known(seen.sessions >= 0, std::to_string(seen.sessions) + " of " +
							     std::to_string(VEK_MAX_USERS))});
	lines.row({"connections", std::to_string(seen.connections) + " of about 120"});
	lines.row({"lockouts", known(seen.lockouts.has_value(),
				     std::to_string(seen.lockouts.value_or(0)) +
					 (seen.ages_lockouts ? ", enabled" : ", not enabled"))});
	std::string problems;
	for (const std::string &problem : seen.problems)
		problems += "problem: " + problem + "\n";
	lines.print(set, problems); // which are not cut
}

} // namespace

void add_status_command(CLI::App &app, settings &set)
{
	add_command(app, set, "status", "Whether vekd runs and answers, what is in use, what is wrong",
		    "vekctl status", [&set] {
			    state seen;
			    const auto look = [&](const auto &at) {
				    try {
					    at();
				    } catch (const failure &why) {
					    seen.problems.push_back(why.message);
					    seen.first = seen.first.status == status_ok ? why : seen.first;
				    }
			    };
			    look([&] { look_at_process(seen); });
			    look([&] { look_at_sessions(set, seen); });
			    if (seen.sessions >= 0) {
				    look([&] { look_at_lockouts(seen); });
				    look([&] { look_at_config(); });
			    }
			    print(set, seen);
			    if (seen.first.status != status_ok)
				    throw failure{seen.first.status, seen.first.message};
		    });
}
