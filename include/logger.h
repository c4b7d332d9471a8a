// logger.h: the handlers that write session events to the system log. They never change the event, the user
// database or the dispatch.
#ifndef LOGGER_H
#define LOGGER_H

#include <cstdint>

#include "vek.h"

struct vek_socket;

// As a message names them. Constant text, or for a service without a name of its own what was given.
const char *get_type_str(std::uint8_t type); // "User" for what is no VEK type
const char *get_service_str(const char *service);

int logger_handle_login(vek_event *event, vek_socket *sock);
int logger_handle_logout(vek_event *event, vek_socket *sock);
int logger_handle_reauth_timeout(vek_event *event, vek_socket *sock);
int logger_handle_lease_timeout(vek_event *event, vek_socket *sock);
int logger_handle_idle_timeout(vek_event *event, vek_socket *sock);

#endif
