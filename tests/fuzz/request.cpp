// request.cpp: a stream of requests, of a program that may be subscribed when somebody logs in or out.
#include "harness.h"

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	fresh_core();
	dispatch(VEK_EVENT_USER_LOGIN, {.service = "ssh", .user = "alice", .unique = "1", .ip = 7});
	dispatch(VEK_EVENT_USER_LOGIN, {.service = "http/https", .user = "alice", .unique = "2", .ip = 8});
	vek_event login = make_event(VEK_EVENT_USER_LOGIN, {.service = "802.1x", .user = "bob", .unique = "3"});
	set_ip6(login, "2001:db8::20");
	dispatch(login);
	{
		client program(VEK_SOCKTYPE_REQUEST);
		program.send(data, size);
		dispatch(VEK_EVENT_USER_LOGIN, {.service = "ftp", .user = "eve", .unique = "4", .ip = 7});
		dispatch(VEK_EVENT_USER_LOGOUT, {.user = "alice"});
	}
	check_core();
	return 0;
}
