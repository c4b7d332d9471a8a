// logger.h: the handlers that write session events to the system log. They never change the event, the user
// database or the dispatch.
#ifndef LOGGER_H
#define LOGGER_H

#include "vek.h"

struct vek_socket;

int logger_handle_login(vek_event *event, vek_socket *sock);
int logger_handle_logout(vek_event *event, vek_socket *sock);
int logger_handle_reauth_timeout(vek_event *event, vek_socket *sock);
int logger_handle_lease_timeout(vek_event *event, vek_socket *sock);
int logger_handle_idle_timeout(vek_event *event, vek_socket *sock);

#endif
