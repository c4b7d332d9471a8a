// pam_vekd.cpp: the PAM module: whoever logs in by a PAM service is a session of the daemon, and whoever
// guesses passwords is locked out across services. What the daemon is told of a login, and when; the options,
// the tables and the keeper of ssh sessions have files of their own. Needs libpam and the C library alone.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <security/pam_ext.h>
#include <security/pam_modules.h>
#include <security/pam_modutil.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ftp.h"
#include "lockout.h"
#include "options.h"
#include "report.h"

#define EXPORTED extern "C" __attribute__((visibility("default")))

namespace {

constexpr char SESSION_DATA[] = "vekd_session";
constexpr unsigned WRONG_PASSWORD_DELAY_US = 2000000; // pam_unix's

// What closing has to know of the opening, also in a process that was forked in between.
struct open_session {
	vek_event login;
	int pid; // of the process that opened it
};

const char *text_item(pam_handle_t *pamh, int item)
{
	const void *value = nullptr;
	return pam_get_item(pamh, item, &value) == PAM_SUCCESS && value != nullptr
		   ? static_cast<const char *>(value)
		   : "";
}

// ---- who, by what, from where ----

// The terminal's name below /dev, or an empty text when the service gave the item another use.
const char *terminal_of(pam_handle_t *pamh)
{
	const char *name = text_item(pamh, PAM_TTY);
	if (std::strncmp(name, "/dev/", 5) == 0)
		name += 5;
	char path[5 + TTYSZ];
	const int length = std::snprintf(path, sizeof(path), "/dev/%s", name);
	return *name != '\0' && length < static_cast<int>(sizeof(path)) && access(path, F_OK) == 0 ? name
												   : "";
}

// A telnet server runs login as its child, and says from where.
bool is_by_telnet(pam_handle_t *pamh)
{
	if (*text_item(pamh, PAM_RHOST) != '\0')
		return true;
	char path[32], name[32] = {};
	std::snprintf(path, sizeof(path), "/proc/%d/comm", getppid());
	const int fd = open(path, O_RDONLY | O_CLOEXEC);
	if (fd < 0)
		return false;
	const bool read_it = read(fd, name, sizeof(name) - 1) > 0;
	close(fd);
	return read_it && std::strstr(name, "telnetd") != nullptr;
}

struct service_of_name {
	const char *pam, *service;
};
constexpr service_of_name services[] = {
    {"sshd", SERVICE_NAME_SSH},      {"login", SERVICE_NAME_CONSOLE}, {"remote", SERVICE_NAME_TELNET},
    {"telnet", SERVICE_NAME_TELNET}, {"vsftpd", SERVICE_NAME_FTP},    {"pure-ftpd", SERVICE_NAME_FTP},
    {"proftpd", SERVICE_NAME_FTP},   {"ppp", SERVICE_NAME_DIALIN},
};

void find_service(pam_handle_t *pamh, const pam_options &options, char (&service)[VEK_SERVICE_LEN])
{
	const char *pam_service = text_item(pamh, PAM_SERVICE);
	if (mapped_service(options, pam_service, service, sizeof(service)))
		return;
	copy_text(service, SERVICE_NAME_UNKNOWN);
	for (const service_of_name &known : services)
		if (std::strcmp(pam_service, known.pam) == 0)
			copy_text(service, known.service);
	if (std::strcmp(service, SERVICE_NAME_CONSOLE) == 0 && is_by_telnet(pamh))
		copy_text(service, SERVICE_NAME_TELNET);
}

bool is_service(const vek_event &event, const char *service)
{
	return std::strcmp(event.service, service) == 0;
}

bool read_address(const char *text, uint32_t *ip, in6_addr *ip6)
{
	char plain[INET6_ADDRSTRLEN];
	const std::size_t length = std::strcspn(text, "%"); // the interface of a link-local address
	if (length == 0 || length >= sizeof(plain))
		return false;
	std::memcpy(plain, text, length);
	plain[length] = '\0';
	if (inet_pton(AF_INET, plain, ip) == 1)
		return true;
	if (inet_pton(AF_INET6, plain, ip6) != 1)
		return false;
	if (IN6_IS_ADDR_V4MAPPED(ip6)) {
		std::memcpy(ip, ip6->s6_addr + 12, sizeof(*ip));
		*ip6 = in6addr_any;
	}
	return true;
}

// Both stay zero when it is not known.
void find_address(pam_handle_t *pamh, const pam_options &options, uint32_t *ip, in6_addr *ip6)
{
	const char *host = text_item(pamh, PAM_RHOST);
	if (read_address(host, ip, ip6) || *host == '\0' || !options.resolve)
		return;
	addrinfo wanted = {}, *found = nullptr;
	wanted.ai_socktype = SOCK_STREAM;
	char text[INET6_ADDRSTRLEN];
	if (getaddrinfo(host, nullptr, &wanted, &found) != 0)
		return;
	if (getnameinfo(found->ai_addr, found->ai_addrlen, text, sizeof(text), nullptr, 0, NI_NUMERICHOST) ==
	    0)
		read_address(text, ip, ip6);
	freeaddrinfo(found);
}

uint8_t type_of(pam_handle_t *pamh, const pam_options &options, const char *user)
{
	const auto is_in = [&](const char *group) {
		return group != nullptr && pam_modutil_user_in_group_nam_nam(pamh, user, group) == 1;
	};
	return is_in(options.admin_group)     ? ADMIN_TYPE
	       : is_in(options.limited_group) ? LIMIT_TYPE
					      : USER_TYPE;
}

// False when there is nobody whose login could be reported.
bool describe(pam_handle_t *pamh, const pam_options &options, vek_event *login)
{
	const char *user = nullptr;
	if (pam_get_user(pamh, &user, nullptr) != PAM_SUCCESS || user == nullptr || *user == '\0')
		return false;
	*login = {};
	login->event = VEK_EVENT_USER_LOGIN;
	find_service(pamh, options, login->service);
	copy_text(login->username, user);
	copy_text(login->real_username, user);
	find_address(pamh, options, &login->ip, &login->ip6);
	if (!IN6_IS_ADDR_UNSPECIFIED(&login->ip6))
		login->event_flag = VEK_EVENT_FLAG_USED_IPV6_ADDR;
	// What a shell is found by is the terminal; anything else has to be the session's own.
	const char *terminal = is_service(*login, SERVICE_NAME_SSH) ? "" : terminal_of(pamh);
	if (*terminal != '\0')
		copy_text(login->unique, terminal);
	else
		std::snprintf(login->unique, sizeof(login->unique), "%d", own_pid());
	return true;
}

bool is_reported(const pam_options &options, const vek_event &login)
{
	return options.only == nullptr || is_listed(options.only, login.service);
}

// ---- the keeper of an ssh session ----

// Replaces this process by the keeper, which gets the login on descriptor 0 and whose it is on descriptor 3.
[[noreturn]] void run_keeper(const char *keeper, const char *timeout, int login, int opener)
{
	setsid();
	// Out of the way of the places where they are to be.
	const int high_login = fcntl(login, F_DUPFD, 10), high_opener = fcntl(opener, F_DUPFD, 10);
	const int null = open("/dev/null", O_RDWR);
	if (high_login >= 0 && high_opener >= 0 && null >= 0 && dup2(high_login, 0) >= 0 &&
	    dup2(null, 1) >= 0 && dup2(null, 2) >= 0 && dup2(high_opener, 3) >= 0 && chdir("/") == 0 &&
	    syscall(SYS_close_range, 4u, ~0u, 0u) == 0) {
		sigset_t none;
		sigemptyset(&none);
		sigprocmask(SIG_SETMASK, &none, nullptr);
		char *const argv[] = {const_cast<char *>(keeper), const_cast<char *>(timeout), nullptr};
		char *const environment[] = {nullptr};
		execve(keeper, argv, environment);
	}
	_exit(1);
}

// A program of its own, so that it has nothing of the ssh server in its memory, and the child of nobody here.
bool start_keeper(const pam_options &options, const vek_event &login)
{
	char timeout[16];
	std::snprintf(timeout, sizeof(timeout), "%ld", options.timeout_ms);
	const int opener = static_cast<int>(syscall(SYS_pidfd_open, getpid(), 0));
	const int record = memfd_create("login", MFD_CLOEXEC);
	bool started = false;
	if (opener >= 0 && record >= 0 && write(record, &login, sizeof(login)) == sizeof(login) &&
	    lseek(record, 0, SEEK_SET) == 0 && access(options.keeper, X_OK) == 0) {
		const pid_t between = fork();
		if (between == 0) {
			const pid_t child = fork();
			if (child == 0)
				run_keeper(options.keeper, timeout, record, opener);
			_exit(child < 0);
		}
		int status = -1;
		while (between > 0 && waitpid(between, &status, 0) < 0 && errno == EINTR)
			;
		started = between > 0 && status <= 0;
	}
	const int error = errno;
	if (opener >= 0)
		close(opener);
	if (record >= 0)
		close(record);
	errno = error;
	return started;
}

// ---- the two ends of a session ----

void forget(pam_handle_t *, void *data, int) { std::free(data); }

void remember(pam_handle_t *pamh, const vek_event &login)
{
	auto *session = static_cast<open_session *>(std::malloc(sizeof(open_session)));
	if (session == nullptr)
		return;
	*session = {login, own_pid()};
	if (pam_set_data(pamh, SESSION_DATA, session, forget) != PAM_SUCCESS)
		std::free(session);
}

// The user is not let in, and yet a daemon that was only slow may still take the login.
void take_back(const vek_event &login) { report(about(login, VEK_EVENT_USER_LOGOUT), 0); }

// Of a closing process that has nothing of the opening one: the terminal is what both know. Without one it
// has to be the only session of this user by this service from there.
struct only_one {
	const vek_event &wanted;
	int found;
	char unique[VEK_UNIQUE_LEN + 1];
};

int look_at(const user_info *session, void *arg)
{
	auto *only = static_cast<only_one *>(arg);
	if (std::strcmp(session->service, only->wanted.service) != 0 || session->ip != only->wanted.ip ||
	    !IN6_ARE_ADDR_EQUAL(&session->ip6, &only->wanted.ip6))
		return 0;
	only->found++;
	copy_text(only->unique, session->unique);
	return 0;
}

bool find_only_session(const pam_options &options, vek_event *login)
{
	only_one only = {*login, 0, {}};
	vek_client *client = vek_client_open_request(static_cast<int>(options.timeout_ms));
	if (client == nullptr)
		return false;
	vek_client_query_name(client, login->real_username, look_at, &only);
	vek_client_close(client);
	copy_text(login->unique, only.unique);
	return only.found == 1;
}

int open_it(pam_handle_t *pamh, const pam_options &options, vek_event *login)
{
	login->type = type_of(pamh, options, login->username);
	login->default_lease_time = static_cast<int32_t>(options.lease);
	login->session_timeout = static_cast<uint32_t>(options.session);
	if (options.idle > 0) {
		login->idle_timeout = static_cast<uint32_t>(options.idle);
		login->idle_timeout_form_acct_flag = 1;
	}
	const int status = report(*login, static_cast<int>(options.timeout_ms));
	if (status != VEK_RESPONSE_SUCCESS) {
		const char *now = options.deny ? "is not let in" : "is let in nonetheless";
		if (status < 0)
			pam_syslog(pamh, LOG_ERR, "vekd does not take the login of %s, who %s: %s",
				   login->username, now, std::strerror(errno));
		else
			pam_syslog(pamh, LOG_ERR, "vekd refuses the login of %s, who %s", login->username,
				   now);
		if (options.deny) {
			take_back(*login);
			return PAM_SESSION_ERR;
		}
	}
	remember(pamh, *login);
	if (is_service(*login, SERVICE_NAME_FTP))
		enter_ftp_client(pamh, *login);
	if (is_service(*login, SERVICE_NAME_SSH) && !start_keeper(options, *login))
		pam_syslog(pamh, LOG_WARNING, "%s cannot be run, so vekd does not learn the terminal: %s",
			   options.keeper, std::strerror(errno));
	return PAM_SUCCESS;
}

void close_it(pam_handle_t *pamh, const pam_options &options, const vek_event &login, int pid)
{
	const bool ftp = is_service(login, SERVICE_NAME_FTP);
	if (ftp)
		leave_ftp_client(pamh, login, pid);
	vek_event logout = about(login, VEK_EVENT_USER_LOGOUT);
	// The terminal may be another user's by the time the daemon would look for a shell there.
	if (is_service(login, SERVICE_NAME_SSH))
		report(about(login, VEK_EVENT_UPDATE_SSH_TTY), static_cast<int>(options.timeout_ms));
	if (report(logout, static_cast<int>(options.timeout_ms)) < 0)
		pam_syslog(pamh, LOG_ERR, "vekd does not take the logout of %s: %s", login.username,
			   std::strerror(errno));
	if (ftp)
		remove_ftp_client(pamh, login, pid);
}

// ---- lockouts ----

// The address, else the user; false when there is neither.
bool find_client(pam_handle_t *pamh, const pam_options &options, client_name *client)
{
	*client = {};
	if (pam_get_user(pamh, &client->user, nullptr) != PAM_SUCCESS || client->user == nullptr)
		return false;
	find_address(pamh, options, &client->ip, &client->ip6);
	return true;
}

} // namespace

