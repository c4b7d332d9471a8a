// answers.cpp: what a client makes of a daemon's answers, whoever that daemon is: the client library reads
// them, vekctl shows them. The first byte chooses the call; the rest is all that the peer ever says, half of
// it on each connection where there are two.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>
#include <vector>

#include "target.h"
#include "vek_client.h"
#include "view.h"

namespace {

std::vector<int> peers;
bytes to_say[2]; // of the first peer, and of the second

void show(std::span<const vek_field> fields, const void *record)
{
	for (const vek_field &field : fields) {
		if (field.kind == field_kind::text)
			require(text_of(field, record).size() < field.size, "a text without an end");
		for (const unsigned char c : display(field, record, {5000, 0, false}))
			require(c >= ' ' && c != 0x7f, "a control character on the terminal");
	}
	const std::string text = json_text(record_json(fields, record));
	for (const unsigned char c : text)
		require(c >= ' ' && c < 0x7f, "JSON that is not plain text");
	require(json::parse(text, nullptr, false).size() == fields.size() + 1,
		"JSON that is none, or lacks the type's name");
}

} // namespace

// Every connection is to a peer that has said its part already and says no more.
extern "C" int __wrap_connect(int fd, const sockaddr *, socklen_t)
{
	int ends[2];
	require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "no socket");
	const bytes said = to_say[peers.size()];
	send(ends[1], said.data(), said.size(), MSG_DONTWAIT);
	shutdown(ends[1], SHUT_WR);
	peers.push_back(ends[1]);
	dup3(ends[0], fd, O_CLOEXEC);
	return close(ends[0]);
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	if (size == 0)
		return 0;
	const int number = *data % 10;
	const bytes all{data + 1, size - 1};
	to_say[0] = all.first(number == 7 ? all.size() / 2 : all.size());
	to_say[1] = all.subspan(to_say[0].size());

	user_info room[4];
	vek_event event{};
	event.event = VEK_EVENT_USER_LOGIN;
	const auto each = [](const user_info *session, void *) {
		show(user_info_fields, session);
		require(!describe(*session).empty(), "nobody");
		return 0;
	};
	vek_client *client = nullptr;
	if (number != 7)
		client = (number >= 8 ? vek_client_open_notify : vek_client_open_request)(1000);
	int found = 0;
	switch (number) {
	default: found = vek_client_query_all(client, each, nullptr); break;
	case 3: found = vek_client_query_ip6_first(client, &in6addr_any, each, nullptr); break;
	case 4: found = vek_client_fetch_all(client, room, std::size(room)); break;
	case 5: vek_client_count(client); break;
	case 6:
		if (vek_client_subscribe(client) == 0)
			while (vek_client_next(client, &event) == 1)
				show(vek_event_fields, &event), event_text(event);
		break;
	case 7: found = vek_client_end_service("ssh", 1000); break;
	case 8: found = vek_client_report_raw(client, &event); break;
	case 9: found = vek_client_send(client, &event) == 0 ? vek_client_answer(client) : 0; break;
	}
	require(found >= -1 && found <= VEK_MAX_USERS, "an answer that cannot be");
	vek_client_close(client);
	for (const int peer : std::exchange(peers, {}))
		close(peer);
	return 0;
}
