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
 * Records are those of vek.h: zero them, fill in what you know; text is cut to its field. Of the two names in a
 * login, `real_username` is the account, by which the session is found from then on; `username` is the name that the
 * user typed, and is only shown. A logout names the account too, but in its `username`. They differ where a user
 * has an alias: login {username = "al@corp", real_username = "alice"}, logout {username = "alice"}. Where there is
 * no such thing, put the name into both.
 *
 * vekd keeps its table in memory: when it ends, every session is gone, without a logout, and so are logouts that
 * waited to be revoked. A service notices at its next call (ECONNRESET) or when the descriptor becomes readable:
 * it opens a new connection as soon as it can and reports the logins of its users again. One that itself starts
 * again calls vek_client_end_service first.
 *
 * Every program on the device may report whatever it likes; vekd does not ask who it is.
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

/* The descriptor, to wait with poll until there is something to read; it stays the connection's. It is non-blocking
 * and closed on exec, and nobody but the library reads from it or writes to it. */
VEK_CLIENT_API int vek_client_fd(const struct vek_client *client);

/* Milliseconds that each later call may take; negative: no limit. */
VEK_CLIENT_API void vek_client_set_timeout(struct vek_client *client, int timeout_ms);

/* Reports one event on a notify connection and reads the daemon's status: VEK_RESPONSE_SUCCESS,
 * VEK_RESPONSE_FAIL (nobody matched, no room, an unknown type, or a web logout, a first stage, a revocable logout or
 * its revocation, which are always answered so), or -1. EINVAL: a number that the daemon does not answer, or a login
 * with an empty account, whose session no name would find; nothing was sent.
 *
 * A logout ends every session that has all the keys that it gives: service, username, unique and the address.
 * One without any ends everybody's. A revocable logout (VEK_EVENT_USER_LOGOUT_REVOCABLE) is carried out when it
 * is older than VEK_DEFAULT_LOGOUT_DEFER_TIME seconds, or what the device has set instead; until then
 * VEK_EVENT_USER_LOGOUT_REVOKE with the same service, username, unique and ip takes it back. */
VEK_CLIENT_API int vek_client_report(struct vek_client *client, const struct vek_event *event);

/* The same for any record, a login without an account too. */
VEK_CLIENT_API int vek_client_report_raw(struct vek_client *client, const struct vek_event *event);

/* The two halves of vek_client_report_raw, for an event loop. vek_client_send does not wait: 0, or -1 (EBUSY: the
 * status of the event before was not taken yet, nothing was sent). When the descriptor has become readable,
 * vek_client_answer takes the status without waiting: as above, or -1 (EAGAIN: not all of it is there yet, wait
 * again; EINVAL: nothing was sent). How long to wait is the loop's own to decide; whoever gives up closes the
 * connection. Only opening a connection may wait, for at most its time-out. */
VEK_CLIENT_API int vek_client_send(struct vek_client *client, const struct vek_event *event);
VEK_CLIENT_API int vek_client_answer(struct vek_client *client);

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
