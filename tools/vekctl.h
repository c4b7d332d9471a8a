// vekctl.h: what the commands of vekctl share: the options that every command takes, and the daemon as seen
// from outside (its clock, its process, its sockets). Each group of commands adds itself to the argument
// parser; main.cpp runs the one that was chosen.
#ifndef VEKCTL_H
#define VEKCTL_H

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "selection.h"
#include "vek_client.h"
#include "view.h"

struct settings : style {
	double timeout = VEK_CLIENT_TIMEOUT_MS / 1000.0;
	std::function<void()>
	    run; // set by the command chosen, called once all arguments have been understood

	times when() const;
	int timeout_ms() const { return static_cast<int>(std::lround(timeout * 1000)); }
};

// A command with the options that all have, an example in its help and what it runs.
CLI::App *add_command(CLI::App &parent, settings &set, const std::string &name,
		      const std::string &description, const std::string &example,
		      const std::function<void()> &run);

void add_status_command(CLI::App &app, settings &set);
void add_session_commands(CLI::App &app, settings &set); // list, show, count, stats
void add_event_commands(CLI::App &app, settings &set);   // login, logout, web-logout, revoke, report
void add_update_commands(CLI::App &app, settings &set);  // update ...
void add_watch_command(CLI::App &app, settings &set);
void add_config_command(CLI::App &app, settings &set);
std::vector<std::string> config_key_names();
void add_lockouts_command(CLI::App &app, settings &set);
void add_stations_command(CLI::App &app, settings &set);

// ---- the daemon from outside ----

using connection = std::unique_ptr<vek_client, decltype(&vek_client_close)>;

connection connect_notify(const settings &set);
connection connect_request(const settings &set);

// The failure that errno stands for after a call of the client library.
failure client_failure(const std::string &doing);

// A query's result, or its failure; the sessions of its answer are added to `into`.
int checked(int result, const std::string &doing);
int collect(const user_info *session, void *into);

// The sessions that the options choose; with `first` the first one of an address.
sessions selected(const settings &set, const selection &wanted, bool first = false);

// Whole seconds of uptime, the clock of all deadlines.
std::uint64_t uptime_now();

// The running daemon's process; a failure when there is none.
int daemon_pid();
void signal_daemon(int pid, int signal);

#endif
