// deferred_logout.cpp: see deferred_logout.h. Other programs set how long a logout waits by the defer file, which
// is consumed here.
#include "deferred_logout.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "misc.h"
#include "vek_event.h"

list_of<&vek_deferred_logout::list> vek_deferred_logout_list;

// As many as there can be sessions to log out.
constexpr int MAX_DEFERRED_LOGOUTS = VEK_MAX_USERS;
static int deferred_logouts;
static std::uint64_t logout_defer_time = VEK_DEFAULT_LOGOUT_DEFER_TIME;

bool vek_park_logout(const vek_event &event)
{
	if (deferred_logouts >= MAX_DEFERRED_LOGOUTS)
		return false;
	auto *parked = static_cast<vek_deferred_logout *>(vek_malloc(sizeof(vek_deferred_logout)));
	if (parked == nullptr)
		return false;
	parked->event_time = get_uptime();
	parked->event = event;
	vek_deferred_logout_list.push_back(parked);
	deferred_logouts++;
	return true;
}

void vek_revoke_logouts(const vek_event &event)
{
	list_head *const head = vek_deferred_logout_list.head();
	for (list_head *link = head->next; link != head;) {
		auto *parked = list_entry<&vek_deferred_logout::list>(link);
		link = link->next;
		if (VEK_EVENT_LOGOUT_MATCHED(&parked->event, &event))
			vek_free_deferred_logout(parked);
	}
}

void vek_free_deferred_logout(vek_deferred_logout *parked)
{
	list_del(&parked->list);
	vek_free(parked);
	deferred_logouts--;
}

std::uint64_t get_logout_defer_time()
{
	if (access(VEK_LOGOUT_DEFER_TIME, F_OK) < 0)
		return logout_defer_time;
	logout_defer_time = VEK_DEFAULT_LOGOUT_DEFER_TIME;
	char text[64];
	if (vek_read_planted(VEK_LOGOUT_DEFER_TIME, text, sizeof(text)) < 0)
		return logout_defer_time;
	unlink(VEK_LOGOUT_DEFER_TIME);
	const char *number = text + std::strspn(text, " \t\r\n\v\f");
	number += *number == '+';
	if (*number >= '0' && *number <= '9')
		logout_defer_time = std::strtoul(number, nullptr, 10);
	return logout_defer_time;
}

static bool is_due(const vek_deferred_logout *parked, std::uint64_t now, std::uint64_t defer_time)
{
	return now - parked->event_time > defer_time;
}

bool vek_logout_is_due()
{
	const vek_deferred_logout *oldest = vek_deferred_logout_list.front();
	return oldest != nullptr && is_due(oldest, get_uptime(), get_logout_defer_time());
}

void vek_run_deferred_logouts()
{
	if (vek_deferred_logout_list.empty())
		return;
	const std::uint64_t now = get_uptime(), defer_time = get_logout_defer_time();
	// The oldest comes first, so the first that must wait ends the search.
	while (vek_deferred_logout *parked = vek_deferred_logout_list.front()) {
		if (!is_due(parked, now, defer_time))
			break;
		vek_event event = parked->event;
		vek_free_deferred_logout(parked);
		event.event = VEK_EVENT_USER_LOGOUT;
		vek_dispatch_event(&event, nullptr);
	}
}
