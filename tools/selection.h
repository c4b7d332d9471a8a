// selection.h: the options that choose sessions, the same for every command that has any, and what they
// choose: of an answer's sessions, of a subscription's events. Nothing here knows of the daemon but its
// rules.
#ifndef VEKCTL_SELECTION_H
#define VEKCTL_SELECTION_H

#include <CLI/CLI.hpp>
#include <optional>
#include <string>
#include <vector>

#include "fields.h"

// An address, or those that begin with so many of its bits.
struct network {
	address base;
	unsigned bits;

	bool is_host() const { return bits == (base.is_ip6 ? 128 : 32); }
	bool contains(std::uint32_t ip, const in6_addr &ip6) const;
};

struct selection {
	std::optional<std::string> user, user_part, service, client, unique, station, ssid;
	std::optional<network> from;
	std::optional<unsigned> type;

	void add_options(CLI::App &command);

	bool is_empty() const;
	bool matches(const user_info &session) const;

	// What only a misspelt name of a service explains, when nobody was found; else "".
	std::string hint() const;

	// As the daemon itself looks sessions up, which knows fewer ways; a failure for any other.
	vek_event keys() const;
};

std::vector<std::string> service_names();

// Whom an event is about, as far as it says.
user_info session_of(const vek_event &event);

// Whether the daemon finds the session by the record's keys.
bool is_found_by(const vek_event &event, const user_info &session);

// An IPv6 record's address restricts, unless it is none.
inline bool uses_ip6(const vek_event &event)
{
	return (event.event_flag & VEK_EVENT_FLAG_USED_IPV6_ADDR) != 0;
}

#endif
