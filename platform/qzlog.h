/* qzlog.h: the platform's system log as the daemon uses it. A device links its own library. */
#ifndef QZLOG_H
#define QZLOG_H

#include "vek.h"

#define QZLOG_SRC_VEK 5
#define QZLOG_FAC_VEK 5
#define QZLOG_PRI_ALERT 1 /* syslog's levels */
#define QZLOG_PRI_NOTICE 5
#define QZLOG_FLAGS_IPV6_ENABLE 4

struct qzlog_entry {
	struct in6_addr srcip6;
	struct in6_addr dstip6;
	uint32_t srcip; /* network byte order */
	uint32_t dstip; /* network byte order */
	uint16_t sport;
	uint16_t dport;
	char message[1024];
	char note[32];
	char username[64];
	char srciface[16];
	char dstiface[16];
	char proto_name[16];
	union {
		unsigned char bytes[148]; /* details per kind of log; the daemon has none */
	} u;
	uint8_t source;
	uint8_t facility;
	uint8_t priority;
	uint8_t __padding;
	VEK_I64 timestamp;
	struct {
		VEK_I64 tv_sec;
		int64_t tv_usec;
	} tv;
	uint16_t count;
	uint32_t need_mail;
	uint32_t force_alert;
	uint32_t debug;
	uint32_t no_suppress;
	uint32_t flags;
	uint32_t csum;
};
VEK_SIZE(qzlog_entry, 1424);
VEK_AT(qzlog_entry, srcip6, 0);
VEK_AT(qzlog_entry, dstip6, 16);
VEK_AT(qzlog_entry, srcip, 32);
VEK_AT(qzlog_entry, dstip, 36);
VEK_AT(qzlog_entry, sport, 40);
VEK_AT(qzlog_entry, dport, 42);
VEK_AT(qzlog_entry, message, 44);
VEK_AT(qzlog_entry, note, 1068);
VEK_AT(qzlog_entry, username, 1100);
VEK_AT(qzlog_entry, srciface, 1164);
VEK_AT(qzlog_entry, dstiface, 1180);
VEK_AT(qzlog_entry, proto_name, 1196);
VEK_AT(qzlog_entry, u, 1212);
VEK_AT(qzlog_entry, source, 1360);
VEK_AT(qzlog_entry, facility, 1361);
VEK_AT(qzlog_entry, priority, 1362);
VEK_AT(qzlog_entry, timestamp, 1368);
VEK_AT(qzlog_entry, tv, 1376);
VEK_AT(qzlog_entry, count, 1392);
VEK_AT(qzlog_entry, need_mail, 1396);
VEK_AT(qzlog_entry, force_alert, 1400);
VEK_AT(qzlog_entry, debug, 1404);
VEK_AT(qzlog_entry, no_suppress, 1408);
VEK_AT(qzlog_entry, flags, 1412);
VEK_AT(qzlog_entry, csum, 1416);

#ifdef __cplusplus
extern "C" {
#endif

/* Once, before the daemon detaches. Not 0: the daemon does not start. */
int qzlog_init(void);

/* One record, which stays the caller's. The result is ignored; the call must not block. */
int qzlog2(const struct qzlog_entry *entry, int flags);

#ifdef __cplusplus
}
#endif

#endif
