// log.cpp: the system log. The C library's syslog() waits for a log daemon that has stopped reading; this
// sends the same datagrams itself, so that the log cannot hold the daemon. One that is merely behind (it may
// hold as few as ten lines) is given a moment, so that a burst arrives whole; one that does not catch up
// loses lines, without further waiting, and their number is said when it takes lines again.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "host.h"
#include "qzlog.h"
#include "text.h"

namespace {

constexpr sockaddr_un log_address = {AF_UNIX, "/dev/log"};
constexpr std::size_t max_text = sizeof(qzlog_entry::message);

constexpr std::int64_t patience_ns = 100'000'000; // of waiting for the log, in any one second

int log_socket = -1;
unsigned long lost; // lines not taken since the last one that was

std::int64_t now_ns()
{
	struct timespec now;
	clock_gettime(CLOCK_MONOTONIC, &now);
	return now.tv_sec * std::int64_t{1'000'000'000} + now.tv_nsec;
}

// Until the log takes lines again or this second's patience is used up. False when there is none left.
bool wait_for_log()
{
	static std::int64_t second, spent;
	const std::int64_t start = now_ns();
	if (start - second >= 1'000'000'000) {
		second = start;
		spent = 0;
	}
	if (lost != 0 || spent >= patience_ns)
		return false;
	pollfd full = {log_socket, POLLOUT, 0};
	poll(&full, 1, static_cast<int>((patience_ns - spent) / 1'000'000) + 1);
	spent += now_ns() - start;
	return true;
}

bool send_line(const char *line, std::size_t length)
{
	do {
		if (send(log_socket, line, length, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0)
			return true;
	} while (errno == EAGAIN && wait_for_log());
	return false;
}

// Also when the log daemon was restarted: its new socket is found, with one attempt a line.
bool hand_over(const char *line, std::size_t length)
{
	if (log_socket >= 0) {
		if (send_line(line, length))
			return true;
		if (errno == EAGAIN || errno == ENOBUFS || errno == ENOMEM)
			return false; // it is there, and full
		close(log_socket);
	}
	log_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
	if (log_socket < 0)
		return false;
	if (connect(log_socket, reinterpret_cast<const sockaddr *>(&log_address), sizeof(log_address)) != 0) {
		close(log_socket);
		log_socket = -1;
		return false;
	}
	return send_line(line, length);
}

// Month names are the C locale's, whatever the process has.
std::size_t put_time(char (&buffer)[32])
{
	static const char months[][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
	                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
	const std::time_t now = std::time(nullptr);
	std::tm local{};
	localtime_r(&now, &local);
	return static_cast<std::size_t>(std::snprintf(buffer, sizeof(buffer), "%s %2d %02d:%02d:%02d",
	                                              months[local.tm_mon % 12], local.tm_mday, local.tm_hour,
	                                              local.tm_min, local.tm_sec));
}

bool log_line(int priority, const char *time, const char *text)
{
	static const char digits[] = "0123456789abcdef";
	char line[64 + 4 * max_text];
	// The process id is asked for each time: it changes when the daemon detaches.
	std::size_t length = static_cast<std::size_t>(
	    std::snprintf(line, 64, "<%d>%s vekd[%ld]: ", LOG_DAEMON | (priority & LOG_PRIMASK), time,
	                  static_cast<long>(getpid())));
	// A user name is whatever its user typed: a line break in it must not begin a line of its own.
	std::size_t controls = 0;
	for (std::size_t i = 0; i + 1 < max_text && text[i] != '\0'; ++i) {
		if (controls == 0 && (controls = control_length(text + i)) == 0) {
			line[length++] = text[i];
			continue;
		}
		--controls;
		const auto c = static_cast<unsigned char>(text[i]);
		line[length++] = '\\';
		line[length++] = 'x';
		line[length++] = digits[c >> 4];
		line[length++] = digits[c & 15];
	}
	return hand_over(line, length);
}

} // namespace

void host_log(int priority, const char *text)
{
	char time[32];
	put_time(time);
	if (lost != 0) {
		char said[48];
		std::snprintf(said, sizeof(said), "%lu messages were lost", lost);
		if (!log_line(LOG_WARNING, time, said)) {
			++lost;
			return;
		}
		lost = 0;
	}
	if (!log_line(priority, time, text))
		++lost;
}

// The socket is opened by the first line, so that it belongs to the detached process, and a log daemon that
// starts later is no reason not to run.
int qzlog_init(void)
{
	tzset();
	return 0;
}

int qzlog2(const struct qzlog_entry *entry, int)
{
	host_log(entry->priority, entry->message);
	return 0;
}
