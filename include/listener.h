// listener.h: the subscribers: request connections that receive a copy of every login, logout, time-out and
// tunnel change. A connection that subscribed twice is listed twice and receives everything twice.
#ifndef LISTENER_H
#define LISTENER_H

#include "list.h"
#include "vek.h"

struct vek_socket;

struct vek_listener {
	list_head list;
	int fd;           // of the subscribed connection,
	vek_socket *sock; // which outlives its entries
};
extern list_of<&vek_listener::list> vek_listener_list; // in subscription order

// One copy to every subscriber, in list order. What becomes of a subscriber that does not read is in
// fairness.h.
void listener_dispatch_event(vek_event *event, vek_socket *sock);

int listener_handle_login(vek_event *event, vek_socket *sock);
int listener_handle_logout(vek_event *event, vek_socket *sock);
int listener_handle_reauth_timeout(vek_event *event, vek_socket *sock);
int listener_handle_idle_timeout(vek_event *event, vek_socket *sock);
int listener_handle_lease_timeout(vek_event *event, vek_socket *sock);
int listener_handle_tunnel(vek_event *event, vek_socket *sock);
int listener_handle_app_listen(vek_event *event, vek_socket *sock);

// Removes one entry of the closing connection.
int listener_handle_app_close(vek_event *event, vek_socket *sock);

// Removes every entry left of a connection that is about to be closed.
void listener_forget(vek_socket *sock);

#endif
