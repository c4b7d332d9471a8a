// events.h: putting an event together from options named after the record's fields, finding the sessions that
// it would concern, and reporting it. events.cpp has the commands for logins and logouts, updates.cpp those
// that change a running session.
#ifndef VEKCTL_EVENTS_H
#define VEKCTL_EVENTS_H

#include <initializer_list>
#include <set>
#include <string>

#include "vekctl.h"

struct draft {
	vek_event record = {};
	std::set<std::string> given; // names of the fields that options set
	bool all = false;            // no key wanted: the event is meant for everybody

	bool has(const std::string &field) const { return given.contains(field); }
};

using draft_run = std::function<void(draft &)>;

// A command with options for so many fields of the record, or for every one that a client fills in.
std::pair<CLI::App *, std::shared_ptr<draft>>
add_event_command(CLI::App &parent, settings &set, const std::string &name, const std::string &description,
		  const std::string &example, const draft_run &run,
		  std::initializer_list<std::string_view> fields = {});
void add_all_option(CLI::App *command, bool &all);

// Fails when none of the search keys is given, unless the event is meant for everybody.
void require_key(const draft &event);

// The sessions that the daemon would find for the event's keys, asked of the daemon.
sessions matching(const settings &set, const vek_event &event);

// The daemon's status.
int report(vek_client *notify, const vek_event &event);

// Reports the event, prints what there is to say about it in JSON, and fails with `refusal` on status 1
// unless it is one of the events that are always answered so.
void report_one(const settings &set, vek_event &event, int number, const std::string &refusal);

#endif
