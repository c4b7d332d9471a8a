// vek_event.h: the event bus. One chain of handlers per event number, sorted at registration, so that a
// dispatch is a plain walk on the daemon's one thread.
//
// A handler may change the record: later handlers of the same dispatch see the change. It may dispatch
// further events, which run to completion before it goes on. It must not register or unregister handlers,
// keep a pointer to the record beyond its call, or close the connection it was given.
#ifndef VEK_EVENT_H
#define VEK_EVENT_H

#include <cstring>

#include "list.h"
#include "vek.h"

struct vek_socket;

constexpr int VEK_CONTINUE_DISPATCH = 0;
constexpr int VEK_STOP_DISPATCH = 1;

// `sock` is the connection the event came from, null for events that the daemon makes itself. Only
// VEK_STOP_DISPATCH ends the chain; any other result lets it go on.
using vek_event_handler = int (*)(vek_event *event, vek_socket *sock);

struct event_handler {
	list_head list;
	int priority; // lower runs first
	vek_event_handler handler;
};

using event_handlers = list_of<&event_handler::list>;
extern event_handlers event_chain[VEK_EVENT_LIMIT];

enum vek_pri_login {
	VEK_PRI_LOGIN_DEFAULT,
	VEK_PRI_LOGIN_USERDB,
	VEK_PRI_LOGIN_LISTENER,
	VEK_PRI_LOGIN_LOGGER,
	VEK_PRI_LOGIN_LAST
};
enum vek_pri_logout {
	VEK_PRI_LOGOUT_DEFAULT,
	VEK_PRI_LOGOUT_USERDB,
	VEK_PRI_LOGOUT_LISTENER,
	VEK_PRI_LOGOUT_LOGGER,
	VEK_PRI_LOGOUT_USER_PROFILE_SHM,
	VEK_PRI_LOGOUT_TERMINATOR,
	VEK_PRI_LOGOUT_SSLVPN
};
enum vek_pri_reauth_timeout {
	VEK_PRI_REAUTH_TIMEOUT_DEFAULT,
	VEK_PRI_REAUTH_TIMEOUT_LISTENER,
	VEK_PRI_REAUTH_TIMEOUT_LOGGER,
	VEK_PRI_REAUTH_TIMEOUT_USER_PROFILE_SHM,
	VEK_PRI_REAUTH_TIMEOUT_TERMINATOR,
	VEK_PRI_REAUTH_TIMEOUT_SSLVPN
};
enum vek_pri_lease_timeout {
	VEK_PRI_LEASE_TIMEOUT_DEFAULT,
	VEK_PRI_LEASE_TIMEOUT_LISTENER,
	VEK_PRI_LEASE_TIMEOUT_LOGGER,
	VEK_PRI_LEASE_TIMEOUT_USER_PROFILE_SHM,
	VEK_PRI_LEASE_TIMEOUT_TERMINATOR,
	VEK_PRI_LEASE_TIMEOUT_SSLVPN
};
enum vek_pri_idle_timeout {
	VEK_PRI_IDLE_TIMEOUT_DEFAULT,
	VEK_PRI_IDLE_TIMEOUT_LISTENER,
	VEK_PRI_IDLE_TIMEOUT_LOGGER,
	VEK_PRI_IDLE_TIMEOUT_USER_PROFILE_SHM,
	VEK_PRI_IDLE_TIMEOUT_TERMINATOR,
	VEK_PRI_IDLE_TIMEOUT_SSLVPN
};
enum vek_pri_tunnel {
	VEK_PRI_TUNNEL_DEFAULT,
	VEK_PRI_TUNNEL_LOGIN_USERDB,
	VEK_PRI_TUNNEL_LOGIN_LISTENER,
	VEK_PRI_TUNNEL_LOGOUT_USERDB,
	VEK_PRI_TUNNEL_LOGOUT_LISTENER
};
enum vek_pri_update_reauth_time { VEK_PRI_UPDATE_REAUTH_TIME_DEFAULT, VEK_PRI_UPDATE_REAUTH_TIME_USERDB };
enum vek_pri_update_ssl_vpn_user {
	VEK_PRI_UPDATE_SSL_VPN_USER_DEFAULT,
	VEK_PRI_UPDATE_LEASE_TIME_USERDB,
	VEK_PRI_UPDATE_IDLE_TIME_USERDB
};
enum vek_pri_update_roaming_sta_ip { VEK_PRI_UPDATE_ROAMING_STA_IP_DEFAULT, VEK_PRI_UPDATE_ROAMING_STA_IP };
enum vek_pri_update_traffic_detect { VEK_PRI_USER_TRAFFIC_DEFAULT, VEK_PRI_USER_TRAFFIC_USERDB };
enum vek_pri_alive { VEK_PRI_ALIVE_DEFAULT, VEK_PRI_ALIVE_USERDB };
enum vek_pri_timer_second { VEK_PRI_TIMER_SECOND_DEFAULT, VEK_PRI_TIMER_SECOND_USERDB };
enum vek_pri_timer_10seconds {
	VEK_PRI_TIMER_10SECONDS_DEFAULT,
	VEK_PRI_TIMER_10SECONDS_USERDB,
	VEK_PRI_TIMER_10SECONDS_LOCKOUT
};
enum vek_pri_config_change { VEK_PRI_CONFIG_CHANGE_DEFAULT, VEK_PRI_CONFIG_CHANGE_USERDB };
enum vek_pri_update_accounting_status {
	VEK_PRI_UPDATE_ACCOUNTING_STATUS_DEFAULT,
	VEK_PRI_UPDATE_ACCOUNTING_STATUS_USERDB
};
enum vek_pri_rename_radius_profile_name {
	VEK_PRI_RENAME_RADIUS_PROFILE_NAME_DEFAULT,
	VEK_PRI_RENAME_RADIUS_PROFILE_NAME_USERDB
};
enum vek_pri_update_ssh_tty { VEK_PRI_UPDATE_SSH_TTY_DEFAULT, VEK_PRI_UPDATE_SSH_TTY_USERDB };
enum vek_pri_query_name { VEK_PRI_QUERY_NAME_DEFAULT, VEK_PRI_QUERY_NAME_RESPONDER };
enum vek_pri_query_ip { VEK_PRI_QUERY_FROM_DEFAULT, VEK_PRI_QUERY_FROM_RESPONDER };
enum vek_pri_query_ip_first { VEK_PRI_QUERY_FROM_FIRST_DEFAULT, VEK_PRI_QUERY_FROM_FIRST_RESPONDER };
enum vek_pri_query_all { VEK_PRI_QUERY_ALL_DEFAULT, VEK_PRI_QUERY_ALL_RESPONDER };
enum vek_pri_query_total_user_num {
	VEK_PRI_QUERY_TOTAL_USER_NUM_DEFAULT,
	VEK_PRI_QUERY_TOTAL_USER_NUM_RESPONDER
};
enum vek_pri_app_listen { VEK_PRI_APP_LISTEN_DEFAULT, VEK_PRI_APP_LISTEN_LISTENER };
enum vek_pri_app_close { VEK_PRI_APP_CLOSE_DEFAULT, VEK_PRI_APP_CLOSE_LISTENER };

