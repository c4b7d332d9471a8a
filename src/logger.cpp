// logger.cpp: one line in the system log for every login, logout and time-out, in fixed wording. The handlers
// only read their event; what they say is in the tables below.
#include "logger.h"

#include <arpa/inet.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "daemon.h"
#include "init.h"
#include "misc.h"
#include "qzkit.h"
#include "vek_event.h"
#include "veklog.h"

const char *get_type_str(std::uint8_t type)
{
	switch (type) {
	case ADMIN_TYPE: return "Administrator";
	case GUEST_TYPE: return "Guest";
	case EXT_TYPE: return "Ext-User";
	case LIMIT_TYPE: return "Limited-Admin";
	default: return "User";
	}
}

const char *get_service_str(const char *service)
{
	static constexpr struct {
		const char *service, *display;
	} table[] = {
	    {SERVICE_NAME_DOT1X, "802.1X"},
	    {SERVICE_NAME_MAC_AUTH, "MAC auth"},
	    {SERVICE_NAME_GOOGLE_AUTHENTICATOR, "google authenticator"},
	};
	for (const auto &row : table)
		if (std::strcmp(service, row.service) == 0)
			return row.display;
	return service;
}

namespace {

int is_cloud;

void fill_entry(qzlog_entry *entry, int priority, const char *user)
{
	std::memset(entry, 0, sizeof(*entry));
	entry->source = QZLOG_SRC_VEK;
	entry->facility = QZLOG_FAC_VEK;
	entry->priority = static_cast<std::uint8_t>(priority);
	copy_text(entry->username, user);
	constexpr std::string_view account = "Account: ";
	std::memcpy(entry->note, account.data(), account.size());
	std::memcpy(entry->note + account.size(), user,
		    strnlen(user, sizeof(entry->note) - account.size() - 1));
}

// ---- wording ----

// Where a text says %X, the value of that letter goes.
enum value {
	TYPE,    // T: the user type's name
	USER,    // U: the account
	NAME,    // N: the account, or N/A for "undefined"
	MAC,     // M: the station, or N/A
	IP,      // I: the IPv4 address, dotted
	IP6,     // A: " [address] ", or empty
	SERVICE, // S: the service's display text
	REASON,  // R: why a logout happened, or empty
	VALUES
};

struct wording {
	const char *ip6_cloud;
	const char *ip6;
	const char *ip4_cloud;
	const char *ip4;
};

constexpr wording LOGIN = {
    "%T %N (MAC: %M) %S login.",
    "%T %U %S login.",
    "%T %N (MAC: %M, IP: %I) %S login.",
    "%T %U %S login.",
};
constexpr wording LOGOUT = {
    "%T %N (IP: %A) %S logout%R.",
    "%T %U (IP: %A) %S logout%R.",
    "%T %N (MAC: %M, IP: %I) %S logout%R",
    "%T %U %S logout%R",
};
constexpr wording REAUTH_TIMEOUT = {
    "%T %U %S logout (re-auth timeout).",
    "%T %U %S logout (re-auth timeout).",
    "%T %U (MAC: %M, IP: %I) %S logout (re-auth timeout).",
    "%T %U %S logout (re-auth timeout).",
};
constexpr wording LEASE_TIMEOUT = {
    "%T %U %S logout (lease timeout).",
    "%T %U %S logout (lease timeout).",
    "%T %U (MAC: %M, IP: %I) %S logout (lease timeout).",
    "%T %U %S logout (lease timeout).",
};
constexpr wording IDLE_TIMEOUT = {
    "%T %U %S logout (idle timeout).",
    "%T %U %S logout (idle timeout).",
    "%T %U (MAC: %M, IP: %I) %S logout (idle timeout).",
    "%T %U %S logout (idle timeout).",
};

const char *reason_of(int sub_event)
{
	switch (sub_event) {
	case VEK_EVENT_USER_FORCE_LOGOUT: return " (force-logout)";
	case VEK_EVENT_CONFIG_CHANGE: return " (config change)";
	case VEK_EVENT_USER_SESSION_TIMEOUT: return " (sessoin timeout)";
	default: return "";
	}
}

constexpr value value_of(char letter)
{
	switch (letter) {
	case 'T': return TYPE;
	case 'U': return USER;
	case 'N': return NAME;
	case 'M': return MAC;
	case 'I': return IP;
	case 'A': return IP6;
	case 'S': return SERVICE;
	default: return REASON;
	}
}

void expand(char *out, std::size_t size, const char *text, const char *const (&values)[VALUES])
{
	std::size_t used = 0;
	const auto put = [&](const char *piece, std::size_t length) {
		const std::size_t fits = length < size - 1 - used ? length : size - 1 - used;
		std::memcpy(out + used, piece, fits);
		used += fits;
	};
	while (*text != '\0') {
		if (*text == '%') {
			const char *value = values[value_of(text[1])];
			put(value, std::strlen(value));
			text += 2;
		} else {
			out[used] = *text++;
			used += used < size - 1;
		}
	}
	out[used] = '\0';
}

constexpr std::uint32_t NO_ADDRESS = 0xffffffffu; // logged as 0.0.0.0

std::uint32_t logged_address(std::uint32_t ip) { return ip == NO_ADDRESS ? 0 : ip; }

// Sends the finished entry, or in debug mode prints it.
void emit(qzlog_entry &entry, const char *function, std::uint32_t sip, std::uint32_t dip)
{
	if (debug) {
		mask_controls(entry.message);
		std::fprintf(stderr, "%s: User %u.%u.%u.%u: %s\n", function, NIPQUAD(sip), entry.message);
		return;
	}
	entry.srcip = sip;
	entry.dstip = dip;
	qzlog2(&entry, 0);
}

int emit6(qzlog_entry &entry, const in6_addr &sip6, const in6_addr &dip6)
{
	entry.srcip6 = sip6;
	entry.dstip6 = dip6;
	entry.flags = QZLOG_FLAGS_IPV6_ENABLE;
	return qzlog2(&entry, QZLOG_FLAGS_IPV6_ENABLE);
}

int log_event(const vek_event *event, const wording &wording, const char *function)
{
	vek_refresh_cloud(is_cloud);
	if (is_cloud && event->usr_from == FOREIGN_AUTHENTICATED_USER)
		return VEK_CONTINUE_DISPATCH;

	const bool ipv6 = event->event_flag & VEK_EVENT_FLAG_USED_IPV6_ADDR;
	const std::uint32_t ip = logged_address(event->ip);
	const char *user = event->real_username;
	char ip_text[INET_ADDRSTRLEN] = "";
	char ip6_text[64] = "";
	if (!ipv6) {
		if (is_cloud)
			inet_ntop(AF_INET, &ip, ip_text, sizeof(ip_text));
	} else if (!IN6_IS_ADDR_UNSPECIFIED(&event->ip6)) {
		char address[INET6_ADDRSTRLEN];
		inet_ntop(AF_INET6, &event->ip6, address, sizeof(address));
		std::snprintf(ip6_text, sizeof(ip6_text), " [%s] ", address);
	}

	const char *values[VALUES];
	values[TYPE] = get_type_str(event->type);
	values[USER] = user;
	values[NAME] = std::strcmp(user, "undefined") == 0 ? "N/A" : user;
	values[MAC] = event->sta_mac[0] != '\0' ? event->sta_mac : "N/A";
	values[IP] = ip_text;
	values[IP6] = ip6_text;
	values[SERVICE] = get_service_str(event->service);
	values[REASON] = reason_of(event->sub_event);

	const char *text = ipv6 ? (is_cloud ? wording.ip6_cloud : wording.ip6)
				: (is_cloud ? wording.ip4_cloud : wording.ip4);
	qzlog_entry entry;
	fill_entry(&entry, QZLOG_PRI_NOTICE, user);
	expand(entry.message, sizeof(entry.message), text, values);
	if (ipv6)
		emit6(entry, event->ip6, event->dst_ip6);
	else
		emit(entry, function, ip, logged_address(event->dst_ip));
	return VEK_CONTINUE_DISPATCH;
}

} // namespace

