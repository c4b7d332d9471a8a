/*
 * vek_client.h: talking to vekd from C or C++: report what happens to your users, ask who is logged in,
 * follow logins and logouts. Link with -lvekclient.
 *
 * A `vek_client` is one connection. Calls on one connection must not overlap; different connections are
 * independent, so a threaded program uses one per thread or a lock of its own. No call keeps a pointer to
 * what it was given, and no pointer may be null but where it says so. Every call waits at most its connection's
 * time-out and restarts after signals; failures are -1 with errno: ETIMEDOUT, ECONNRESET (the daemon closed it),
 * EPROTO (an answer that is none), ENOMEM, or what the system said. After any of them the connection is of no
 * more use, since an answer may still be under way: close it; further calls give ENOTCONN. EINVAL is a wrong
 * argument or a connection of the other kind, and changes nothing. No call raises SIGPIPE.
 *
 * Records are those of vek.h: zero them, fill in what you know; text is cut to its field. The account that a
 * session is found by later is `real_username` of its login; `username` is the name it is shown with.
 */
#ifndef VEK_CLIENT_H
#define VEK_CLIENT_H

#include "vek.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VEK_CLIENT_API __attribute__((visibility("default")))
#define VEK_CLIENT_TIMEOUT_MS 5000 /* of a new connection */

struct vek_client;

/* Connects to the notify or the request socket. The connection, which vek_client_close ends and frees, or
 * null with errno (ENOENT or ECONNREFUSED: no daemon there; ETIMEDOUT). */
VEK_CLIENT_API struct vek_client *vek_client_open_notify(int timeout_ms);
VEK_CLIENT_API struct vek_client *vek_client_open_request(int timeout_ms);

/* Null is fine. */
VEK_CLIENT_API void vek_client_close(struct vek_client *client);

/* The descriptor, to wait for copies with poll; it stays the connection's. */
VEK_CLIENT_API int vek_client_fd(const struct vek_client *client);

/* Milliseconds that each later call may take; negative: no limit. */
VEK_CLIENT_API void vek_client_set_timeout(struct vek_client *client, int timeout_ms);

/* Reports one event on a notify connection and reads the daemon's status: VEK_RESPONSE_SUCCESS,
 * VEK_RESPONSE_FAIL (nobody matched, no room, or a web logout, a first stage or a revocable logout, which
 * are always answered so), or -1. EINVAL: a number that the daemon does not answer; nothing was sent. */
VEK_CLIENT_API int vek_client_report(struct vek_client *client, const struct vek_event *event);

/* One session of an answer. Not 0 ends the query's callbacks; the rest of the answer is still read. The
 * record is the library's and lives until the callback returns. The connection must not be used in it. */
typedef int vek_client_session_fn(const struct user_info *session, void *arg);

/* Queries on a request connection. Each calls `each` (unless null) for every session of the answer and
 * returns their number, or -1. An IPv4 address is in network byte order. An empty name and the IPv4 address 0
 * ask for everybody. */
VEK_CLIENT_API int vek_client_query_name(struct vek_client *client, const char *username,
                                         vek_client_session_fn *each, void *arg);
VEK_CLIENT_API int vek_client_query_ip(struct vek_client *client, uint32_t ip, vek_client_session_fn *each, void *arg);
VEK_CLIENT_API int vek_client_query_ip6(struct vek_client *client, const struct in6_addr *ip6,
                                        vek_client_session_fn *each, void *arg);
VEK_CLIENT_API int vek_client_query_ip_first(struct vek_client *client, uint32_t ip,
                                             vek_client_session_fn *each, void *arg);
VEK_CLIENT_API int vek_client_query_ip6_first(struct vek_client *client, const struct in6_addr *ip6,
                                              vek_client_session_fn *each, void *arg);
VEK_CLIENT_API int vek_client_query_all(struct vek_client *client, vek_client_session_fn *each, void *arg);

/* The same answer into the caller's storage: at most `room` sessions are stored; the number found. */
VEK_CLIENT_API int vek_client_fetch_all(struct vek_client *client, struct user_info *sessions, int room);
VEK_CLIENT_API int vek_client_fetch_name(struct vek_client *client, const char *username,
                                         struct user_info *sessions, int room);

/* The number of sessions, or -1. */
VEK_CLIENT_API int vek_client_count(struct vek_client *client);

/* Makes a request connection a subscription: 0 when the daemon has taken it, or -1. On return it is in force:
 * whatever is reported from now on is copied. (The daemon does not answer a subscription; the library asks for the
 * count behind it and waits for that answer.) Subscribe first, then list on another connection, or what happens
 * in between is missed; a session that begins in between is in both. From then on only vek_client_next,
 * vek_client_pending, vek_client_fd, vek_client_set_timeout and vek_client_close are for this connection. */
VEK_CLIENT_API int vek_client_subscribe(struct vek_client *client);

/* Copies that are here already. Take them with vek_client_next before waiting on the descriptor. */
VEK_CLIENT_API int vek_client_pending(const struct vek_client *client);

/* The next copy: 1, or -1 (ETIMEDOUT: none came, the subscription goes on; ECONNRESET: the daemon ended it,
 * copies may have been missed). */
VEK_CLIENT_API int vek_client_next(struct vek_client *client, struct vek_event *event);

/* Ends every session that `service` had reported: for a service that starts again after a crash. Asks who is
 * logged in and reports a logout for each of the service's sessions, on connections of its own, all within
 * `timeout_ms`. The number ended, or -1 (those reported so far are ended). */
VEK_CLIENT_API int vek_client_end_service(const char *service, int timeout_ms);

#ifdef __cplusplus
}
#endif

#endif
