// lockout.cpp: who may not try another password for now. Attempts are counted by address, those without one
// together. The address is locked out when they reach the limit; without an address it is the user of the
// last of them. The daemon forgets both in time; here too what is past its time does not count, for the
// daemon may not be there.
#include "lockout.h"

#include <fcntl.h>
#include <security/pam_ext.h>
#include <syslog.h>

#include <cstdlib>
#include <cstring>

#include "shared.h"

namespace {

constexpr std::uint64_t ATTEMPT_LIFE = 59; // seconds, as the daemon has it

// Whole seconds of the clock that the table's times are of.
std::uint64_t uptime()
{
	char text[64] = {};
	const int fd = open("/proc/uptime", O_RDONLY | O_CLOEXEC);
	const ssize_t length = fd < 0 ? -1 : read(fd, text, sizeof(text) - 1);
	if (fd >= 0)
		close(fd);
	if (length > 0)
		return std::strtoull(text, nullptr, 10);
	struct timespec now = {};
	clock_gettime(CLOCK_BOOTTIME, &now);
	return static_cast<std::uint64_t>(now.tv_sec);
}

template <class record> bool is_from(const record &entry, const client_name &client)
{
	return entry.ip == client.ip && IN6_ARE_ADDR_EQUAL(&entry.ip6, &client.ip6);
}

bool has_address(const client_name &client)
{
	return client.ip != 0 || !IN6_IS_ADDR_UNSPECIFIED(&client.ip6);
}

bool counts(const lockout_record &entry, std::uint64_t now) { return entry.inuse && entry.time > now; }

// Unsigned, so that a time in the future counts as old.
bool counts(const attempt_record &entry, std::uint64_t now)
{
	return entry.inuse && now - entry.time <= ATTEMPT_LIFE;
}

// An entry with an address means everybody there, one without the user of its name.
bool locks_out(const lockout_record &entry, const client_name &client)
{
	const client_name nowhere = {client.user, 0, in6addr_any};
	return is_from(entry, nowhere)
		   ? std::strncmp(entry.username, client.user, sizeof(entry.username) - 1) == 0
		   : is_from(entry, client);
}

// Of the wanted kind, else one that no longer counts, else the one whose time comes first.
template <std::size_t N, class record, class Wanted>
record *place_for(record (&entries)[N], std::uint64_t now, Wanted wanted)
{
	record *place = entries;
	for (record &entry : entries) {
		if (entry.inuse && wanted(entry))
			return &entry;
		if (counts(*place, now) && (!counts(entry, now) || entry.time < place->time))
			place = &entry;
	}
	return place;
}

class table {
public:
	explicit table(pam_handle_t *pamh, const pam_options *options)
	    : block_(USER_LOCK_IPC_KEY, false), lock_(USER_LOCK_IPC_KEY, false)
	{
		if (!block_ && errno == ENOENT) {
			if (is_isolated()) // else there is no daemon, and nothing to say
				pam_syslog(
				    pamh, LOG_WARNING,
				    "this service has System V objects of its own, so nobody is locked out");
			return;
		}
		if (!block_ || !lock_) {
			pam_syslog(pamh, LOG_WARNING, "%s cannot be used, so nobody is locked out: %s",
				   block_ ? "the lockout table's lock" : "the lockout table",
				   std::strerror(errno));
			return;
		}
		if (options != nullptr && options->attempts > 0) {
			block_->attempt_count = static_cast<char>(options->attempts);
			block_->enable = 1;
		}
		if (options != nullptr && options->period > 0)
			block_->lockout_period = static_cast<std::uint32_t>(options->period);
		usable_ = block_->enable != 0;
	}
	explicit operator bool() const { return usable_; }
	user_lock *operator->() const { return &*block_; }

private:
	shared_block<user_lock> block_;
	held_lock lock_;
	bool usable_ = false;
};

} // namespace

bool is_locked_out(pam_handle_t *pamh, const pam_options &options, const client_name &client)
{
	const table held(pamh, &options);
	if (!held)
		return false;
	const std::uint64_t now = uptime();
	for (const lockout_record &entry : held->lockout_rec)
		if (counts(entry, now) && locks_out(entry, client))
			return true;
	return false;
}

void count_failure(pam_handle_t *pamh, const pam_options &options, const client_name &client)
{
	std::uint32_t period = 0;
	{
		const table held(pamh, &options);
		if (!held)
			return;
		const std::uint64_t now = uptime();
		attempt_record *attempts =
		    place_for(held->attempt_rec, now, [&](auto &entry) { return is_from(entry, client); });
		const unsigned before =
		    is_from(*attempts, client) && counts(*attempts, now) ? attempts->count : 0;
		const auto limit = static_cast<unsigned char>(held->attempt_count);
		if (before + 1 < limit) {
			*attempts = {client.ip, client.ip6, now, static_cast<std::uint16_t>(before + 1), 1};
			return;
		}
		std::memset(attempts, 0, sizeof(*attempts));
		lockout_record *lockout = place_for(held->lockout_rec, now, [&](auto &entry) {
			return is_from(entry, client) && locks_out(entry, client);
		});
		period = held->lockout_period;
		*lockout = {client.ip, client.ip6, now + period, {}, 1};
		copy_text(lockout->username, client.user);
	}
	pam_syslog(pamh, LOG_NOTICE, "too many failed attempts: %s locked out for %u seconds (user=%s)",
		   has_address(client) ? "the address is" : "the user is", period, client.user);
}

void forget_failures(pam_handle_t *pamh, const client_name &client)
{
	const table held(pamh, nullptr);
	if (!held)
		return;
	for (attempt_record &entry : held->attempt_rec)
		if (entry.inuse && is_from(entry, client))
			std::memset(&entry, 0, sizeof(entry));
}
