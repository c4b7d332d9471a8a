// deferred_logout.h: revocable logouts: parked for some seconds, in which another record may revoke them, then
// carried out in the order in which they came.
#ifndef DEFERRED_LOGOUT_H
#define DEFERRED_LOGOUT_H

#include <cstdint>

#include "list.h"
#include "vek.h"

struct vek_deferred_logout {
	list_head list;
	std::uint64_t event_time; // uptime second at which it was parked
	vek_event event;          // as received
};

extern list_of<&vek_deferred_logout::list> vek_deferred_logout_list; // oldest first

// False when there is no memory or no place; the logout is then to be carried out at once.
bool vek_park_logout(const vek_event &event);

// Forgets every parked logout that this record names.
void vek_revoke_logouts(const vek_event &event);

// Unlinks and frees a parked logout.
void vek_free_deferred_logout(vek_deferred_logout *parked);

// True when the time of the oldest has come.
bool vek_logout_is_due();

// Carries out those whose time has come.
void vek_run_deferred_logouts();

// Seconds that a revocable logout stays parked, after a look at the defer file.
std::uint64_t get_logout_defer_time();

#endif
