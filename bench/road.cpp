// road.cpp: what a login, a logout and a query cost on the running daemon, beside what the kernel alone
// costs.
//
// `road [--plot FILE.svg] [--tables DIRECTORY]`, in namespaces of its own (scripts/sandbox). All that is
// compared in a ratio runs in turns: a round measures each for some milliseconds, a ratio is of two medians
// of one round, and a figure is the median of its rounds' ratios. So neither a busy machine nor a moment's
// disturbance is measured. Status 0 when everything could be measured, met or not.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>

#include "key_value.h"
#include "peers.h"
#include "report.h"

namespace {

constexpr int TABLE = 1000; // sessions of a table that is called full of users
constexpr int SIZES[] = {0, 10, 30, 100, 300, TABLE};
constexpr int SUBSCRIBERS[] = {0, 1, 2, 5, 10, 20, 35, 50};
constexpr int IDLE_CONNECTIONS[] = {0, 35, 70, 105};
constexpr int PLACES = 120; // connections that the daemon has room for, beside its other descriptors
constexpr int CURVE_ROUNDS = 25, FIGURE_ROUNDS = 120;
constexpr int VISITORS = 64, VISITS = 2 * VISITORS;

constexpr char COUNTER[] = "/tmp/bench-allocations";

struct {
	std::vector<figure> figures;
	std::vector<growth> growths;
	std::vector<panel> panels;
} report;

std::string own_directory()
{
	char path[4096];
	const ssize_t length = readlink("/proc/self/exe", path, sizeof(path));
	if (length <= 0)
		fail("/proc/self/exe");
	const std::string program(path, static_cast<std::size_t>(length));
	return program.substr(0, program.rfind('/') + 1);
}

std::string measured_daemon() { return own_directory() + "vekd_bench"; }

// ---- sessions ----

struct crowd {
	bool sharing;   // one user name and address for all, otherwise each has its own
	bool deadlines; // lease, idle and session, of random lengths that do not end within the run
};

vek_event login_of(int number, crowd kind)
{
	vek_event event{};
	event.event = VEK_EVENT_USER_LOGIN;
	event.type = USER_TYPE;
	std::strcpy(event.service, SERVICE_NAME_HTTP_HTTPS);
	std::snprintf(event.username, sizeof(event.username), "user-%04d", kind.sharing ? 0 : number);
	std::strcpy(event.real_username, event.username);
	std::snprintf(event.unique, sizeof(event.unique), "web-%04d", number);
	event.ip = htonl(0x0a000001 + (kind.sharing ? 0U : static_cast<std::uint32_t>(number)));
	if (kind.deadlines) {
		std::minstd_rand random(static_cast<unsigned>(number) + 1);
		random.discard(10);
		const auto hours_from_one = [&] { return static_cast<int>(random() % 1000) + 1; };
		event.default_lease_time = 60 * hours_from_one();
		event.idle_timeout_form_acct_flag = 1;
		event.idle_timeout = 3600U * static_cast<unsigned>(hours_from_one());
		event.session_timeout = 3600U * static_cast<unsigned>(hours_from_one());
	}
	return event;
}

vek_event logout_of(vek_event event)
{
	event.event = VEK_EVENT_USER_LOGOUT;
	return event;
}

// Sessions that come and go beside those that stay.
struct visitors {
	explicit visitors(crowd kind)
	{
		for (int i = 0; i < VISITORS; i++) {
			logins.push_back(login_of(2 * TABLE + i, kind));
			logouts.push_back(logout_of(logins.back()));
		}
	}
	std::vector<vek_event> logins, logouts;
};

// ---- round trips, in nanoseconds ----

double report_trip(int fd, const vek_event &event)
{
	vek_response response;
	const double start = now_ns();
	exchange(fd, &event, sizeof(event), &response, sizeof(response));
	const double taken = now_ns() - start;
	if (response.code != VEK_RESPONSE_SUCCESS)
		fail("an event was refused");
	return taken;
}

struct visit {
	double login, logout, both; // medians
};

template <class Login, class Logout> visit timed_visits(Login &&login, Logout &&logout)
{
	std::vector<double> logins, logouts, both;
	for (int i = 0; i < VISITS; i++) {
		logins.push_back(login(i % VISITORS));
		logouts.push_back(logout(i % VISITORS));
		both.push_back(logins.back() + logouts.back());
	}
	return {median(logins), median(logouts), median(both)};
}

visit visits(int fd, const visitors &guests)
{
	const auto index = [](int i) { return static_cast<std::size_t>(i); };
	return timed_visits([&](int i) { return report_trip(fd, guests.logins[index(i)]); },
			    [&](int i) { return report_trip(fd, guests.logouts[index(i)]); });
}

// The median of some queries that are answered by this many records.
double queries(int fd, const vek_request &request, int records, int trips)
{
	static std::vector<char> answer(sizeof(vek_event) + VEK_MAX_USERS * sizeof(user_info));
	std::vector<double> taken;
	for (int i = 0; i < trips; i++) {
		const double start = now_ns();
		exchange(fd, &request, sizeof(request), answer.data(),
			 sizeof(vek_event) + static_cast<std::size_t>(records) * sizeof(user_info));
		taken.push_back(now_ns() - start);
		vek_event header;
		std::memcpy(&header, answer.data(), sizeof(header));
		if (header.count != records)
			fail("a query found others than those that are there");
	}
	return median(taken);
}

// ---- the table's size ----

// A daemon with a growing crowd, and what it measured: a curve in floor round trips and its growth in ns.
struct shape {
	const char *name;
	crowd kind;
	visitors guests{kind};
	std::unique_ptr<daemon_peer> peer = std::make_unique<daemon_peer>(measured_daemon());
	int sessions = 0;
	std::vector<double> relative{}, login{}, logout{}; // of the size being measured
	points curve{}, login_growth{}, logout_growth{};

