// core.h: the daemon's core running inside a test: bus, user database, listener, responder and logger over
// the recording platform, in virtual time; and events, connections and addresses to drive it with. The
// terminator and the lockout table stay out: a test that wants them starts them.
#ifndef CORE_H
#define CORE_H

#include <string>
#include <thread>
#include <vector>

#include "daemon.h"
#include "endpoint.h"
#include "fake_platform.h"
#include "invariants.h"
#include "userdb.h"
#include "vek_event.h"

// One start and stop of the modules. Only one at a time.
struct core {
	core();
	~core();
	core(const core &) = delete;
	core &operator=(const core &) = delete;
};

// Logins, logouts, time-outs and tunnel events as the last handler of their chain saw them.
extern std::vector<vek_event> announced;

struct keys {
	const char *service = "";
	const char *user = "";
	const char *unique = "";
	std::uint32_t ip = 0;
};
// Both names are the user's. type is USER_TYPE.
vek_event make_event(int number, const keys &keys = {});
int dispatch(vek_event event, vek_socket *sock = nullptr);
int dispatch(int number, const keys &keys = {}, vek_socket *sock = nullptr);
void set_ip6(vek_event &event, const char *address); // and the flag that says so
std::uint32_t ip4(const char *address);
in6_addr ip6(const char *address);

// Newest login first, "user@service#unique" each, blanks between.
std::string sessions();
// The session of that unique key; null when there is none.
user_info *session_of(const char *unique);

// A client's connection, of which both ends are here.
class connection {
public:
	connection();
	~connection();
	vek_socket *sock() { return &sock_; }
	// Around a dispatch that writes `size` bytes here, which may be more than the kernel holds.
	void expect(std::size_t size);
	std::string take(); // all that was written

private:
	vek_socket sock_{};
	int peer_ = -1;
	std::string got_;
	std::thread reader_;
};

// The record with what follows its texts' ends, and its padding, zero: what two equal records share.
vek_event plain(const vek_event &event);

#endif
