// answers.cpp: what a client makes of a daemon's answers, whoever that daemon is: the client library reads them,
// vekctl shows them. The first byte chooses the call; the rest is all that the peer ever says, half of it on each
// connection where there are two.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "fields.h"
#include "target.h"
#include "vek_client.h"

namespace {

std::vector<bytes> to_say; // by connection, the last one first
std::vector<int> peers;

void require(bool holds, const char *rule)
{
	if (!holds)
		broken(rule);
}

void show(std::span<const vek_field> fields, const void *record)
{
	for (const vek_field &field : fields) {
		if (field.kind == field_kind::text)
			require(text_of(field, record).size() < field.size, "a text without an end");
		for (const unsigned char c : display(field, record, 5000))
			require(c >= ' ' && c != 0x7f, "a control character on the terminal");
	}
	const std::string text = json_text(record_json(fields, record));
	for (const unsigned char c : text)
		require(c >= ' ' && c < 0x7f, "JSON that is not plain text");
	require(json::parse(text, nullptr, false).size() == fields.size(), "JSON that is none");
}

int show_session(const user_info *session, void *)
{
	show(user_info_fields, session);
	return 0;
}

void call(int number, vek_client *request)
{
	user_info sessions[4];
	vek_event event;
	const in6_addr ip6{};
	int found = 0;
	switch (number) {
	case 0: found = vek_client_query_all(request, show_session, nullptr); break;
	case 1: found = vek_client_query_name(request, "alice", show_session, nullptr); break;
	case 2: found = vek_client_query_ip(request, 7, show_session, nullptr); break;
	case 3: found = vek_client_query_ip6_first(request, &ip6, show_session, nullptr); break;
	case 4:
		found = vek_client_fetch_all(request, sessions, std::size(sessions));
		for (int i = 0; i < std::min(found, 4); i++)
			show_session(&sessions[i], nullptr);
		break;
	case 5:
		vek_client_count(request);
		vek_client_count(request); // what is left of a failed one is no answer
		break;
	case 6:
		if (vek_client_subscribe(request) == 0)
			while (vek_client_next(request, &event) == 1)
				show(vek_event_fields, &event);
		break;
	case 7: vek_client_end_service("ssh", 1000); break;
	default: break;
	}
	require(found >= -1 && found <= VEK_MAX_USERS, "more sessions than there can be");
}

} // namespace

// Every connection is to a peer that has said its part already and says no more.
extern "C" int __wrap_connect(int fd, const sockaddr *, socklen_t)
{
	int ends[2];
	if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) < 0)
		return -1;
	if (!to_say.empty()) {
		send(ends[1], to_say.back().data(), to_say.back().size(), MSG_DONTWAIT);
		to_say.pop_back();
	}
	shutdown(ends[1], SHUT_WR);
	peers.push_back(ends[1]);
	dup3(ends[0], fd, O_CLOEXEC);
	return close(ends[0]);
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	if (size == 0)
		return 0;
	const int number = *data % 9;
	const bytes all{data + 1, size - 1};
	if (number == 7)
		to_say = {all.subspan(all.size() / 2), all.first(all.size() / 2)};
	else
		to_say = {all};

	if (number == 8) {
		vek_client *notify = vek_client_open_notify(1000);
		vek_event event{};
		event.event = VEK_EVENT_USER_LOGIN;
		while (const int code = vek_client_report(notify, &event) + 1)
			require(code == VEK_RESPONSE_SUCCESS + 1 || code == VEK_RESPONSE_FAIL + 1, "a code that is none");
		vek_client_close(notify);
	} else {
		vek_client *request = number == 7 ? nullptr : vek_client_open_request(1000);
		call(number, request);
		vek_client_close(request);
	}
	for (const int peer : peers)
		close(peer);
	peers.clear();
	return 0;
}
