// null_platform.cpp: the platform's libraries, doing nothing, so that what is measured is the daemon. A
// standalone device that knows every user type, gives nobody any right and logs to nowhere.
#include <cstdio>

#include "qzkit.h"
#include "qzlog.h"
#include "rrm.h"
#include "user_profile.h"

int qzkit_wlan_get_hybridmode(void) { return WHOPMODE_STANDALONE; }

int qzlog_init(void) { return 0; }

int qzlog2(const struct qzlog_entry *, int) { return 0; }

int get_user_privilege_by_type_id(struct user_profile_t *, int) { return 0; }

int get_info_from_local(struct user_profile_t *, const char *, int) { return 0; }

int rrm_get_common_mac(char *buffer, int size)
{
	if (size > 0)
		std::snprintf(buffer, static_cast<std::size_t>(size), "02:00:00:00:00:01");
	return 0;
}
