// fairness.cpp: see fairness.h. Every limit that depends on who a client is stands in the table below, and every
// budget of a pass is renewed in fairness_begin_pass.
#include "fairness.h"

#include <algorithm>

#include "child.h"
#include "misc.h"
#include "stream.h"

namespace {

// ---- the two classes ----

struct limits {
	int deep_buffers;      // on loan at a time, 2.5 MiB of kernel memory each
	int subscriptions;     // in all
	int share_of_patience; // a client is waited for no longer than one in so many parts of what the pass has left
	std::int64_t tools_ms; // that tools may have taken in a pass before what a report asks for is deferred
};
constexpr limits PRIVILEGED{32, 256, 1, 250}, UNPRIVILEGED{8, 128, 2, 20};

constexpr std::int64_t PATIENCE_MS = 500;     // of a pass, for all clients
constexpr std::int64_t READING_MS = 20;       // enough for a client that is reading at this moment
constexpr std::int64_t TURN_MS = 100;         // of deferred work, until the next client is looked at
constexpr std::int64_t REST_PER_TOOL_TIME = 3; // so that tools take a quarter of the time when others want it
constexpr std::int64_t LONGEST_REST_MS = 300; // a tool that hung is left alone for longer anyway
constexpr std::int64_t HOLD_MS = 40;          // reports, before the subscriber that is behind is looked at again
constexpr std::int64_t STALLED_MS = 250;      // a subscriber that has read nothing for so long holds nobody

const limits &limits_of(const vek_socket *sock)
{
	return fairness_is_privileged(sock) ? PRIVILEGED : UNPRIVILEGED;
}

bool same_class(const vek_socket *a, const vek_socket *b)
{
	return fairness_is_privileged(a) == fairness_is_privileged(b);
}

// ---- the budgets ----

std::int64_t patience_left_ms = PATIENCE_MS;
std::int64_t tools_at_pass_ms, tools_at_turn_ms; // what tools had taken when the pass, the turn began
std::int64_t tools_rest_until_ms;
std::int64_t hold_until_ms;
std::uint64_t stamp;

std::int64_t tools_in_pass_ms() { return vek_children_took_ms() - tools_at_pass_ms; }

// A loan whose client has read nearly everything is over.
bool reclaim_loan(const vek_socket *borrower)
{
	bool any = false;
	for (vek_socket *sock : vek_socket_list)
		if (sock->deep && same_class(sock, borrower) && stream_is_read(sock)) {
			fairness_return_buffer(sock);
			any = true;
		}
	return any;
}

int count_loans(const vek_socket *borrower)
{
	int loans = 0;
	for (const vek_socket *sock : vek_socket_list)
		loans += sock->deep && same_class(sock, borrower);
	return loans;
}

bool somebody_waits_for_loan_of(const vek_socket *borrower)
{
	for (const vek_socket *sock : vek_socket_list)
		if (sock->waits == vek_waits::for_a_buffer && same_class(sock, borrower))
			return true;
	return false;
}

int connections_of(uid_t user)
{
	int count = 0;
	for (const vek_socket *sock : vek_socket_list)
		count += sock->uid == user;
	return count;
}

} // namespace

void fairness_begin_pass()
{
	patience_left_ms = PATIENCE_MS;
	const std::int64_t tools_ms = vek_children_took_ms();
	if (tools_ms > tools_at_pass_ms)
		tools_rest_until_ms = monotonic_ms() + std::min(LONGEST_REST_MS,
								(tools_ms - tools_at_pass_ms) * REST_PER_TOOL_TIME);
	tools_at_pass_ms = tools_ms;
}

std::uint64_t fairness_stamp() { return ++stamp; }

bool fairness_is_privileged(const vek_socket *sock) { return sock == nullptr || sock->uid == 0; }

bool fairness_lend_buffer(vek_socket *sock)
{
	if (count_loans(sock) >= limits_of(sock).deep_buffers && !reclaim_loan(sock))
		return false;
	sock->unread_before = 0;
	stream_set_depth(sock, true);
	sock->deep = true;
	return true;
}

void fairness_return_buffer(vek_socket *sock)
{
	if (!sock->deep)
		return;
	sock->deep = false;
	stream_set_depth(sock, false);
}

