// daemon.h: the process: its clock and flags, shared with the modules.
#ifndef DAEMON_H
#define DAEMON_H

#include <csignal>
#include <cstdint>

extern int debug;                        // number of -d options
extern std::uint64_t seconds_since_boot; // cached uptime, the clock of every session deadline
extern volatile std::sig_atomic_t vek_need_exit, vek_do_timer, vek_config_change;

// A tool or a lock of the device that took its whole limit of time is not waited for again for a while: what
// needs it may happen many times at once.
class vek_backoff {
public:
	static constexpr std::uint64_t SECONDS = 10;
	bool active() const { return seconds_since_boot < until_; }
	void start() { until_ = seconds_since_boot + SECONDS; }

private:
	std::uint64_t until_ = 0;
};

// The whole life of the daemon; what main returns.
int vekd_main(int argc, char **argv);

// Advances the clock by a tick, re-reading the uptime on every 181st call, the first included.
void vek_update_timer();

// One tick: the clock, the second event, and on every eleventh call the ten-second event.
void vek_tick();

#endif