EXPORTED int pam_sm_open_session(pam_handle_t *pamh, int, int argc, const char **argv)
{
	const pam_options options = read_options(pamh, argc, argv);
	vek_event login;
	if (!describe(pamh, options, &login) || !is_reported(options, login))
		return PAM_IGNORE;
	return open_it(pamh, options, &login);
}

EXPORTED int pam_sm_close_session(pam_handle_t *pamh, int, int argc, const char **argv)
{
	const pam_options options = read_options(pamh, argc, argv);
	const void *data = nullptr;
	if (pam_get_data(pamh, SESSION_DATA, &data) == PAM_SUCCESS && data != nullptr) {
		const open_session session = *static_cast<const open_session *>(data);
		pam_set_data(pamh, SESSION_DATA, nullptr, nullptr);
		close_it(pamh, options, session.login, session.pid);
		return PAM_SUCCESS;
	}
	vek_event login;
	if (!describe(pamh, options, &login) || !is_reported(options, login))
		return PAM_IGNORE;
	if (std::strcmp(login.unique, terminal_of(pamh)) != 0 && !find_only_session(options, &login)) {
		pam_syslog(pamh, LOG_WARNING, "it is not known which session of %s ends here",
			   login.username);
		return PAM_IGNORE;
	}
	close_it(pamh, options, login, 0);
	return PAM_SUCCESS;
}

