/*
 * vek.h: the contract between vekd and every other program on the device: the records that cross its
 * sockets, the numbers in them, and the shared-memory blocks that it creates. Compiles as C11 and as C++20.
 *
 * Integers are in host byte order, IPv4 addresses in network byte order (as in in_addr), IPv6 addresses
 * 16 bytes in network order. Text is NUL-terminated and cut to its field. The layouts are the same on
 * 32-bit and 64-bit targets; the assertions under each record say what they are.
 */
#ifndef VEK_H
#define VEK_H

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define VEK_ASSERT static_assert
#define VEK_U64 alignas(8) uint64_t /* 8-byte aligned on 32-bit targets too */
#define VEK_I64 alignas(8) int64_t
#else
#define VEK_ASSERT _Static_assert
#define VEK_U64 _Alignas(8) uint64_t
#define VEK_I64 _Alignas(8) int64_t
#endif
#define VEK_AT(record, field, offset)                                                                        \
	VEK_ASSERT(offsetof(struct record, field) == (offset), #record "." #field " moved")
#define VEK_SIZE(record, size) VEK_ASSERT(sizeof(struct record) == (size), #record " changed its size")

/* ---- where the daemon is found ---------------------------------------------------------------- */

/* Services report here: vek_event in, vek_response out. */
#define VEK_ADDRESS_NOTIFY "/dev/user-notify"
/* Programs ask here: vek_request in, answers or copies out. */
#define VEK_ADDRESS_REQUEST "/dev/user-request"
#define VEK_PID_FILE "/var/run/vekd.pid"
#define VEK_LOGOUT_DEFER_TIME "/tmp/logout_defer_time.txt"
#define VEK_RBTREE_DUMP "/tmp/print_vek_rbtree.txt"

/* ---- limits ----------------------------------------------------------------------------------- */

#define VEK_MAX_USERS 1034
#define VEK_DEFAULT_LOGOUT_DEFER_TIME 5 /* seconds */

#define VEK_SERVICE_LEN 32
#define VEK_USERNAME_LEN 64
#define VEK_UNIQUE_LEN 64 /* without the terminator */
#define VEK_PROFILE_NAME_LEN 128
#define TTYSZ 64
#define VEK_PORTAL_METHOD_LEN 32
#define VEK_PORTAL_LOCALE_STR_LEN 16
#define VEK_PORTAL_GENDER_STR_LEN 16
#define VEK_PORTAL_AGE_STR_LEN 16
#define VEK_PORTAL_AUTH_TIME_LEN 16
#define VEK_PORTAL_SSID_LEN 64
#define VEK_PORTAL_VAP_IF_LEN 16
#define VEK_PORTAL_MAC_STR_LEN 32
#define GA_BINDING_TOKEN_STR_LEN 128

/* ---- numbers ---------------------------------------------------------------------------------- */

enum event_number {
	VEK_EVENT_USER_LOGIN = 1,
	VEK_EVENT_USER_SOCIAL_LOGIN_STAGE1 = 2,
	VEK_EVENT_USER_SOCIAL_LOGIN_STAGE2 = 3,
	VEK_EVENT_USER_LOGOUT = 4,
	VEK_EVENT_USER_LOGOUT2 = 5,
	VEK_EVENT_USER_REAUTH_TIMEOUT = 6,
	VEK_EVENT_USER_LEASE_TIMEOUT = 7,
	VEK_EVENT_USER_IDLE_TIMEOUT = 8,
	VEK_EVENT_USER_SESSION_TIMEOUT = 9, /* a sub_event only */
	VEK_EVENT_FOREIGN_USER_LOGOUT = 10, /* reserved */
	VEK_EVENT_QUERY_RESULT = 11,        /* header of a query's answer */
	VEK_EVENT_USER_TRAFFIC = 12,
	VEK_EVENT_TUNNEL_UP = 13,
	VEK_EVENT_TUNNEL_DOWN = 14,
	VEK_EVENT_USER_TUNNEL_UP = 15,
	VEK_EVENT_USER_TUNNEL_DOWN = 16,
	VEK_EVENT_WEB_USER_LOGOUT = 17,
	VEK_EVENT_USER_FORCE_LOGOUT = 18, /* a sub_event only */
	VEK_EVENT_UPDATE_LEASE_TIME = 19,
	VEK_EVENT_UPDATE_IDLE_TIME = 20,
	VEK_EVENT_UPDATE_REAUTH_TIME = 21,
	VEK_EVENT_UPDATE_ROAMING_STA_IP = 22,
	VEK_EVENT_USER_ALIVE = 23,
	VEK_EVENT_APP_QUERY_NAME = 24,
	VEK_EVENT_APP_QUERY_FROM = 25,
	VEK_EVENT_APP_QUERY_FROM_FIRST = 26,
	VEK_EVENT_APP_QUERY_ALL = 27,
	VEK_EVENT_APP_QUERY_TOTAL_USER_NUM = 28,
	VEK_EVENT_APP_LISTEN = 29,
	VEK_EVENT_APP_CLOSE = 30,
	VEK_EVENT_TIMER_SECOND = 31,
	VEK_EVENT_TIMER_10SECONDS = 32,
	VEK_EVENT_CONFIG_CHANGE = 33,
	VEK_EVENT_USER_LOGOUT_REVOCABLE = 34,
	VEK_EVENT_USER_LOGOUT_REVOKE = 35,
	VEK_EVENT_UPDATE_ACCOUNTING_STATUS = 36,
	VEK_EVENT_RENAME_RADIUS_PROFILE_NAME = 37,
	VEK_EVENT_UPDATE_SSH_TTY = 38,
	VEK_EVENT_LIMIT = 39
};

/* vek_event.event_flag */
#define VEK_EVENT_FLAG_SKIP_USER_LOGOUT (1u << 1) /* the session is already removed */
#define VEK_EVENT_FLAG_USED_IPV6_ADDR (1u << 2)   /* the record's address is ip6, not ip */
#define VEK_EVENT_FLAG_USER_LOGOUT_MATCH_MAC_SSIDPROFILE (1u << 9)
#define VEK_EVENT_FLAG_RUM (1u << 10)          /* carried, not interpreted */
#define VEK_EVENT_FLAG_8021x_logout (1u << 11) /* carried, not interpreted */
#define VEK_EVENT_FLAG_USER_LOGOUT_MATCH_SSIDPROFILE (1u << 12)
#define VEK_EVENT_FLAG_USER_LOGOUT_MATCH_MAC (1u << 13)

/* vek_event.attribute, user_info.attribute */
#define VEK_USER_ATTRIBUTE_MANAGEMENT 0x1 /* may manage the device */
#define VEK_USER_ATTRIBUTE_ACCESS 0x2     /* network access */

/* vek_event.notify_cc: carried to listeners, not interpreted */
#define NOTIFY_CC 1
#define DO_NOT_NOTIFY_CC 2

/* usr_from */
#define LOCAL_AUTHENTICATED_USER 1
#define FOREIGN_AUTHENTICATED_USER 2

enum user_type_enum {
	ADMIN_TYPE = 0,
	USER_TYPE = 1,
	GUEST_TYPE = 2,
	EXT_TYPE = 3,
	LIMIT_TYPE = 4,
	EXT_GROUP_TYPE = 5
};

#define USER_PRIV 80 /* access and visibility of 802.1x and MAC-authenticated sessions */

/* vek_event.service, user_info.service */
#define SERVICE_NAME_CONSOLE "console"
#define SERVICE_NAME_TELNET "telnet"
#define SERVICE_NAME_SSH "ssh"
#define SERVICE_NAME_HTTP_HTTPS "http/https"
#define SERVICE_NAME_FTP "ftp"
#define SERVICE_NAME_DIALIN "dialin"
#define SERVICE_NAME_UNKNOWN "unknown"
#define SERVICE_NAME_DOT1X "802.1x"
#define SERVICE_NAME_XAUTH "xauth"
#define SERVICE_NAME_MAC_AUTH "mac-auth"
#define SERVICE_NAME_CAPTIVE_PORTAL "captive portal"
#define SERVICE_NAME_SOCIAL_LOGIN_FB "social login fb"
#define SERVICE_NAME_FB_WIFI_LOGIN "fb wi-fi login"
#define SERVICE_NAME_GOOGLE_AUTHENTICATOR "google authenticator"
#define SERVICE_NAME_EMAIL_VERIFICATION "email verification"

/* vek_event.method, user_info.method */
#define AUTH_METHOD_CAPTIVE_PORTAL_GOOGLE_AUTHENTICATOR_1X "google-authenticator-1x"
#define AUTH_METHOD_CAPTIVE_PORTAL_EMAIL_VERIFICATION_DPPSK "email-verification-dppsk"
#define AUTH_METHOD_CAPTIVE_PORTAL_SOCIAL_LOGIN_FB "sns-facebook"
#define AUTH_METHOD_CAPTIVE_PORTAL_FB_WIFI_LOGIN "fb-wifi-login"

/* The console's address: every session whose unique key is "console". */
#define ADDR_NAME_CONSOLE 0xffffffffu

/* ---- the notify socket ------------------------------------------------------------------------ */

/* One event. Services write it whole, in one write; listeners receive copies of it. */
struct vek_event {
	int32_t event;     /* enum event_number */
	int32_t count;     /* in a query's answer: records that follow; otherwise 0 */
	int32_t sub_event; /* of a logout: its cause, an event number */
	char service[VEK_SERVICE_LEN];
	char username[VEK_USERNAME_LEN];      /* as the reporting service gave it; the name of a name query */
	char real_username[VEK_USERNAME_LEN]; /* the account */
	char define_name[VEK_USERNAME_LEN];   /* not empty: the account's profile is looked up locally */
	char unique[VEK_UNIQUE_LEN + 1];      /* the reporting service's key of the session */
	uint32_t ip;
	uint32_t dst_ip;
	uint32_t tunnel_ip; /* not 0: the session has a tunnel */
	uint8_t attribute;  /* VEK_USER_ATTRIBUTE_*; login fills it in */
	uint8_t type;       /* enum user_type_enum */
	union {
		uint32_t lease_time;  /* minutes, event 19; negative when read as signed: the session's own
					 length */
		uint32_t reauth_time; /* minutes, event 21 */
	} update;
	struct in6_addr ip6; /* with VEK_EVENT_FLAG_USED_IPV6_ADDR */
	struct in6_addr dst_ip6;
	struct in6_addr tunnel_ip6;
	uint32_t event_flag;                 /* VEK_EVENT_FLAG_* */
	int32_t default_lease_time;          /* minutes, 0 none */
	int32_t default_reauth_time;         /* minutes, 0 none */
	uint32_t match_flag;                 /* look-up options of the user-profile library */
	uint32_t idle_timeout;               /* seconds, when idle_timeout_form_acct_flag is 1 */
	int32_t idle_timeout_form_acct_flag; /* 1: idle_timeout comes from accounting */
	uint32_t session_timeout;            /* seconds, 0 none */
	char radius_profile_name[VEK_PROFILE_NAME_LEN];
	char old_radius_profile_name[VEK_PROFILE_NAME_LEN]; /* event 37 */
	int32_t accounting_status;
	int32_t notify_cc;
	char method[VEK_PORTAL_METHOD_LEN];
	char locale[VEK_PORTAL_LOCALE_STR_LEN];
	char gender[VEK_PORTAL_GENDER_STR_LEN];
	char age[VEK_PORTAL_AGE_STR_LEN];
	char auth_time[VEK_PORTAL_AUTH_TIME_LEN]; /* seconds since the epoch, as text */
	char ssid_name[VEK_PORTAL_SSID_LEN];
	char ssid_profile_name[VEK_PORTAL_SSID_LEN];
	char ssid_vap_iface[VEK_PORTAL_VAP_IF_LEN];
	char sta_mac[VEK_PORTAL_MAC_STR_LEN]; /* aa:bb:cc:dd:ee:ff */
	int32_t usr_from;
	int32_t ga_acct_status;
	char ga_binding_token[GA_BINDING_TOKEN_STR_LEN];
	char ssh_tty[TTYSZ]; /* event 38 */
};
VEK_SIZE(vek_event, 1136);
VEK_AT(vek_event, event, 0);
VEK_AT(vek_event, count, 4);
VEK_AT(vek_event, sub_event, 8);
VEK_AT(vek_event, service, 12);
VEK_AT(vek_event, username, 44);
VEK_AT(vek_event, real_username, 108);
VEK_AT(vek_event, define_name, 172);
VEK_AT(vek_event, unique, 236);
VEK_AT(vek_event, ip, 304);
VEK_AT(vek_event, dst_ip, 308);
VEK_AT(vek_event, tunnel_ip, 312);
VEK_AT(vek_event, attribute, 316);
VEK_AT(vek_event, type, 317);
VEK_AT(vek_event, update, 320);
VEK_AT(vek_event, ip6, 324);
VEK_AT(vek_event, dst_ip6, 340);
VEK_AT(vek_event, tunnel_ip6, 356);
VEK_AT(vek_event, event_flag, 372);
VEK_AT(vek_event, default_lease_time, 376);
VEK_AT(vek_event, default_reauth_time, 380);
VEK_AT(vek_event, match_flag, 384);
VEK_AT(vek_event, idle_timeout, 388);
VEK_AT(vek_event, idle_timeout_form_acct_flag, 392);
VEK_AT(vek_event, session_timeout, 396);
VEK_AT(vek_event, radius_profile_name, 400);
VEK_AT(vek_event, old_radius_profile_name, 528);
VEK_AT(vek_event, accounting_status, 656);
VEK_AT(vek_event, notify_cc, 660);
VEK_AT(vek_event, method, 664);
VEK_AT(vek_event, locale, 696);
VEK_AT(vek_event, gender, 712);
VEK_AT(vek_event, age, 728);
VEK_AT(vek_event, auth_time, 744);
VEK_AT(vek_event, ssid_name, 760);
VEK_AT(vek_event, ssid_profile_name, 824);
VEK_AT(vek_event, ssid_vap_iface, 888);
VEK_AT(vek_event, sta_mac, 904);
VEK_AT(vek_event, usr_from, 936);
VEK_AT(vek_event, ga_acct_status, 940);
VEK_AT(vek_event, ga_binding_token, 944);
VEK_AT(vek_event, ssh_tty, 1072);

/* Two records name the same logout (needs <string.h>). */
#define VEK_EVENT_LOGOUT_MATCHED(a, b)                                                                       \
	((a)->ip == (b)->ip && strcmp((a)->unique, (b)->unique) == 0 &&                                      \
	 strcmp((a)->service, (b)->service) == 0 && strcmp((a)->username, (b)->username) == 0)

/* The numbers that a service may report, each answered with a vek_response; all others are ignored. */
static inline int vek_event_is_reported(int event)
{
	switch (event) {
	case VEK_EVENT_USER_LOGIN:
	case VEK_EVENT_USER_SOCIAL_LOGIN_STAGE1:
	case VEK_EVENT_USER_SOCIAL_LOGIN_STAGE2:
	case VEK_EVENT_USER_LOGOUT:
	case VEK_EVENT_USER_LOGOUT2:
	case VEK_EVENT_TUNNEL_UP:
	case VEK_EVENT_TUNNEL_DOWN:
	case VEK_EVENT_USER_TUNNEL_UP:
	case VEK_EVENT_USER_TUNNEL_DOWN:
	case VEK_EVENT_WEB_USER_LOGOUT:
	case VEK_EVENT_UPDATE_LEASE_TIME:
	case VEK_EVENT_UPDATE_IDLE_TIME:
	case VEK_EVENT_UPDATE_REAUTH_TIME:
	case VEK_EVENT_UPDATE_ROAMING_STA_IP:
	case VEK_EVENT_USER_LOGOUT_REVOCABLE:
	case VEK_EVENT_USER_LOGOUT_REVOKE:
	case VEK_EVENT_UPDATE_ACCOUNTING_STATUS:
	case VEK_EVENT_RENAME_RADIUS_PROFILE_NAME:
	case VEK_EVENT_UPDATE_SSH_TTY: return 1;
	default: return 0;
	}
}

#define VEK_RESPONSE_SUCCESS 0
#define VEK_RESPONSE_FAIL 1

struct vek_response {
	int32_t code;
};
VEK_SIZE(vek_response, 4);

/* ---- the request socket ----------------------------------------------------------------------- */

enum vek_method {
	VEK_QUERY_NAME = 1,
	VEK_QUERY_FROM = 2,
	VEK_QUERY_FROM_FIRST = 3,
	VEK_QUERY_ALL = 4,
	VEK_LISTEN = 5,
	VEK_QUERY_TOTAL_USER_NUM = 6
};

/* vek_request.req_flags */
#define VEK_HANDLE_FLAG_USING_QUERY2 0x1u /* not interpreted */
#define VEK_HANDLE_FLAG_QUERY_FIRST 0x2u  /* not interpreted */
#define VEK_HANDLE_FLAG_IPV6_ADDR 0x4u    /* the address in u is ip6 */

struct vek_request {
	int32_t method; /* enum vek_method */
	union {
		char username[VEK_USERNAME_LEN]; /* method 1 */
		struct in6_addr ip6;             /* methods 2 and 3 with VEK_HANDLE_FLAG_IPV6_ADDR */
		uint32_t ip;                     /* methods 2 and 3 without it */
	} u;
	uint32_t req_flags;
};
VEK_SIZE(vek_request, 72);
VEK_AT(vek_request, method, 0);
VEK_AT(vek_request, u, 4);
VEK_AT(vek_request, req_flags, 68);

/* One session. Deadlines are absolute seconds of uptime, 0 meaning none. */
struct user_info {
	char service[VEK_SERVICE_LEN];
	char username[VEK_USERNAME_LEN];         /* the account (real_username of the login) */
	char virtual_username[VEK_USERNAME_LEN]; /* username of the login */
	char unique[VEK_UNIQUE_LEN + 1];
	struct in6_addr ip6; /* all zero for an IPv4 session */
	struct in6_addr dst_ip6;
	struct in6_addr tunnel_ip6;
	uint32_t ip; /* 0 for an IPv6 session */
	uint32_t dst_ip;
	uint32_t tunnel_ip;
	VEK_U64 login_time; /* uptime second of the login */
	VEK_U64 lease_time;
	VEK_U64 reauth_time;
	VEK_U64 idle_time;
	int32_t idle_timeout_form_acct_flag; /* 1: the session has its own idle time-out */
	uint32_t idle_timeout;               /* that time-out, seconds */
	uint32_t lease_minute;               /* lease length */
	uint32_t reauth_minute;              /* re-authentication interval */
	uint32_t access;                     /* privilege level */
	uint32_t visibility;                 /* visibility level */
	uint8_t attribute;                   /* VEK_USER_ATTRIBUTE_* */
	uint8_t type;                        /* enum user_type_enum */
	uint32_t usr_flags; /* VEK_EVENT_FLAG_USED_IPV6_ADDR marks an IPv6 session in an answer */
	VEK_U64 session_timeout;
	char radius_profile_name[VEK_PROFILE_NAME_LEN];
	int32_t accounting_status;
	char method[VEK_PORTAL_METHOD_LEN];
	char locale[VEK_PORTAL_LOCALE_STR_LEN];
	char gender[VEK_PORTAL_GENDER_STR_LEN];
	char age[VEK_PORTAL_AGE_STR_LEN];
	char auth_time[VEK_PORTAL_AUTH_TIME_LEN]; /* seconds since the epoch, as text */
	char ssid_name[VEK_PORTAL_SSID_LEN];
	char ssid_profile_name[VEK_PORTAL_SSID_LEN];
	char ssid_vap_iface[VEK_PORTAL_VAP_IF_LEN];
	char sta_mac[VEK_PORTAL_MAC_STR_LEN];
	int32_t usr_from;
	int32_t ga_acct_status;
	char ga_binding_token[GA_BINDING_TOKEN_STR_LEN];
	char ssh_tty[TTYSZ];
};
VEK_SIZE(user_info, 968);
VEK_AT(user_info, service, 0);
VEK_AT(user_info, username, 32);
VEK_AT(user_info, virtual_username, 96);
VEK_AT(user_info, unique, 160);
VEK_AT(user_info, ip6, 228);
VEK_AT(user_info, dst_ip6, 244);
VEK_AT(user_info, tunnel_ip6, 260);
VEK_AT(user_info, ip, 276);
VEK_AT(user_info, dst_ip, 280);
VEK_AT(user_info, tunnel_ip, 284);
VEK_AT(user_info, login_time, 288);
VEK_AT(user_info, lease_time, 296);
VEK_AT(user_info, reauth_time, 304);
VEK_AT(user_info, idle_time, 312);
VEK_AT(user_info, idle_timeout_form_acct_flag, 320);
VEK_AT(user_info, idle_timeout, 324);
VEK_AT(user_info, lease_minute, 328);
VEK_AT(user_info, reauth_minute, 332);
VEK_AT(user_info, access, 336);
VEK_AT(user_info, visibility, 340);
VEK_AT(user_info, attribute, 344);
VEK_AT(user_info, type, 345);
VEK_AT(user_info, usr_flags, 348);
VEK_AT(user_info, session_timeout, 352);
VEK_AT(user_info, radius_profile_name, 360);
VEK_AT(user_info, accounting_status, 488);
VEK_AT(user_info, method, 492);
VEK_AT(user_info, locale, 524);
VEK_AT(user_info, gender, 540);
VEK_AT(user_info, age, 556);
VEK_AT(user_info, auth_time, 572);
VEK_AT(user_info, ssid_name, 588);
VEK_AT(user_info, ssid_profile_name, 652);
VEK_AT(user_info, ssid_vap_iface, 716);
VEK_AT(user_info, sta_mac, 732);
VEK_AT(user_info, usr_from, 764);
VEK_AT(user_info, ga_acct_status, 768);
VEK_AT(user_info, ga_binding_token, 772);
VEK_AT(user_info, ssh_tty, 900);

/* ---- the shared logon configuration block ----------------------------------------------------- */

#define USER_CONFIG_IPC_KEY 0x11111112
#define DEFAULT_MAX_ADMIN_LOGON_COUNT 1
#define DEFAULT_MAX_ACCESS_LOGON_COUNT 1
#define DEFAULT_MAX_IDLE_MINUTE 3

/* Written by configuration programs, which then send the daemon SIGHUP. Every start of the daemon resets it.
 */
struct user_config {
	uint8_t enforce_admin_logon_count : 1;
	uint8_t enforce_access_logon_count : 1;
	uint8_t browser_close_with_logout : 1;
	uint32_t max_admin_logon_count;
	uint32_t max_access_logon_count;
	uint8_t enable_idle_detection; /* 0 or 1 */
	uint32_t max_idle_minute;
	uint8_t enable_auto_lease_update; /* 0 or 1 */
};
VEK_SIZE(user_config, 24);
VEK_AT(user_config, max_admin_logon_count, 4);
VEK_AT(user_config, max_access_logon_count, 8);
VEK_AT(user_config, enable_idle_detection, 12);
VEK_AT(user_config, max_idle_minute, 16);
VEK_AT(user_config, enable_auto_lease_update, 20);

/* ---- the shared lockout table ----------------------------------------------------------------- */

/* Of the segment, and of the semaphore (1 free, 0 held) that guards it. */
#define USER_LOCK_IPC_KEY 0x11111111
#define DEFAULT_ATTEMPT_COUNT 5
#define DEFAULT_LOCKOUT_PERIOD 30
#define MAX_LOCKOUT_RECORD 1024
#define MAX_ATTEMPT_RECORD 1024

struct lockout_record {
	uint32_t ip;
	struct in6_addr ip6;
	VEK_U64 time; /* uptime second at which the lockout ends */
	char username[64];
	char inuse;
};
VEK_SIZE(lockout_record, 104);
VEK_AT(lockout_record, ip, 0);
VEK_AT(lockout_record, ip6, 4);
VEK_AT(lockout_record, time, 24);
VEK_AT(lockout_record, username, 32);
VEK_AT(lockout_record, inuse, 96);

struct attempt_record {
	uint32_t ip;
	struct in6_addr ip6;
	VEK_U64 time; /* uptime second of the attempt */
	uint16_t count;
	char inuse;
};
VEK_SIZE(attempt_record, 40);
VEK_AT(attempt_record, ip, 0);
VEK_AT(attempt_record, ip6, 4);
VEK_AT(attempt_record, time, 24);
VEK_AT(attempt_record, count, 32);
VEK_AT(attempt_record, inuse, 34);

struct user_lock {
	char enable;             /* not 0: the daemon ages the table */
	char attempt_count;      /* failed attempts allowed */
	uint32_t lockout_period; /* for the programs that write lockouts */
	struct lockout_record lockout_rec[MAX_LOCKOUT_RECORD];
	struct attempt_record attempt_rec[MAX_ATTEMPT_RECORD];
};
VEK_SIZE(user_lock, 147464);
VEK_AT(user_lock, enable, 0);
VEK_AT(user_lock, attempt_count, 1);
VEK_AT(user_lock, lockout_period, 4);
VEK_AT(user_lock, lockout_rec, 8);
VEK_AT(user_lock, attempt_rec, 106504);

/* ---- the ftp server's terminate list ---------------------------------------------------------- */

#define PUREFTP_IPC_KEY 0x20130714     /* semaphore */
#define PUREFTP_IPC_SHM_KEY 0x20130715 /* segment */
#define DEFAULT_MAX_USERS 50
#define CLIENT_TERMINATE_USERNAME_LENGTH 32
#define CLIENT_TERMINATE_IPADDR_LENGTH 16

struct ClientTerminateInformation {
	int32_t pid;
	char username[CLIENT_TERMINATE_USERNAME_LENGTH];
	char ipaddr[CLIENT_TERMINATE_IPADDR_LENGTH]; /* dotted quad */
};
VEK_SIZE(ClientTerminateInformation, 52);
VEK_AT(ClientTerminateInformation, pid, 0);
VEK_AT(ClientTerminateInformation, username, 4);
VEK_AT(ClientTerminateInformation, ipaddr, 36);

struct ClientTerminateList {
	VEK_U64 size; /* valid entries; the daemon uses the table when it is 1 to 49 */
	struct ClientTerminateInformation list[DEFAULT_MAX_USERS];
};
VEK_SIZE(ClientTerminateList, 2608);
VEK_AT(ClientTerminateList, size, 0);
VEK_AT(ClientTerminateList, list, 8);

#endif
