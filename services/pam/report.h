// report.h: what the module and the keeper of ssh sessions both say to the daemon: records and limits, no
// state. Needs the C library alone, as everything in this directory.
#ifndef VEK_PAM_REPORT_H
#define VEK_PAM_REPORT_H

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>

#include "text.h"
#include "vek_client.h"

inline std::int64_t monotonic_ms()
{
	struct timespec now = {};
	clock_gettime(CLOCK_MONOTONIC, &now);
	return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// What is left of a limit that covers several calls; never less than 0.
inline int left_of(std::int64_t end)
{
	const std::int64_t left = end - monotonic_ms();
	return left > 0 ? static_cast<int>(left) : 0;
}

// Reports on a connection of its own, all within the limit: the daemon's status, or -1 with errno.
inline int report(const vek_event &event, int timeout_ms)
{
	const std::int64_t end = monotonic_ms() + timeout_ms;
	vek_client *client = vek_client_open_notify(timeout_ms);
	if (client == nullptr)
		return -1;
	vek_client_set_timeout(client, left_of(end));
	const int status = vek_client_report(client, &event);
	const int error = errno;
	vek_client_close(client);
	errno = error;
	return status;
}

// This process as everybody else sees it, also where the service has a process namespace of its own.
inline int own_pid()
{
	char text[16] = {};
	const ssize_t length = readlink("/proc/self", text, sizeof(text) - 1);
	const int pid = length > 0 ? std::atoi(text) : 0;
	return pid > 0 ? pid : getpid();
}

// Another event about the session that a login made.
inline vek_event about(const vek_event &login, int number)
{
	vek_event event = {};
	event.event = number;
	copy_text(event.service, login.service);
	copy_text(event.username, login.username);
	copy_text(event.real_username, login.real_username);
	copy_text(event.unique, login.unique);
	event.ip = login.ip;
	event.ip6 = login.ip6;
	event.event_flag = login.event_flag;
	return event;
}

#endif
