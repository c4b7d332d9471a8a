// veklog.h: writing to the platform's system log. In debug mode VEK_LOG and VEK_ALERT print to standard
// error instead.
#ifndef VEKLOG_H
#define VEKLOG_H

#include <netinet/in.h>

#include <cstdint>

#include "qzlog.h"

extern int debug; // number of -d options

// The four bytes of an address as stored, in memory order: its dotted form.
#define NIPQUAD(addr)                                                                                        \
	reinterpret_cast<const unsigned char *>(&(addr))[0],                                                 \
	    reinterpret_cast<const unsigned char *>(&(addr))[1],                                             \
	    reinterpret_cast<const unsigned char *>(&(addr))[2],                                             \
	    reinterpret_cast<const unsigned char *>(&(addr))[3]

// A message at notice or alert priority. Addresses in network byte order; text too long for its field is cut.
#define VEK_LOG(sip, dip, user, ...) vek_log(QZLOG_PRI_NOTICE, __func__, sip, dip, user, __VA_ARGS__)
#define VEK_ALERT(sip, dip, user, ...) vek_log(QZLOG_PRI_ALERT, __func__, sip, dip, user, __VA_ARGS__)

// What the two macros do; `function` names the caller in debug mode.
void vek_log(int priority, const char *function, std::uint32_t sip, std::uint32_t dip, const char *user,
	     const char *format, ...) __attribute__((format(printf, 6, 7)));

// A message about an IPv6 session at notice priority, sent whatever the debug mode. -1 when the message is
// longer than 1023 characters (nothing is sent), otherwise what the platform's log call returned.
int VEK_LOG6(const in6_addr *sip6, const in6_addr *dip6, const char *user, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

#endif
