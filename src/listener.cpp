// listener.cpp: programs that follow logins and logouts: each subscribed connection gets a copy of every such
// event, as the user database completed it, in subscription order.
#include "listener.h"

#include "fairness.h"
#include "init.h"
#include "misc.h"
#include "stream.h"
#include "vek_event.h"
#include "vek_socket.h"

list_of<&vek_listener::list> vek_listener_list;

void listener_dispatch_event(vek_event *event, vek_socket *)
{
	for (vek_listener *listener : vek_listener_list) {
		iovec copy{event, sizeof(*event)};
		vek_write_client(listener->sock, {&copy, 1});
	}
}

namespace {

int pass_on(vek_event *event, vek_socket *sock)
{
	listener_dispatch_event(event, sock);
	return VEK_CONTINUE_DISPATCH;
}

bool remove_first(vek_socket *sock)
{
	for (vek_listener *listener : vek_listener_list)
		if (listener->sock == sock) {
			list_del(&listener->list);
			vek_free(listener);
			sock->subscriptions--;
			return true;
		}
	return false;
}

} // namespace

int listener_handle_login(vek_event *event, vek_socket *sock) { return pass_on(event, sock); }
int listener_handle_logout(vek_event *event, vek_socket *sock) { return pass_on(event, sock); }
int listener_handle_reauth_timeout(vek_event *event, vek_socket *sock) { return pass_on(event, sock); }
int listener_handle_idle_timeout(vek_event *event, vek_socket *sock) { return pass_on(event, sock); }
int listener_handle_lease_timeout(vek_event *event, vek_socket *sock) { return pass_on(event, sock); }

int listener_handle_tunnel(vek_event *event, vek_socket *sock)
{
	if (event->tunnel_ip == 0 || vek_listener_list.empty())
		return VEK_CONTINUE_DISPATCH;
	vek_event copy = *event;
	switch (copy.event) {
	case VEK_EVENT_USER_LOGOUT:
	case VEK_EVENT_USER_REAUTH_TIMEOUT:
	case VEK_EVENT_USER_LEASE_TIMEOUT:
	case VEK_EVENT_USER_IDLE_TIMEOUT: copy.event = VEK_EVENT_USER_TUNNEL_DOWN; break;
	default: break;
	}
	listener_dispatch_event(&copy, sock);
	return VEK_CONTINUE_DISPATCH;
}

int listener_handle_app_listen(vek_event *, vek_socket *sock)
{
	if (!fairness_may_subscribe(sock))
		return VEK_STOP_DISPATCH;
	auto *listener = static_cast<vek_listener *>(vek_malloc(sizeof(vek_listener)));
	if (listener == nullptr)
		return VEK_STOP_DISPATCH;
	listener->fd = sock->fd;
	listener->sock = sock;
	vek_listener_list.push_back(listener);
	sock->subscriptions++;
	sock->on_close = listener_forget;
	return VEK_CONTINUE_DISPATCH;
}

int listener_handle_app_close(vek_event *, vek_socket *sock)
{
	remove_first(sock);
	return VEK_CONTINUE_DISPATCH;
}

void listener_forget(vek_socket *sock)
{
	while (remove_first(sock))
		;
}

int listener_init()
{
	static const vek_registration table[] = {
	    {VEK_EVENT_USER_LOGIN, VEK_PRI_LOGIN_LISTENER, listener_handle_login},
	    {VEK_EVENT_USER_SOCIAL_LOGIN_STAGE2, VEK_PRI_LOGIN_LISTENER, listener_handle_login},
	    {VEK_EVENT_USER_LOGOUT, VEK_PRI_LOGOUT_LISTENER, listener_handle_logout},
	    {VEK_EVENT_USER_LOGOUT2, VEK_PRI_LOGOUT_LISTENER, listener_handle_logout},
	    {VEK_EVENT_USER_REAUTH_TIMEOUT, VEK_PRI_REAUTH_TIMEOUT_LISTENER, listener_handle_reauth_timeout},
	    {VEK_EVENT_USER_IDLE_TIMEOUT, VEK_PRI_IDLE_TIMEOUT_LISTENER, listener_handle_idle_timeout},
	    {VEK_EVENT_USER_LEASE_TIMEOUT, VEK_PRI_LEASE_TIMEOUT_LISTENER, listener_handle_lease_timeout},
	    {VEK_EVENT_USER_LOGOUT, VEK_PRI_LOGOUT_SSLVPN, listener_handle_tunnel},
	    {VEK_EVENT_USER_IDLE_TIMEOUT, VEK_PRI_IDLE_TIMEOUT_SSLVPN, listener_handle_tunnel},
	    {VEK_EVENT_USER_LEASE_TIMEOUT, VEK_PRI_LEASE_TIMEOUT_SSLVPN, listener_handle_tunnel},
	    {VEK_EVENT_USER_REAUTH_TIMEOUT, VEK_PRI_REAUTH_TIMEOUT_SSLVPN, listener_handle_tunnel},
	    {VEK_EVENT_USER_TUNNEL_UP, VEK_PRI_TUNNEL_LOGIN_LISTENER, listener_handle_tunnel},
	    {VEK_EVENT_USER_TUNNEL_DOWN, VEK_PRI_TUNNEL_LOGOUT_LISTENER, listener_handle_tunnel},
	    {VEK_EVENT_APP_LISTEN, VEK_PRI_APP_LISTEN_LISTENER, listener_handle_app_listen},
	    {VEK_EVENT_APP_CLOSE, VEK_PRI_APP_CLOSE_LISTENER, listener_handle_app_close},
	};
	vek_listener_list.clear();
	return vek_register_events(table, "Can't register event for event listener!\n");
}
