// sock_event.cpp: the select loop. The descriptor's number is the index of the per-descriptor tables;
// select_fds lists the registered ones densely, so that a pass looks at no other.
#include "sock_event.h"

#include <sys/select.h>

#include <algorithm>
#include <cerrno>

static int nfiles = VEK_MAX_FILES;
static int fd_rw[VEK_MAX_FILES];         // -1, FD_READ or FD_WRITE
static void *fd_data[VEK_MAX_FILES];     // not ours
static int select_fds[VEK_MAX_FILES];    // registered descriptors in 0..nselect_fds-1, -1 beyond
static int select_fdidx[VEK_MAX_FILES];  // a descriptor's place in select_fds, or -1
static int select_rfdidx[VEK_MAX_FILES]; // ready in this pass
static int nselect_fds;
static int nwriters; // registered for writing
static fd_set master_rfdset, master_wfdset;
static fd_set working_rfdset, working_wfdset;
static int maxfd = -1;
static int maxfd_changed;
constexpr int LONGEST_WAIT_MS = 1000;
static int wait_limit_ms = LONGEST_WAIT_MS; // of the next pass
static bool last_was_idle;

static bool is_ready(int fd)
{
	return (fd_rw[fd] == FD_READ && FD_ISSET(fd, &working_rfdset)) ||
	       (fd_rw[fd] == FD_WRITE && FD_ISSET(fd, &working_wfdset));
}

void vek_init_sock_event()
{
	FD_ZERO(&master_rfdset);
	FD_ZERO(&master_wfdset);
	nfiles = VEK_MAX_FILES;
	nselect_fds = 0;
	nwriters = 0;
	std::ranges::fill(fd_rw, -1);
	std::ranges::fill(fd_data, nullptr);
	std::ranges::fill(select_fds, -1);
	std::ranges::fill(select_fdidx, -1);
	maxfd = -1;
	maxfd_changed = 0;
}

void vek_fini_sock_event() {}

int vek_sock_event_add_fd(int fd, int rw, void *data)
{
	if (fd < 0 || fd >= nfiles || fd_rw[fd] != -1 || nselect_fds >= nfiles)
		return -1;
	if (rw != FD_READ && rw != FD_WRITE)
		return -1;
	FD_SET(fd, rw == FD_READ ? &master_rfdset : &master_wfdset);
	nwriters += rw == FD_WRITE;
	select_fds[nselect_fds] = fd;
	select_fdidx[fd] = nselect_fds++;
	maxfd = std::max(maxfd, fd);
	fd_rw[fd] = rw;
	fd_data[fd] = data;
	return 0;
}

int vek_sock_event_del_fd(int fd)
{
	if (fd < 0 || fd >= nfiles || fd_rw[fd] == -1)
		return -1;
	const int place = select_fdidx[fd];
	if (place < 0 || place >= nfiles)
		return -1;
	FD_CLR(fd, fd_rw[fd] == FD_READ ? &master_rfdset : &master_wfdset);
	// The number may come back within this pass; the new descriptor's turn is the next one.
	FD_CLR(fd, &working_rfdset);
	FD_CLR(fd, &working_wfdset);

	nwriters -= fd_rw[fd] == FD_WRITE;
	const int last = select_fds[--nselect_fds];
	select_fds[place] = last;
	select_fdidx[last] = place;
	select_fds[nselect_fds] = -1;
	select_fdidx[fd] = -1;
	if (fd >= maxfd)
		maxfd_changed = 1;
	fd_rw[fd] = -1;
	fd_data[fd] = nullptr;
	return 0;
}

void vek_sock_event_limit_wait(int ms) { wait_limit_ms = std::min(wait_limit_ms, ms); }

bool vek_sock_event_was_idle() { return last_was_idle; }

int vek_sock_event_loop(sock_event *callbacks)
{
	working_rfdset = master_rfdset;
	working_wfdset = master_wfdset;
	if (maxfd_changed) {
		maxfd = nselect_fds > 0 ? *std::max_element(select_fds, select_fds + nselect_fds) : -1;
		maxfd_changed = 0;
	}

	timeval timeout{wait_limit_ms / 1000, wait_limit_ms % 1000 * 1000};
	wait_limit_ms = LONGEST_WAIT_MS;
	const int result =
	    select(maxfd + 1, &working_rfdset, nwriters > 0 ? &working_wfdset : nullptr, nullptr, &timeout);
	last_was_idle = result == 0;
	if (result < 0)
		return errno == EINTR ? 0 : callbacks->error(result);

	int nready = 0;
	for (int i = 0; i < nselect_fds && nready < result; i++)
		if (is_ready(select_fds[i]))
			select_rfdidx[nready++] = select_fds[i];

	for (int i = 0; i < nready; i++) {
		const int fd = select_rfdidx[i];
		// An earlier callback of this pass may have taken it away.
		if (!is_ready(fd))
			continue;
		if (fd_rw[fd] == FD_READ)
			callbacks->read(fd, fd_data[fd]);
		else
			callbacks->write(fd, fd_data[fd]);
	}
	return 0;
}
