// responder.h: the query events' handlers; each writes its answer onto the connection it is given.
#ifndef RESPONDER_H
#define RESPONDER_H

#include "vek.h"

struct vek_socket;

// How many records the answer to a query event would hold.
int responder_count(const vek_event *event);

int responder_handle_query_by_name(vek_event *event, vek_socket *sock);
int responder_handle_query_by_ip(vek_event *event, vek_socket *sock);
int responder_handle_query_by_ip_first(vek_event *event, vek_socket *sock);
int responder_handle_query_all(vek_event *event, vek_socket *sock);
int responder_handle_query_total_user_num(vek_event *event, vek_socket *sock);

#endif
