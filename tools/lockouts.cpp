// lockouts.cpp: the shared table of lockouts and of failed attempts. Its lock is held only to copy the table
// or to clear records, never while something is printed.
#include <algorithm>
#include <cstring>

#include "shared.h"

namespace {

constexpr char table_name[] = "lockout table";
constexpr char lock_name[] = "lock of the lockout table";

std::string username_of(const lockout_record &record)
{
	return {record.username, strnlen(record.username, sizeof(record.username))};
}

template <class record> std::string address_of(const record &of) { return address_text(of.ip, of.ip6); }

std::unique_ptr<user_lock> copy_table(const settings &set)
{
	auto copy = std::make_unique<user_lock>();
	const shared_block<const user_lock> block(USER_LOCK_IPC_KEY, table_name, false);
	const shared_lock held(USER_LOCK_IPC_KEY, lock_name, set.timeout_ms());
	std::memcpy(copy.get(), &*block, sizeof(*copy));
	return copy;
}

void print_lockouts_json(const user_lock &lock)
{
	json result = json_result();
	result["uptime"] = uptime_now();
	result["enable"] = static_cast<int>(lock.enable);
	result["attempt_count"] = static_cast<int>(lock.attempt_count);
	result["lockout_period"] = lock.lockout_period;
	result["lockouts"] = json::array();
	for (const lockout_record &record : lock.lockout_rec)
		if (record.inuse)
			result["lockouts"].push_back({{"ip", address_text(record.ip)},
						      {"ip6", address_text(record.ip6)},
						      {"time", record.time},
						      {"username", username_of(record)}});
	result["attempts"] = json::array();
	for (const attempt_record &record : lock.attempt_rec)
		if (record.inuse)
			result["attempts"].push_back({{"ip", address_text(record.ip)},
						      {"ip6", address_text(record.ip6)},
						      {"time", record.time},
						      {"count", record.count}});
	put_json(result);
}

void show_lockouts(const settings &set)
{
	const auto lock = copy_table(set);
	if (set.json)
		return print_lockouts_json(*lock);
	const times when = set.when();
	table lines({{"WHAT", cutting::exact},
		     {"USERNAME"},
		     {"ADDRESS", cutting::address},
		     {"ATTEMPTS", cutting::exact},
		     {"TIME", cutting::exact}});
	const std::string allowed = std::to_string(lock->attempt_count);
	for (const lockout_record &record : lock->lockout_rec)
		if (record.inuse)
			lines.row({"locked", escaped(username_of(record)), address_of(record), "",
				   "ends " + when.ahead(record.time)});
	for (const attempt_record &record : lock->attempt_rec)
		if (record.inuse)
			lines.row({"attempts", "", address_of(record),
				   std::to_string(record.count) + " of " + allowed, when.ago(record.time)});
	lines.print(set, set.no_header ? ""
			 : lock->enable
			     ? "enabled: " + allowed + " attempts, period " +
				   std::to_string(lock->lockout_period) + "\n"
			     : "not enabled: records do not age (see: vekctl lockouts enable --help)\n");
}

struct enable_options {
	std::optional<int> attempts;
	std::optional<std::uint32_t> period;
};

void enable_lockouts(const settings &set, bool enable, const enable_options &options)
{
	const shared_block<user_lock> block(USER_LOCK_IPC_KEY, table_name, true);
	const shared_lock held(USER_LOCK_IPC_KEY, lock_name, set.timeout_ms());
	block->enable = enable;
	block->attempt_count = static_cast<char>(options.attempts.value_or(block->attempt_count));
	block->lockout_period = options.period.value_or(block->lockout_period);
}

struct clear_options {
	std::string whom;
	bool all = false;
};

// A user's attempts are counted under the addresses that the user was locked out at.
void clear_lockouts(const settings &set, const clear_options &options)
{
	if (options.whom.empty() != options.all)
		throw failure{status_usage, "say whom to clear: an address, a user's name, or --all"};
	const auto address = parse_address(options.whom);
	const auto is_from = [](const auto &record, std::uint32_t ip, const in6_addr &ip6) {
		return record.ip == ip && IN6_ARE_ADDR_EQUAL(&record.ip6, &ip6);
	};

	std::vector<lockout_record> lockouts;
	std::vector<attempt_record> attempts;
	{
		const shared_block<user_lock> block(USER_LOCK_IPC_KEY, table_name, true);
		const shared_lock held(USER_LOCK_IPC_KEY, lock_name, set.timeout_ms());
		for (lockout_record &record : block->lockout_rec) {
			const bool meant =
			    options.all || (address ? is_from(record, address->ip, address->ip6)
						    : username_of(record) == options.whom);
			if (!record.inuse || !meant)
				continue;
			lockouts.push_back(record);
			record = {};
		}
		for (attempt_record &record : block->attempt_rec) {
			const bool was_locked =
			    std::any_of(lockouts.begin(), lockouts.end(), [&](auto &lockout) {
				    return is_from(record, lockout.ip, lockout.ip6);
			    });
			const bool meant = options.all || was_locked ||
					   (address && is_from(record, address->ip, address->ip6));
			if (!record.inuse || !meant)
				continue;
			attempts.push_back(record);
			record = {};
		}
	}

	if (set.json) {
		json result = json_result();
		result["lockouts"] = lockouts.size();
		result["attempts"] = attempts.size();
		put_json(result);
	} else {
		for (const lockout_record &record : lockouts)
			put_line("cleared the lockout of " + escaped(username_of(record)) + " from " +
				 address_of(record));
		for (const attempt_record &record : attempts)
			put_line("cleared " + std::to_string(record.count) + " attempts from " +
				 address_of(record));
	}
	if (lockouts.empty() && attempts.empty() && !options.all)
		throw failure{status_refused, "nothing is recorded for \"" + escaped(options.whom) + "\""};
}

} // namespace

void add_lockouts_command(CLI::App &app, settings &set)
{
	CLI::App *lockouts = add_command(app, set, "lockouts",
					 "Who is locked out: show (as without) or clear; enable or disable",
					 "vekctl lockouts clear 192.0.2.7", [&set] { show_lockouts(set); });
	lockouts->require_subcommand(0, 1);
	add_command(*lockouts, set, "show", "Lockouts and failed attempts", "vekctl lockouts show --json",
		    [&set] { show_lockouts(set); });
	auto options = std::make_shared<clear_options>();
	CLI::App *clear =
	    add_command(*lockouts, set, "clear", "Let somebody in again", "vekctl lockouts clear alice",
			[&set, options] { clear_lockouts(set, *options); });
	clear->add_option("whom", options->whom, "an address or a user's name");
	clear->add_flag("--all", options->all, "every record");

	auto limits = std::make_shared<enable_options>();
	CLI::App *enable =
	    add_command(*lockouts, set, "enable", "Let vekd forget records whose time has come",
			"vekctl lockouts enable --attempts 3 --period 60",
			[&set, limits] { enable_lockouts(set, true, *limits); });
	enable->add_option("--attempts", limits->attempts, "failed attempts that programs are to allow")
	    ->check(CLI::Range(1, 127));
	enable->add_option("--period", limits->period, "how long programs are to lock out, in their unit");
	add_command(*lockouts, set, "disable", "Keep every record until it is cleared",
		    "vekctl lockouts disable", [&set] { enable_lockouts(set, false, {}); });
}