// Makes all chains empty, forgetting what they held. Once, before any registration.
void vek_init_event();

// Unlinks and frees every handler. Once, at shut-down.
void vek_fini_event();

// Adds a handler behind those of lower or equal priority. -1 when the number is outside 0..38 or there is
// no memory, otherwise 0.
int vek_register_event(int event, int priority, vek_event_handler handler);

// Removes and frees the first node of the chain with that handler; nothing when there is none.
void vek_unregister_event(int event, vek_event_handler handler);

// Runs the chain of the record's event. 1 when a handler stopped it, otherwise 0 (also for a number outside
// 0..38, which has no chain). May be called from inside a handler.
int vek_dispatch_event(vek_event *event, vek_socket *sock);

// A record to fill in and dispatch or send: all zero, its padding too, but for the number.
inline vek_event vek_new_event(int number)
{
	vek_event event;
	std::memset(&event, 0, sizeof(event));
	event.event = number;
	return event;
}

// A module's registrations as a table.
struct vek_registration {
	int event;
	int priority;
	vek_event_handler handler;
};

// Registers a whole table in order. At the first failure prints `failure` to standard error and returns -1;
// registrations already made stay.
template <int N> int vek_register_events(const vek_registration (&table)[N], const char *failure);
int vek_register_events(const vek_registration *table, int count, const char *failure);
template <int N> int vek_register_events(const vek_registration (&table)[N], const char *failure)
{
	return vek_register_events(table, N, failure);
}

#endif
