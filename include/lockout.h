// lockout.h: the ageing of the shared table of failed logins and locked-out clients (user_lock in vek.h). Its
// start and end are in init.h.
#ifndef LOCKOUT_H
#define LOCKOUT_H

#include "vek.h"

struct vek_socket;

// Sets every byte of a record to zero.
void clear_lockout_record(lockout_record *record);
void clear_attempt_record(attempt_record *record);

// Clears what has expired, under the table's lock, when lockout is enabled. A table or lock that cannot be
// had costs this pass only. Always VEK_CONTINUE_DISPATCH.
int lockout_handle_timer(vek_event *event, vek_socket *sock);

#endif
