// parts.cpp: the daemon's parts by themselves, in process: what each costs without the kernel, and how it
// grows with the table. Run in namespaces of its own (scripts/sandbox): the user database makes its shared
// block.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "avl.h"
#include "daemon.h"
#include "init.h"
#include "userdb.h"
#include "vek_event.h"

namespace {

constexpr int TABLE = 1000;

// ---- sessions ----

struct crowd {
	bool sharing; // one user name and address for all
	bool ipv6;
};

void fill(user_info *uinfo, int number, crowd kind = {})
{
	std::memset(uinfo, 0, sizeof(*uinfo));
	const int own = kind.sharing ? 0 : number;
	std::strcpy(uinfo->service, SERVICE_NAME_HTTP_HTTPS);
	std::snprintf(uinfo->username, sizeof(uinfo->username), "user-%04d", own);
	std::snprintf(uinfo->unique, sizeof(uinfo->unique), "web-%04d", number);
	if (kind.ipv6) {
		uinfo->ip6.s6_addr32[0] = htonl(0x20010db8);
		uinfo->ip6.s6_addr32[3] = htonl(static_cast<std::uint32_t>(own) + 1);
	} else {
		uinfo->ip = htonl(0x0a000001 + static_cast<std::uint32_t>(own));
	}
	uinfo->type = USER_TYPE;
}

user_list *enter(int number, crowd kind = {}, std::uint64_t deadline = 0)
{
	user_list *ulist = userdb_unuse_list.front();
	fill(ulist->uinfo, number, kind);
	ulist->uinfo->lease_time = deadline;
	userdb_insert(ulist);
	vek_users++;
	return ulist;
}

// A user database with nobody else in it, for one benchmark.
struct table {
	explicit table(int sessions = 0, crowd kind = {})
	{
		vek_init_event();
		userdb_init();
		for (int i = 0; i < sessions; i++)
			enter(i, kind);
	}
	~table()
	{
		vek_fini_event();
		userdb_exit();
	}
};

int size_of(const benchmark::State &state) { return static_cast<int>(state.range(0)); }

// ---- the bus ----

int go_on(vek_event *event, vek_socket *)
{
	benchmark::DoNotOptimize(event);
	return VEK_CONTINUE_DISPATCH;
}

void bus_dispatch(benchmark::State &state)
{
	vek_init_event();
	for (int i = 0; i < size_of(state); i++)
		vek_register_event(VEK_EVENT_USER_TUNNEL_UP, i, go_on);
	vek_event event = vek_new_event(VEK_EVENT_USER_TUNNEL_UP);
	for (auto _ : state)
		benchmark::DoNotOptimize(vek_dispatch_event(&event, nullptr));
	vek_fini_event();
}
BENCHMARK(bus_dispatch)->ArgName("handlers")->Arg(0)->Arg(4);

// ---- the ordered table ----

int compare_numbers(const void *a, const void *b, void *)
{
	const int x = *static_cast<const int *>(a), y = *static_cast<const int *>(b);
	return (x > y) - (x < y);
}

struct ordered_table {
	explicit ordered_table(int size) : numbers(static_cast<std::size_t>(size))
	{
		for (std::size_t i = 0; i < numbers.size(); i++)
			numbers[i] = static_cast<int>(2 * i);
		std::ranges::shuffle(numbers, std::minstd_rand(1));
		for (int &number : numbers)
			avl_insert(tree, &number);
	}
	~ordered_table() { avl_destroy(tree, nullptr); }
	std::vector<int> numbers;
	avl_table *tree = avl_create(compare_numbers, nullptr, nullptr);
};

void ordered_table_find(benchmark::State &state)
{
	const ordered_table filled(size_of(state));
	for (std::size_t i = 0; auto _ : state) {
		benchmark::DoNotOptimize(avl_find(filled.tree, &filled.numbers[i]));
		i = (i + 1) % filled.numbers.size();
	}
}
BENCHMARK(ordered_table_find)->ArgName("items")->RangeMultiplier(10)->Range(10, TABLE);

void ordered_table_insert_and_delete(benchmark::State &state)
{
	const ordered_table filled(size_of(state));
	for (int number = 0; auto _ : state) {
		int item = 2 * number + 1;
		avl_insert(filled.tree, &item);
		avl_delete(filled.tree, &item);
		number = (number + 7) % size_of(state);
	}
}
BENCHMARK(ordered_table_insert_and_delete)->ArgName("items")->RangeMultiplier(10)->Range(10, TABLE);

// ---- the indexes ----

void index_add_and_remove(benchmark::State &state, crowd kind)
{
	const table filled(size_of(state), kind);
	for (auto _ : state) {
		user_list *ulist = enter(TABLE, kind);
		userdb_remove(ulist);
		free_user_list(ulist);
	}
}
BENCHMARK_CAPTURE(index_add_and_remove, different, crowd{})->ArgName("sessions")->Arg(0)->Arg(TABLE);
BENCHMARK_CAPTURE(index_add_and_remove, sharing, crowd{true, false})->ArgName("sessions")->Arg(0)->Arg(TABLE);

// ---- searches, by the keys that are given ----

enum keys : unsigned { SERVICE = 1, NAME = 2, ADDRESS = 4, UNIQUE = 8, ALL = 15 };

void search(benchmark::State &state, crowd kind, unsigned given, const char *unique)
{
	const table filled(size_of(state), kind);
	user_info wanted;
	fill(&wanted, size_of(state) - 1, kind);
	if (unique == nullptr)
		unique = wanted.unique;
	for (auto _ : state)
		benchmark::DoNotOptimize(find_user_list(
		    given & SERVICE ? wanted.service : nullptr, given & NAME ? wanted.username : nullptr,
		    given & ADDRESS ? wanted.ip : 0, given & ADDRESS ? &wanted.ip6 : nullptr,
		    given & UNIQUE ? unique : nullptr, kind.ipv6 ? VEK_HANDLE_FLAG_IPV6_ADDR : 0));
}
BENCHMARK_CAPTURE(search, by_address, {}, ADDRESS, nullptr)->ArgName("sessions")->Arg(TABLE);
BENCHMARK_CAPTURE(search, by_ip6_address, {false, true}, ADDRESS, nullptr)->ArgName("sessions")->Arg(TABLE);
BENCHMARK_CAPTURE(search, by_name, {}, NAME, nullptr)->ArgName("sessions")->Arg(TABLE);
BENCHMARK_CAPTURE(search, by_all_keys, {}, ALL, nullptr)->ArgName("sessions")->Arg(TABLE);
BENCHMARK_CAPTURE(search, by_all_keys_shared, {true, false}, ALL, nullptr)
    ->ArgName("sessions")
    ->Arg(1)
    ->Arg(TABLE);
BENCHMARK_CAPTURE(search, everybody, {}, 0, nullptr)->ArgName("sessions")->Arg(TABLE);
BENCHMARK_CAPTURE(search, everybody_by_unique, {}, UNIQUE, nullptr)->ArgName("sessions")->Arg(TABLE);
BENCHMARK_CAPTURE(search, everybody_by_station, {}, UNIQUE, "02:00:00:00:00:01")
    ->ArgName("sessions")
    ->Arg(TABLE);

// ---- deadlines ----

void expiry_walk(benchmark::State &state)
{
	const table filled;
	seconds_since_boot = 1000;
	for (auto _ : state) {
		for (int i = 0; i < size_of(state); i++)
			enter(i, {}, seconds_since_boot);
		const auto start = std::chrono::steady_clock::now();
		userdb_handle_lease_timeout(nullptr, nullptr);
		const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
		state.SetIterationTime(taken.count());
	}
}
BENCHMARK(expiry_walk)->ArgName("sessions")->Arg(VEK_MAX_USERS)->UseManualTime();

void deadline_insertion(benchmark::State &state, bool in_order)
{
	const table filled;
	std::minstd_rand random(1);
	const auto sessions = static_cast<std::uint64_t>(size_of(state));
	for (int i = 0; i < size_of(state); i++)
		enter(i, {}, 2 + random() % sessions);
	user_list *ulist = enter(TABLE);
	for (auto _ : state) {
		ulist->uinfo->lease_time = in_order ? 2 + sessions : 1 + random() % sessions;
		userdb_place_deadline(userdb_deadline_lists[DEADLINE_LEASE], ulist);
	}
}
BENCHMARK_CAPTURE(deadline_insertion, the_latest, true)->ArgName("sessions")->Arg(TABLE);
BENCHMARK_CAPTURE(deadline_insertion, random_order, false)->ArgName("sessions")->Arg(TABLE / 10)->Arg(TABLE);

} // namespace

BENCHMARK_MAIN();