EXPORTED int pam_sm_authenticate(pam_handle_t *pamh, int, int argc, const char **argv)
{
	const pam_options options = read_options(pamh, argc, argv);
	client_name client;
	if (options.stage == pam_options::NO_STAGE)
		pam_syslog(pamh, LOG_ERR, "an auth line needs preauth or authfail");
	else if (!find_client(pamh, options, &client))
		return PAM_IGNORE;
	else if (options.stage == pam_options::AUTHFAIL)
		count_failure(pamh, options, client);
	else if (is_locked_out(pamh, options, client)) {
		pam_syslog(pamh, LOG_NOTICE, "refused without asking, since locked out: rhost=%s user=%s",
			   text_item(pamh, PAM_RHOST), client.user);
		pam_fail_delay(pamh, WRONG_PASSWORD_DELAY_US);
		return PAM_AUTH_ERR;
	}
	return PAM_IGNORE;
}

EXPORTED int pam_sm_setcred(pam_handle_t *, int, int, const char **) { return PAM_IGNORE; }

EXPORTED int pam_sm_acct_mgmt(pam_handle_t *pamh, int, int argc, const char **argv)
{
	const pam_options options = read_options(pamh, argc, argv);
	client_name client;
	if (find_client(pamh, options, &client))
		forget_failures(pamh, client);
	return PAM_IGNORE;
}