void fairness_end_stalled_loans()
{
	for (vek_socket *sock : vek_socket_list) {
		if (!sock->deep)
			continue;
		const bool is_read = stream_is_read(sock);
		if (!is_read && sock->unread == sock->unread_before && somebody_waits_for_loan_of(sock))
			stream_shut_down(sock, "did not read what it asked for");
		sock->unread_before = sock->unread;
	}
}

std::int64_t fairness_patience_ms(const vek_socket *sock)
{
	const std::int64_t share_ms = patience_left_ms / limits_of(sock).share_of_patience;
	if (!stream_gives_deep_buffers())
		return share_ms;
	// A client that has filled a deep buffer has had its chance, and so has one for which there was none.
	return std::min(share_ms, READING_MS);
}

void fairness_waited(std::int64_t ms) { patience_left_ms = std::max<std::int64_t>(0, patience_left_ms - ms); }

bool fairness_may_subscribe(const vek_socket *sock)
{
	int total = 0;
	vek_socket *most = nullptr;
	for (vek_socket *other : vek_socket_list) {
		if (other->shut_down || !same_class(other, sock))
			continue;
		total += other->subscriptions;
		if (most == nullptr || other->subscriptions > most->subscriptions)
			most = other;
	}
	if (total < limits_of(sock).subscriptions)
		return true;
	if (most == nullptr || most->subscriptions <= sock->subscriptions + 1)
		return false;
	stream_shut_down(most, "has the most subscriptions, and there are too many");
	return true;
}

void fairness_note_behind(vek_socket *sock, bool is_behind)
{
	if (!fairness_is_privileged(sock))
		return;
	// It has read, however much has come since.
	if (!is_behind || sock->unread < sock->unread_before)
		sock->progress_ms = 0;
	sock->unread_before = sock->unread;
	if (!is_behind)
		return;
	const std::int64_t now = monotonic_ms();
	if (sock->progress_ms == 0)
		sock->progress_ms = now;
	if (now - sock->progress_ms < STALLED_MS)
		hold_until_ms = now + HOLD_MS;
}

bool fairness_holds_report(const vek_socket *sock)
{
	return !fairness_is_privileged(sock) &&
	       (fairness_hold_left_ms() > 0 || fairness_holds_tools(sock));
}

bool fairness_holds_tools(const vek_socket *sock)
{
	return !fairness_is_privileged(sock) && tools_in_pass_ms() >= UNPRIVILEGED.tools_ms;
}

std::int64_t fairness_hold_left_ms()
{
	if (hold_until_ms == 0)
		return 0;
	const std::int64_t left = hold_until_ms - monotonic_ms();
	if (left <= 0)
		hold_until_ms = 0;
	return std::max<std::int64_t>(0, left);
}

bool fairness_allows_tools(const vek_socket *sock)
{
	if (tools_in_pass_ms() >= limits_of(sock).tools_ms)
		return false;
	return fairness_is_privileged(sock) || monotonic_ms() >= tools_rest_until_ms;
}

bool fairness_may_take_turn(bool idle)
{
	fairness_turn_starts();
	return idle || monotonic_ms() >= tools_rest_until_ms;
}

void fairness_turn_starts() { tools_at_turn_ms = vek_children_took_ms(); }

bool fairness_turn_is_over() { return vek_children_took_ms() - tools_at_turn_ms >= TURN_MS; }

vek_socket *fairness_to_displace(const vek_socket *newcomer)
{
	vek_socket *chosen = nullptr;
	int chosen_crowd = 0;
	for (vek_socket *sock : vek_socket_list) {
		if (fairness_is_privileged(sock))
			continue;
		const int crowd = connections_of(sock->uid);
		const bool better =
		    chosen == nullptr || (crowd != chosen_crowd ? crowd > chosen_crowd
					  : (sock->subscriptions == 0) != (chosen->subscriptions == 0)
					      ? sock->subscriptions == 0
					      : sock->activity < chosen->activity);
		if (better) {
			chosen = sock;
			chosen_crowd = crowd;
		}
	}
	const bool is_less = fairness_is_privileged(newcomer) || connections_of(newcomer->uid) + 1 < chosen_crowd;
	return is_less ? chosen : nullptr;
}
