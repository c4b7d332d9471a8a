// lockout.h: the writer of the shared table of failed attempts and lockouts, which the daemon ages.
#ifndef VEK_PAM_LOCKOUT_H
#define VEK_PAM_LOCKOUT_H

#include "options.h"
#include "vek.h"

// Who logs in: by address, or at a terminal of the device, where the name is all there is.
struct client_name {
	const char *user;
	uint32_t ip;
	in6_addr ip6;
};

// Each does nothing, and says so in the log where somebody should know, when the table or its lock cannot be
// had: nobody is locked out by what is missing.
bool is_locked_out(pam_handle_t *pamh, const pam_options &options, const client_name &client);
void count_failure(pam_handle_t *pamh, const pam_options &options, const client_name &client);
void forget_failures(pam_handle_t *pamh, const client_name &client);

#endif
