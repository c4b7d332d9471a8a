// responder.cpp: who is logged in: answers the query events straight onto the connection that asked, as a
// header record followed by the session records as the user database holds them.
#include "responder.h"

#include <algorithm>

#include "init.h"
#include "misc.h"
#include "stream.h"
#include "userdb.h"
#include "vek_event.h"

static user_info *uinfo_array[VEK_MAX_USERS];

namespace {

constexpr int ADDRESS_PART = 1;
constexpr int NAME_PART = 2;

// The answer's header: what was asked, and how many records follow.
vek_event header_for(const vek_event *query, int count, int parts)
{
	vek_event header = vek_new_event(VEK_EVENT_QUERY_RESULT);
	header.count = count;
	if (parts & NAME_PART)
		copy_text(header.username, query->username);
	if (parts & ADDRESS_PART) {
		if (query->event_flag & VEK_EVENT_FLAG_USED_IPV6_ADDR) {
			header.ip6 = query->ip6;
			header.event_flag = VEK_EVENT_FLAG_USED_IPV6_ADDR;
		} else {
			header.ip = query->ip;
		}
	}
	return header;
}

// Header and the first `count` records of uinfo_array, many records to a call.
int answer(vek_socket *sock, vek_event header, int count)
{
	constexpr int BATCH = 64;
	iovec parts[1 + BATCH];
	int nparts = 0;
	parts[nparts++] = {&header, sizeof(header)};
	for (int i = 0; i < count; i++) {
		user_info *uinfo = uinfo_array[i];
		if (!IN6_IS_ADDR_UNSPECIFIED(&uinfo->ip6))
			uinfo->usr_flags |= VEK_EVENT_FLAG_USED_IPV6_ADDR;
		parts[nparts++] = {uinfo, sizeof(*uinfo)};
		if (nparts > BATCH) {
			// A client that is gone must not keep us from marking the rest.
			vek_write_client(sock, {parts, static_cast<std::size_t>(nparts)});
			nparts = 0;
		}
	}
	if (nparts > 0)
		vek_write_client(sock, {parts, static_cast<std::size_t>(nparts)});
	return VEK_CONTINUE_DISPATCH;
}

int find_by_address(const vek_event *event)
{
	return event->event_flag & VEK_EVENT_FLAG_USED_IPV6_ADDR
		   ? userdb_query_by_ip6(&event->ip6, uinfo_array)
		   : userdb_query_by_ip(event->ip, uinfo_array);
}

} // namespace

int responder_count(const vek_event *event)
{
	switch (event->event) {
	case VEK_EVENT_APP_QUERY_NAME: return userdb_query_by_name(event->username, uinfo_array);
	case VEK_EVENT_APP_QUERY_FROM: return find_by_address(event);
	case VEK_EVENT_APP_QUERY_FROM_FIRST: return 1;
	case VEK_EVENT_APP_QUERY_ALL: return userdb_query_total_user_num();
	default: return 0;
	}
}

int responder_handle_query_by_name(vek_event *event, vek_socket *sock)
{
	const int count = userdb_query_by_name(event->username, uinfo_array);
	return answer(sock, header_for(event, count, NAME_PART), count);
}

int responder_handle_query_by_ip(vek_event *event, vek_socket *sock)
{
	const int count = find_by_address(event);
	return answer(sock, header_for(event, count, ADDRESS_PART), count);
}

int responder_handle_query_by_ip_first(vek_event *event, vek_socket *sock)
{
	const int count = std::min(find_by_address(event), 1);
	return answer(sock, header_for(event, count, ADDRESS_PART), count);
}

int responder_handle_query_all(vek_event *event, vek_socket *sock)
{
	const int count = userdb_query_all(uinfo_array);
	return answer(sock, header_for(event, count, 0), count);
}

int responder_handle_query_total_user_num(vek_event *event, vek_socket *sock)
{
	std::int32_t count = userdb_query_total_user_num();
	vek_event header = header_for(event, count, 0);
	iovec parts[] = {{&header, sizeof(header)}, {&count, sizeof(count)}};
	vek_write_client(sock, parts);
	return VEK_CONTINUE_DISPATCH;
}

int responder_init()
{
	static const vek_registration table[] = {
	    {VEK_EVENT_APP_QUERY_NAME, VEK_PRI_QUERY_NAME_RESPONDER, responder_handle_query_by_name},
	    {VEK_EVENT_APP_QUERY_FROM, VEK_PRI_QUERY_FROM_RESPONDER, responder_handle_query_by_ip},
	    {VEK_EVENT_APP_QUERY_FROM_FIRST, VEK_PRI_QUERY_FROM_FIRST_RESPONDER,
	     responder_handle_query_by_ip_first},
	    {VEK_EVENT_APP_QUERY_ALL, VEK_PRI_QUERY_ALL_RESPONDER, responder_handle_query_all},
	    {VEK_EVENT_APP_QUERY_TOTAL_USER_NUM, VEK_PRI_QUERY_TOTAL_USER_NUM_RESPONDER,
	     responder_handle_query_total_user_num},
	};
	return vek_register_events(table, "Can't register event for query responder!\n");
}
