// host.h: the stand-in for a device's platform libraries, which runs on any Linux box: the settings it reads
// from its configuration file and the system log it writes to. Inside platform/host, and for tests; the
// daemon sees only the platform headers. Single-threaded, as the daemon is.
#ifndef HOST_H
#define HOST_H

#include <array>
#include <cstddef>
#include <cstdint>

#include "user_profile.h"

constexpr const char *HOST_CONFIG_FILE = "/etc/vekd/platform.conf";
constexpr std::size_t HOST_MAX_FILE = 32768; // bytes that are read of the configuration
constexpr std::size_t HOST_MAX_LINE = 255;
constexpr int HOST_MAX_ACCOUNTS = 64;
constexpr std::size_t HOST_MAC_SIZE = sizeof "aa:bb:cc:dd:ee:ff";

// The rights of a user type or account: what the configuration calls each, its field and its largest value.
struct host_right {
	const char *name;
	std::int32_t user_profile_t::*field;
	std::int32_t limit;
};
inline constexpr host_right host_rights[] = {
    {"access", &user_profile_t::access, INT32_MAX},
    {"visibility", &user_profile_t::visibility, INT32_MAX},
    {"lease_time", &user_profile_t::lease_time, INT32_MAX},
    {"reauth_time", &user_profile_t::reauth_time, INT32_MAX},
    {"remote_admin", &user_profile_t::remote_admin, 1},
    {"remote_access", &user_profile_t::remote_access, 1},
};
using host_values = std::array<std::int32_t, std::size(host_rights)>;

constexpr std::int32_t HOST_NOT_GIVEN = -1; // an account's right that is its type's

struct host_account {
	char name[VEK_USERNAME_LEN];
	host_values values;
};

struct host_config {
	int mode;                // enum whopmode
	char mac[HOST_MAC_SIZE]; // empty: the first real interface's
	host_values types[EXT_GROUP_TYPE + 1];
	int account_count;
	host_account accounts[HOST_MAX_ACCOUNTS];
};

// Told of each line that cannot be read; lines count from 1. `what` is constant text.
using host_complaint = void(void *arg, int line, const char *what);

// The settings that a configuration of this text gives. What it does not say, or says in a line that cannot
// be read, is as without a file.
void vek_platform_parse(const char *text, std::size_t length, host_config *out, host_complaint *complain,
                        void *arg);

// Six two-digit hexadecimal numbers, colons between them.
bool host_is_mac(const char *text, std::size_t length);

// Reads another file from now on; the text must stay.
void vek_platform_use_file(const char *path);

// One line to the system log at a syslog priority, made printable. Waits at most a tenth of a second in any
// one second: a line that the log does not take is counted, and their number is said before the next that it
// takes.
void host_log(int priority, const char *text);

#endif
