// updates.cpp: changing running sessions: their lease, re-authentication and idle times, accounting state,
// RADIUS profile, terminal, and the address of a station that roamed.
#include <algorithm>
#include <cstring>

#include "events.h"

namespace {

void require_fields(const draft &event, std::initializer_list<const char *> fields)
{
	for (const char *field : fields)
		if (!event.has(field)) {
			std::string option = std::string_view(field) == "update" ? "minutes" : field;
			std::replace(option.begin(), option.end(), '_', '-');
			throw failure{status_usage, "this update needs --" + option};
		}
}

// The daemon looks these up by IPv4 address only; an IPv6 address would be no restriction at all.
void refuse_ip6(const draft &event)
{
	if (event.has("ip6"))
		throw failure{status_usage, "sessions are not found by --ip6 for this; use another key"};
}

void update_minutes(const settings &set, draft &event, int number, int least)
{
	require_fields(event, {"update"});
	const auto minutes = static_cast<std::int32_t>(event.record.update.lease_time);
	if (minutes < least)
		throw failure{status_usage, "--minutes must be " + std::to_string(least) + " or more"};
	require_key(event);
	report_one(set, event.record, number, "no session matches");
}

// Always answered with success, so whom it concerns is asked first.
void update_idle(const settings &set, draft &event)
{
	if (!event.has("ip") && !event.has("ip6"))
		throw failure{status_usage, "this update needs --ip or --ip6"};
	vek_event by_address = {};
	by_address.event_flag = event.record.event_flag;
	by_address.ip = event.record.ip;
	by_address.ip6 = event.record.ip6;
	if (by_address.ip == ADDR_NAME_CONSOLE) {
		by_address.ip = 0;
		std::strcpy(by_address.unique, SERVICE_NAME_CONSOLE);
	}
	if (matching(set, by_address).empty())
		throw failure{status_refused, "no session matches"};
	report_one(set, event.record, VEK_EVENT_UPDATE_IDLE_TIME, "no session matches");
}

void update_attribute(const settings &set, draft &event, int number,
		      std::initializer_list<const char *> fields)
{
	require_fields(event, fields);
	refuse_ip6(event);
	if (number != VEK_EVENT_RENAME_RADIUS_PROFILE_NAME) // the old name says which sessions
		require_key(event);
	report_one(set, event.record, number, "no session matches");
}

void update_roaming(const settings &set, draft &event)
{
	require_fields(event, {"username", "sta_mac", "ip"});
	refuse_ip6(event);
	vek_event by_name = {};
	std::memcpy(by_name.username, event.record.username, sizeof(by_name.username));
	const sessions found = matching(set, by_name);
	const bool is_there = std::any_of(found.begin(), found.end(), [&](const user_info &session) {
		return std::strcmp(session.sta_mac, event.record.sta_mac) == 0 &&
		       std::strcmp(session.ssid_profile_name, event.record.ssid_profile_name) == 0;
	});
	if (!is_there)
		throw failure{status_refused, "no session matches"};
	report_one(set, event.record, VEK_EVENT_UPDATE_ROAMING_STA_IP, "no session matches");
}

} // namespace

void add_update_commands(CLI::App &app, settings &set)
{
	CLI::App *update = add_command(app, set, "update", "Change running sessions",
				       "vekctl update lease --username alice --minutes 60", nullptr);
	update->require_subcommand(1);

	// Options that would be carried and ignored are not taken.
	const auto add = [&](const std::string &name, const std::string &description,
			     const std::string &example, std::initializer_list<std::string_view> fields,
			     const draft_run &run) {
		return add_event_command(*update, set, name, description,
					 "vekctl update " + name + " " + example, run, fields);
	};
	const auto add_with_all = [&](const std::string &name, const std::string &description,
				      const std::string &example, std::string_view field,
				      const draft_run &run) {
		const auto [command, event] = add(name, description, example,
						  {"service", "username", "unique", "ip", "ip6", field}, run);
		add_all_option(command, event->all);
	};

	add_with_all("lease", "Set the lease time; -1: begin the session's own again, 0: none",
		     "--username alice --minutes 60", "update",
		     [&set](draft &event) { update_minutes(set, event, VEK_EVENT_UPDATE_LEASE_TIME, -1); });
	add_with_all("reauth", "Set the re-authentication time; 0: none", "--username alice --minutes 120",
		     "update",
		     [&set](draft &event) { update_minutes(set, event, VEK_EVENT_UPDATE_REAUTH_TIME, 0); });
	add("idle", "Tell of activity at an address", "--ip 192.0.2.7", {"ip", "ip6"},
	    [&set](draft &event) { update_idle(set, event); });
	add_with_all("accounting", "Set the accounting status", "--username alice --accounting-status 1",
		     "accounting_status", [&set](draft &event) {
			     update_attribute(set, event, VEK_EVENT_UPDATE_ACCOUNTING_STATUS,
					      {"accounting_status"});
		     });
	add("profile", "Rename a RADIUS profile in the sessions that use it",
	    "--old-radius-profile-name old --radius-profile-name new",
	    {"service", "username", "unique", "ip", "old_radius_profile_name", "radius_profile_name"},
	    [&set](draft &event) {
		    update_attribute(set, event, VEK_EVENT_RENAME_RADIUS_PROFILE_NAME,
				     {"old_radius_profile_name", "radius_profile_name"});
	    });
	add_with_all(
	    "tty", "Set the terminal of an ssh session", "--username alice --ssh-tty pts/3", "ssh_tty",
	    [&set](draft &event) { update_attribute(set, event, VEK_EVENT_UPDATE_SSH_TTY, {"ssh_tty"}); });
	add("roaming", "Move a station's session to a new IPv4 address",
	    "--username alice --sta-mac 02:00:00:00:00:07 --ssid-profile-name guests --ip 192.0.2.8",
	    {"username", "sta_mac", "ssid_profile_name", "ip"},
	    [&set](draft &event) { update_roaming(set, event); });
}