	void grow(int size)
	{
		for (; sessions < size; sessions++)
			peer->report(login_of(sessions, kind));
		relative.clear();
		login.clear();
		logout.clear();
	}

	visit measure(double floor_trip)
	{
		const visit taken = visits(peer->notify(), guests);
		relative.push_back(taken.both / (2 * floor_trip));
		login.push_back(taken.login);
		logout.push_back(taken.logout);
		return taken;
	}

	void end_size()
	{
		curve.emplace_back(sessions, median(relative));
		login_growth.emplace_back(sessions, median(login));
		logout_growth.emplace_back(sessions, median(logout));
	}
};

vek_request request_of(vek_method method)
{
	vek_request request{};
	request.method = method;
	return request;
}

void measure_tables()
{
	const floor_peer floor(floor_peer::answering), writer(floor_peer::listing);
	const daemon_peer empty(measured_daemon());
	daemon_peer listed(measured_daemon(), daemon_peer::with_requests);
	shape different{"all keys different", {false, false}};
	shape sharing{"one name and address", {true, false}};
	shape deadlines{"different, three deadlines", {false, true}};
	shape both{"one name, three deadlines", {true, true}};
	shape *const shapes[] = {&different, &sharing, &deadlines, &both};

	const vek_request all = request_of(VEK_QUERY_ALL);
	vek_request by_name = request_of(VEK_QUERY_NAME), by_address = request_of(VEK_QUERY_FROM);
	const vek_event wanted = login_of(TABLE / 2, different.kind);
	std::strcpy(by_name.u.username, wanted.username);
	by_address.u.ip = wanted.ip;

	const key_value_peer store;
	std::vector<std::string> store_logins, store_logouts;
	for (const vek_event &login : different.guests.logins) {
		store_logins.push_back(key_value_peer::transaction(login));
		store_logouts.push_back(key_value_peer::transaction(logout_of(login)));
	}
	const auto commit = [&](const std::vector<std::string> &transactions) {
		return [&](int i) {
			const double start = now_ns();
			store.commit(transactions[static_cast<std::size_t>(i)]);
			return now_ns() - start;
		};
	};

	std::vector<double> login_floor, logout_floor, login_different, logout_different, login_sharing,
	    both_sharing, both_deadlines, both_both, query_all, name_query, address_query, key_value;
	points query_growth;
	int listed_sessions = 0;
	for (const int size : SIZES) {
		for (shape *one : shapes)
			one->grow(size);
		for (; listed_sessions < size; listed_sessions++)
			listed.report(login_of(listed_sessions, {false, false}));
		std::vector<double> query_times;
		for (int round = 0; round < (size == TABLE ? FIGURE_ROUNDS : CURVE_ROUNDS); round++) {
			const visit at_floor = visits(floor.fd(), different.guests);
			const visit at_empty = visits(empty.notify(), different.guests);
			login_floor.push_back(at_empty.login / at_floor.login);
			logout_floor.push_back(at_empty.logout / at_floor.logout);

			const double floor_trip = at_floor.both / 2;
			const visit at_different = different.measure(floor_trip);
			const visit at_sharing = sharing.measure(floor_trip);
			const visit at_deadlines = deadlines.measure(floor_trip);
			const visit at_both = both.measure(floor_trip);
			query_times.push_back(queries(listed.request(), all, size, 3));
			if (size != TABLE)
				continue;
			login_different.push_back(at_different.login / at_empty.login);
			logout_different.push_back(at_different.logout / at_empty.logout);
			login_sharing.push_back(at_sharing.login / at_empty.login);
			both_sharing.push_back(at_sharing.both / at_empty.both);
			both_deadlines.push_back(at_deadlines.both / at_empty.both);
			both_both.push_back(at_both.both / at_empty.both);

			vek_request written = all;
			written.method = size;
			query_all.push_back(query_times.back() / queries(writer.fd(), written, size, 3));
			name_query.push_back(queries(listed.request(), by_name, 1, VISITS) / at_floor.login);
			address_query.push_back(queries(listed.request(), by_address, 1, VISITS) /
						at_floor.login);
			if (store.running())
				key_value.push_back(
				    timed_visits(commit(store_logins), commit(store_logouts)).both /
				    at_empty.both);
		}
		for (shape *one : shapes)
			one->end_size();
		query_growth.emplace_back(size, median(query_times));
	}

	report.figures = {
	    {"login over the floor, empty table", "", 1.15, login_floor},
	    {"logout over the floor, empty table", "", 1.15, logout_floor},
	    {"login at 1000 sessions, all keys different, over empty", "", 1.10, login_different},
	    {"logout at 1000 sessions, all keys different, over empty", "", 1.10, logout_different},
	    {"login at 1000 that share name and address, over empty", "", 1.05, login_sharing},
	    {"login and logout among 1000 that share both, over empty", "", 2.0, both_sharing},
	    {"the same with three deadlines each, random order, over empty", "", 2.5, both_both},
	    {"login and logout among 1000 different with such deadlines, over empty", "", 2.5,
	     both_deadlines},
	    {"query of everything at 1000 over the floor writing as many", "", 1.05, query_all},
	    {"name query with one record over the floor's round trip", "", 1.25, name_query},
	    {"address query with one record over the floor's round trip", "", 1.25, address_query},
	};
	if (store.running())
		report.figures.push_back({"login and logout on the key-value server over the daemon's", "",
					  at_least(2.2), key_value});
	else
		std::puts("redis-server is not installed: not measured");

	report.growths = {
	    {"login, all keys different", "session", different.login_growth, VEK_MAX_USERS},
	    {"logout by all keys among sessions of one name and address", "session", sharing.logout_growth,
	     VEK_MAX_USERS},
	    {"login into three deadline lists, lengths in random order", "session", deadlines.login_growth,
	     VEK_MAX_USERS},
	    {"query of everything", "session", query_growth, VEK_MAX_USERS},
	};
	panel drawn{"A login and its logout",
		    "sessions in the table",
		    "in floor round trips, two being the floor",
		    {}};
	for (const shape *one : shapes) {
		points doubled = one->curve;
		for (auto &[x, y] : doubled)
			y *= 2;
		drawn.curves.emplace_back(one->name, doubled);
	}
	report.panels.push_back(drawn);
}

// ---- subscribers ----

void measure_subscribers()
{
	constexpr int MOST = SUBSCRIBERS[std::size(SUBSCRIBERS) - 1];
	const visitors guests({false, false});
	const floor_peer floor_alone(floor_peer::copying);
	const daemon_peer alone(measured_daemon()), followed(measured_daemon());
	std::vector<reader_peer> subscribers;
	std::vector<double> per_subscriber;
	points growth_of_login, daemon_curve, floor_curve;
	for (const int count : SUBSCRIBERS) {
		while (static_cast<int>(subscribers.size()) < count) {
			vek_client *client = vek_client_open_request(VEK_CLIENT_TIMEOUT_MS);
			if (client == nullptr || vek_client_subscribe(client) < 0)
				fail("a subscription");
			const int fd = dup(vek_client_fd(client));
			fcntl(fd, F_SETFL, 0);
			vek_client_close(client);
			subscribers.emplace_back(fd);
		}
		const floor_peer floor(floor_peer::copying, count);
		std::vector<double> logins, daemon_trips, floor_trips;
		for (int round = 0; round < (count == MOST ? FIGURE_ROUNDS / 2 : CURVE_ROUNDS); round++) {
			const double floor_none = visits(floor_alone.fd(), guests).login;
			const double none = visits(alone.notify(), guests).login;
			const double floor_all = visits(floor.fd(), guests).login;
			const double all = visits(followed.notify(), guests).login;
			logins.push_back(all);
			daemon_trips.push_back(all / floor_none);
			floor_trips.push_back(floor_all / floor_none);
			if (count == MOST)
				per_subscriber.push_back((all - none) / (floor_all - floor_none));
		}
		growth_of_login.emplace_back(count, median(logins));
		daemon_curve.emplace_back(count, median(daemon_trips));
		floor_curve.emplace_back(count, median(floor_trips));
	}
	report.figures.push_back({"login with 50 subscribers that read, each, over a bare write to a reader",
				  "", 1.1, per_subscriber});
	report.growths.push_back({"login that subscribers follow", "subscriber", growth_of_login, PLACES});
	report.panels.push_back({"A login that subscribers follow",
				 "subscribers",
				 "in floor round trips",
				 {{"the daemon", daemon_curve}, {"bare writes", floor_curve}}});
}

void measure_connections()
{
	const visitors guests({false, false});
	const daemon_peer crowded(measured_daemon());
	std::vector<vek_client *> silent;
	points curve;
	for (const int count : IDLE_CONNECTIONS) {
		while (static_cast<int>(silent.size()) < count) {
			silent.push_back(vek_client_open_request(VEK_CLIENT_TIMEOUT_MS));
			if (silent.back() == nullptr || vek_client_count(silent.back()) < 0)
				fail("one connection more");
		}
		std::vector<double> logins;
		for (int round = 0; round < CURVE_ROUNDS; round++)
			logins.push_back(visits(crowded.notify(), guests).login);
		curve.emplace_back(count, median(logins));
	}
	for (vek_client *client : silent)
		vek_client_close(client);
	report.growths.push_back({"login beside connections that say nothing", "connection", curve, PLACES});
}

// ---- time passing ----

// What one tick took, and how many sessions it left. The first answer may overtake the tick, the second does
// not.
struct tick {
	double taken;
	int sessions;
};

tick one_tick(const daemon_peer &peer)
{
	struct {
		vek_event header;
		std::int32_t count;
	} answer;
	const vek_request request = request_of(VEK_QUERY_TOTAL_USER_NUM);
	usleep(200); // until the daemon sleeps in select
	const double start = now_ns();
	kill(peer.pid(), SIGALRM);
	exchange(peer.request(), &request, sizeof(request), &answer, sizeof(answer));
	exchange(peer.request(), &request, sizeof(request), &answer, sizeof(answer));
	return {now_ns() - start, answer.count};
}

void measure_expiry()
{
	const daemon_peer peer(measured_daemon(), daemon_peer::with_requests);
	std::vector<double> per_login, quiet_ticks, whole_ticks, resident;
	for (int round = 0; round < 30; round++) {
		std::vector<double> logins;
		for (int i = 0; i < VEK_MAX_USERS; i++) {
			vek_event login = login_of(i, {false, false});
			login.session_timeout = 4; // ticks
			logins.push_back(report_trip(peer.notify(), login));
		}
		resident.push_back(static_cast<double>(peer.status("VmRSS")) / 1024);
		for (int before = VEK_MAX_USERS; before > 0;) {
			const tick passed = one_tick(peer);
			if (passed.sessions == before)
				quiet_ticks.push_back(passed.taken);
			else if (before == VEK_MAX_USERS && passed.sessions == 0) {
				const double expiry = passed.taken - median(quiet_ticks);
				whole_ticks.push_back(passed.taken);
				per_login.push_back(expiry / VEK_MAX_USERS / median(logins));
			} // otherwise a second went by among the logins, and they end in two ticks
			before = passed.sessions;
		}
	}
	report.figures.push_back(
	    {"one tick expiring 1034 sessions, per session, over a login", "", 1.0, per_login});
	report.figures.push_back({"resident memory, full table", "MiB", 4, {quantile(resident, 1)}});
	report.growths.push_back({"tick at which all sessions expire",
				  "session",
				  {{0, median(quiet_ticks)}, {VEK_MAX_USERS, median(whole_ticks)}},
				  VEK_MAX_USERS});
}

class idle_watch {
public:
	void finish()
	{
		constexpr double LONG_ENOUGH_NS = 10e9;
		const double left = LONG_ENOUGH_NS - (now_ns() - start_);
		if (left > 0)
			usleep(static_cast<useconds_t>(left / 1000));
		const double seconds = (now_ns() - start_) / 1e9;
		report.figures.push_back({"idle: context switches a second",
					  "",
					  3,
					  {static_cast<double>(switches() - before_) / seconds}});
	}

private:
	long switches() const
	{
		return peer_.status("voluntary_ctxt_switches") + peer_.status("nonvoluntary_ctxt_switches");
	}
	daemon_peer peer_{measured_daemon()};
	double start_ = now_ns();
	long before_ = switches();
};

// ---- what it takes up ----

void measure_allocations()
{
	constexpr int NODES = 2; // of a new name and a new address
	std::ofstream(COUNTER) << std::string(sizeof(unsigned long), '\0');
	const int fd = open(COUNTER, O_RDONLY | O_CLOEXEC);
	void *shared = mmap(nullptr, sizeof(unsigned long), PROT_READ, MAP_SHARED, fd, 0);
	if (shared == MAP_FAILED)
		fail(COUNTER);
	close(fd);
	const auto *counter = static_cast<const std::atomic<unsigned long> *>(shared);

	const daemon_peer peer(measured_daemon(), daemon_peer::with_requests,
			       own_directory() + "libcount_allocations.so", COUNTER);
	if (counter->load() == 0)
		fail("allocations are not counted");
	const visitors strangers({false, true}), known({true, true});
	report_trip(peer.notify(), login_of(0, {true, true})); // who stays, so that `known` are known
	const auto everything = [&] {
		visits(peer.notify(), strangers);
		visits(peer.notify(), known);
		for (vek_method method : {VEK_QUERY_ALL, VEK_QUERY_NAME, VEK_QUERY_FROM}) {
			vek_request request = request_of(method);
			if (method == VEK_QUERY_NAME)
				std::strcpy(request.u.username, known.logins[0].username);
			if (method == VEK_QUERY_FROM)
				request.u.ip = known.logins[0].ip;
			queries(peer.request(), request, 1, 10);
		}
		for (int i = 0; i < 22; i++)
			one_tick(peer);
	};
	everything();
	const unsigned long before = counter->load();
	everything();
	const double all = static_cast<double>(counter->load() - before);
	munmap(shared, sizeof(unsigned long));
	report.figures.push_back(
	    {"allocations of 512 events, 30 queries and 22 ticks beyond the tables' nodes for new keys",
	     "",
	     0,
	     {all - NODES * VISITS}});
}

void measure_starts()
{
	std::vector<double> starts;
	for (int i = 0; i < 15; i++)
		starts.push_back(daemon_peer(measured_daemon()).start_ms());
	report.figures.push_back({"a start to both sockets answering", "ms", 20, starts});
}

void measure_size()
{
	const std::string command = "strip -o /tmp/bench-stripped " + own_directory() + "../vekd";
	struct stat stripped;
	if (std::system(command.c_str()) != 0 || stat("/tmp/bench-stripped", &stripped) < 0)
		fail(command);
	report.figures.push_back(
	    {"the daemon as shipped, stripped", "KiB", 250, {static_cast<double>(stripped.st_size) / 1024}});
}

std::string where(const std::string &priority)
{
	std::string processor = "unknown processor";
	std::ifstream file("/proc/cpuinfo");
	for (std::string line; std::getline(file, line);)
		if (line.starts_with("model name")) {
			processor = line.substr(line.find(':') + 2);
			break;
		}
	utsname system;
	uname(&system);
	return "Measured on one core of " + processor + ", Linux " + system.release + ", all processes at " +
	       priority + ".\n";
}

} // namespace

int main(int argc, char **argv)
{
	std::string plot, tables;
	for (int i = 1; i < argc; i += 2) {
		const std::string option = argv[i];
		std::string *value = option == "--plot" ? &plot : option == "--tables" ? &tables : nullptr;
		if (value == nullptr || i + 1 == argc) {
			std::fprintf(stderr, "usage: %s [--plot FILE.svg] [--tables DIRECTORY]\n", argv[0]);
			return 2;
		}
		*value = argv[i + 1];
	}
	const std::string context = where(share_one_core());

	idle_watch idle;
	measure_tables();
	measure_subscribers();
	measure_connections();
	measure_expiry();
	measure_starts();
	measure_size();
	measure_allocations();
	idle.finish();

	const std::string figures = context + "\n" + figures_table(report.figures);
	const std::string growths = growth_table(report.growths);
	std::printf("%s\n%s", figures.c_str(), growths.c_str());
	if ((!tables.empty() &&
	     (!write_file(tables + "/road.md", figures) || !write_file(tables + "/growth.md", growths))) ||
	    (!plot.empty() && !write_file(plot, plot_svg(report.panels))))
		fail("what was measured cannot be written");
	return 0;
}
