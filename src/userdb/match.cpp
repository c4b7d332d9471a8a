// match.cpp: which sessions does an event name? Chooses the cheapest index for the keys that are given and
// filters its candidates with the match function of those keys.
#include <regex.h>

#include <cstring>

#include "misc.h"
#include "userdb.h"

namespace {

// One comparison behind all the match functions. The key that tells sessions apart best comes first; which
// fields are compared is what counts, not in which order.
template <unsigned compared>
int match_fields(const char *service, const char *username, std::uint32_t ip, const in6_addr *ip6,
		 const char *unique, const char *session_service, const char *session_username,
		 std::uint32_t session_ip, const in6_addr *session_ip6, const char *session_unique)
{
	if constexpr (compared & MATCH_UNIQUE)
		if (std::strcmp(unique, session_unique) != 0)
			return 0;
	if constexpr (compared & MATCH_IP)
		if (ip != session_ip)
			return 0;
	if constexpr (compared & MATCH_IP6)
		if (std::memcmp(ip6, session_ip6, sizeof(in6_addr)) != 0)
			return 0;
	if constexpr (compared & MATCH_USERNAME)
		if (std::strcmp(username, session_username) != 0)
			return 0;
	if constexpr (compared & MATCH_SERVICE)
		if (std::strcmp(service, session_service) != 0)
			return 0;
	return 1;
}

match_func *match_function_of(unsigned bits)
{
	switch (bits) {
#define MATCH_CASE(combination, name, compared)                                                              \
	case combination: return name;
		MATCH_FUNCTIONS(MATCH_CASE)
#undef MATCH_CASE
	default: return nullptr;
	}
}

struct search {
	const char *service;
	const char *username;
	std::uint32_t ip;
	const in6_addr *ip6;
	const char *unique;
	match_func *match;
	bool unique_is_station; // compared with a session's station instead of its unique key
	int found;
};

bool given(const char *text) { return text != nullptr && *text != '\0'; }

void test(search &query, user_list *ulist)
{
	const user_info &uinfo = *ulist->uinfo;
	if (query.match(query.service, query.username, query.ip, query.ip6, query.unique, uinfo.service,
			uinfo.username, uinfo.ip, &uinfo.ip6,
			query.unique_is_station ? uinfo.sta_mac : uinfo.unique))
		ulist_array[query.found++] = ulist;
}

// The representative, then the others of its key, oldest first.
template <list_head user_list::*ring>
void test_ring(search &query, user_list *representative, std::int32_t users)
{
	test(query, representative);
	if (users <= 1)
		return;
	list_head *const own = &(representative->*ring);
	for (list_head *link = own->next; link != own; link = link->next)
		test(query, list_entry<ring>(link));
}

template <list_head user_list::*ring, std::int32_t user_list::*users>
int search_index(search &query, const avl_table *tree, user_info *key)
{
	user_list probe;
	probe.uinfo = key;
	if (tree == nullptr) // its creation failed at start, and the daemon serves without
		return 0;
	if (auto *representative = static_cast<user_list *>(avl_find(tree, &probe)))
		test_ring<ring>(query, representative, representative->*users);
	return query.found;
}

int search_everybody(search &query)
{
	if (avl_username_tree == nullptr)
		return 0;
	avl_traverser trav;
	for (void *item = avl_t_first(&trav, avl_username_tree); item != nullptr; item = avl_t_next(&trav)) {
		auto *representative = static_cast<user_list *>(item);
		test_ring<&user_list::same_name_list>(query, representative, representative->same_name_users);
	}
	return query.found;
}

int copy_results(int count, user_info **uinfo_array)
{
	for (int i = 0; i < count; i++)
		uinfo_array[i] = ulist_array[i]->uinfo;
	return count;
}

} // namespace

#define MATCH_DEFINE(combination, name, compared)                                                            \
	int name(const char *service, const char *username, std::uint32_t ip, const in6_addr *ip6,           \
		 const char *unique, const char *session_service, const char *session_username,              \
		 std::uint32_t session_ip, const in6_addr *session_ip6, const char *session_unique)          \
	{                                                                                                    \
		return match_fields<(compared)>(service, username, ip, ip6, unique, session_service,         \
						session_username, session_ip, session_ip6, session_unique);  \
	}
MATCH_FUNCTIONS(MATCH_DEFINE)
#undef MATCH_DEFINE

int check_is_mac(const char *str)
{
	regex_t expression;
	if (regcomp(&expression, "([0-9a-fA-F]{2}:){5}[0-9a-fA-F]{2}", REG_EXTENDED | REG_NOSUB) != 0)
		return REG_NOMATCH; // no memory: not known to be one
	const int result = regexec(&expression, str, 0, nullptr, 0);
	regfree(&expression);
	return result;
}

int find_user_list(const char *service, const char *username, std::uint32_t ip, const in6_addr *ip6,
		   const char *unique, unsigned qflags)
{
	const bool ipv6 = qflags != 0;
	unsigned bits = MATCH_NONE;
	if (given(service))
		bits |= MATCH_SERVICE;
	if (given(username))
		bits |= MATCH_USERNAME;
	if (given(unique))
		bits |= MATCH_UNIQUE;
	if (!ipv6 && ip != 0)
		bits |= MATCH_IP;
	if (ipv6 && (bits != MATCH_NONE || ip6 != nullptr))
		bits |= MATCH_IP6;

	search query{service, username, ip, ip6, unique, match_function_of(bits), false, 0};
	if (query.match == nullptr)
		return -1;

	user_info key;
	if (bits & MATCH_IP) {
		key.ip = ip;
		return search_index<&user_list::same_ip_list, &user_list::same_ip_users>(query, avl_ip_tree,
											 &key);
	}
	if (bits & MATCH_IP6) {
		key.ip6 = *ip6;
		return search_index<&user_list::same_ip6_list, &user_list::same_ip6_users>(
		    query, avl_ip6_tree, &key);
	}
	if (bits & MATCH_USERNAME) {
		copy_text(key.username, username);
		return search_index<&user_list::same_name_list, &user_list::same_name_users>(
		    query, avl_username_tree, &key);
	}
	// Without name and address, a key that holds a MAC address names a station.
	query.unique_is_station = !ipv6 && given(unique) && check_is_mac(unique) == 0;
	return search_everybody(query);
}

int find_user_list_of_event(const vek_event *event)
{
	if (event->event_flag & VEK_EVENT_FLAG_USED_IPV6_ADDR)
		return find_user_list(event->service, event->username, 0, &event->ip6, event->unique,
				      VEK_HANDLE_FLAG_IPV6_ADDR);
	return find_user_list(event->service, event->username, event->ip, nullptr, event->unique, 0);
}

int userdb_query_by_name(const char *username, user_info **uinfo_array)
{
	return copy_results(find_user_list(nullptr, username, 0, nullptr, nullptr, 0), uinfo_array);
}

int userdb_query_by_ip(std::uint32_t ip, user_info **uinfo_array)
{
	return copy_results(find_user_list(nullptr, nullptr, ip, nullptr, nullptr, 0), uinfo_array);
}

int userdb_query_by_ip6(const in6_addr *ip6, user_info **uinfo_array)
{
	return copy_results(find_user_list(nullptr, nullptr, 0, ip6, nullptr, VEK_HANDLE_FLAG_IPV6_ADDR),
			    uinfo_array);
}

int userdb_query_all(user_info **uinfo_array)
{
	return copy_results(find_user_list(nullptr, nullptr, 0, nullptr, nullptr, 0), uinfo_array);
}
