// core.h: the daemon's core running inside a test: bus, user database, listener, responder and logger over
// the recording platform, in virtual time; and events, connections and addresses to drive it with. The
// terminator and the lockout table stay out: a test that wants them starts them.
#ifndef CORE_H
#define CORE_H

#include <string>
#include <vector>

#include "daemon.h"
#include "deferred_logout.h"
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

void end_all(); // sessions and parked logouts, without a word

// The daemon's clock of its waits: it stands still but for the waits that clients let pass.
extern std::int64_t clock_ms;

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

// A client of user 1, whose connection the daemon has accepted.
class client {
public:
	explicit client(std::uint8_t type = VEK_SOCKTYPE_REQUEST);
	client(const client &) = delete;
	~client();                // hangs up, which the daemon sees
	vek_socket *sock() const; // the daemon's side, which is its own; null once it has closed it
	void say(const void *data, std::size_t size); // lets the daemon read until nothing is left
	std::string take();                           // all that the daemon wrote since the last time
	bool receive();                               // some of it; whether there was any

	bool reads = true; // otherwise it receives nothing, also while the daemon waits for it

private:
	void serve();

	int fd_;
	std::string got_;
};

// The record with what follows its texts' ends, and its padding, zero: what two equal records share.
vek_event plain(const vek_event &event);

#endif
