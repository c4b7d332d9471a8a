// ftp.cpp: the table is made by whoever serves ftp first. It holds 49 clients that the daemon looks at; the
// one after those is served, but outlives the end of its session.
#include "ftp.h"

#include <arpa/inet.h>
#include <security/pam_ext.h>
#include <signal.h>
#include <syslog.h>

#include <cstring>

#include "shared.h"

namespace {

constexpr std::uint64_t MOST_CLIENTS = DEFAULT_MAX_USERS - 1;

using entry = ClientTerminateInformation;

// As the daemon writes the address that it looks for; one of IPv6 has none there.
entry entry_of(const vek_event &login, int pid)
{
	entry made = {};
	made.pid = pid;
	copy_text(made.username, login.real_username);
	inet_ntop(AF_INET, &login.ip, made.ipaddr, sizeof(made.ipaddr));
	return made;
}

bool is_entry(const entry &a, const entry &b)
{
	return a.pid == b.pid && std::strncmp(a.username, b.username, sizeof(a.username)) == 0 &&
	       std::strncmp(a.ipaddr, b.ipaddr, sizeof(a.ipaddr)) == 0;
}

class clients {
public:
	clients(pam_handle_t *pamh, bool create)
	    : lock_(PUREFTP_IPC_KEY, create), block_(PUREFTP_IPC_SHM_KEY, create)
	{
		if ((!lock_ || !block_) && (create || errno != ENOENT))
			pam_syslog(pamh, LOG_WARNING, "the table of ftp clients cannot be used: %s",
				   std::strerror(errno));
		if (lock_ && block_ && block_->size > MOST_CLIENTS)
			block_->size = 0; // nobody's, or nobody looks at it
	}
	explicit operator bool() const { return lock_ && block_; }
	int size() const { return static_cast<int>(block_->size); }
	entry &operator[](int place) const { return block_->list[place]; }

	int find(const entry &wanted) const
	{
		for (int i = 0; i < size(); i++)
			if (is_entry((*this)[i], wanted))
				return i;
		return -1;
	}
	void remove(int place) const
	{
		std::memmove(&(*this)[place], &(*this)[place + 1],
			     static_cast<std::size_t>(size() - 1 - place) * sizeof(entry));
		block_->size--;
	}
	void append(const entry &added) const { block_->list[block_->size++] = added; }

private:
	held_lock lock_;
	shared_block<ClientTerminateList> block_;
};

} // namespace

void enter_ftp_client(pam_handle_t *pamh, const vek_event &login)
{
	if (std::strlen(login.real_username) >= CLIENT_TERMINATE_USERNAME_LENGTH) {
		pam_syslog(pamh, LOG_WARNING,
			   "a user of this name cannot be found in the table of ftp clients");
		return;
	}
	if (is_isolated()) {
		pam_syslog(pamh, LOG_WARNING,
			   "this server has System V objects of its own, so vekd cannot end it");
		return;
	}
	const clients all(pamh, true);
	if (!all)
		return;
	// Of servers that were killed, nobody removed the entries.
	for (int i = all.size() - 1; i >= 0; i--)
		if (kill(all[i].pid < 0 ? -all[i].pid : all[i].pid, 0) < 0 && errno == ESRCH)
			all.remove(i);
	if (all.size() == static_cast<int>(MOST_CLIENTS))
		pam_syslog(pamh, LOG_WARNING, "the table of ftp clients is full");
	else
		all.append(entry_of(login, own_pid()));
}

void leave_ftp_client(pam_handle_t *pamh, const vek_event &login, int pid)
{
	const clients all(pamh, false);
	const int place = all ? all.find(entry_of(login, pid)) : -1;
	if (place < 0)
		return;
	std::memmove(&all[1], &all[0], static_cast<std::size_t>(place) * sizeof(entry));
	all[0] = entry_of(login, -pid);
}

void remove_ftp_client(pam_handle_t *pamh, const vek_event &login, int pid)
{
	const clients all(pamh, false);
	const int place = all ? all.find(entry_of(login, -pid)) : -1;
	if (place >= 0)
		all.remove(place);
}
