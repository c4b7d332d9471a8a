// ftp.h: the shared table of ftp clients, by which the daemon finds the process that serves one.
#ifndef VEK_PAM_FTP_H
#define VEK_PAM_FTP_H

#include <security/pam_modules.h>

#include "vek.h"

// Enters the calling process as the one that serves this login.
void enter_ftp_client(pam_handle_t *pamh, const vek_event &login);

// Before the logout is reported. The daemon ends the process of the first client of the same name and
// address, which may be another session of the same user: so the entry of `pid` moves to the front, and names
// no process.
void leave_ftp_client(pam_handle_t *pamh, const vek_event &login, int pid);

// After it: removes what `leave_ftp_client` left, if the daemon has not.
void remove_ftp_client(pam_handle_t *pamh, const vek_event &login, int pid);

#endif