void vek_log(int priority, const char *function, std::uint32_t sip, std::uint32_t dip, const char *user,
	     const char *format, ...)
{
	qzlog_entry entry;
	fill_entry(&entry, priority, user);
	va_list args;
	va_start(args, format);
	std::vsnprintf(entry.message, sizeof(entry.message), format, args);
	va_end(args);
	emit(entry, function, sip, dip);
}

int VEK_LOG6(const in6_addr *sip6, const in6_addr *dip6, const char *user, const char *format, ...)
{
	qzlog_entry entry;
	fill_entry(&entry, QZLOG_PRI_NOTICE, user);
	va_list args;
	va_start(args, format);
	const int length = std::vsnprintf(entry.message, sizeof(entry.message), format, args);
	va_end(args);
	if (length < 0 || length >= static_cast<int>(sizeof(entry.message)))
		return -1;
	return emit6(entry, *sip6, *dip6);
}

int logger_handle_login(vek_event *event, vek_socket *) { return log_event(event, LOGIN, __func__); }
int logger_handle_logout(vek_event *event, vek_socket *) { return log_event(event, LOGOUT, __func__); }

int logger_handle_reauth_timeout(vek_event *event, vek_socket *)
{
	return log_event(event, REAUTH_TIMEOUT, __func__);
}

int logger_handle_lease_timeout(vek_event *event, vek_socket *)
{
	return log_event(event, LEASE_TIMEOUT, __func__);
}

int logger_handle_idle_timeout(vek_event *event, vek_socket *)
{
	return log_event(event, IDLE_TIMEOUT, __func__);
}

int logger_init()
{
	static const vek_registration table[] = {
	    {VEK_EVENT_USER_LOGIN, VEK_PRI_LOGIN_LOGGER, logger_handle_login},
	    {VEK_EVENT_USER_SOCIAL_LOGIN_STAGE2, VEK_PRI_LOGIN_LOGGER, logger_handle_login},
	    {VEK_EVENT_USER_LOGOUT, VEK_PRI_LOGOUT_LOGGER, logger_handle_logout},
	    {VEK_EVENT_USER_LOGOUT2, VEK_PRI_LOGOUT_LOGGER, logger_handle_logout},
	    {VEK_EVENT_USER_REAUTH_TIMEOUT, VEK_PRI_REAUTH_TIMEOUT_LOGGER, logger_handle_reauth_timeout},
	    {VEK_EVENT_USER_LEASE_TIMEOUT, VEK_PRI_LEASE_TIMEOUT_LOGGER, logger_handle_lease_timeout},
	    {VEK_EVENT_USER_IDLE_TIMEOUT, VEK_PRI_IDLE_TIMEOUT_LOGGER, logger_handle_idle_timeout},
	};
	return vek_register_events(table, "Can't register event for logger!\n");
}
