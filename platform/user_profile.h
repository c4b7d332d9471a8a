/* user_profile.h: what the platform's user-profile library knows of an account. */
#ifndef USER_PROFILE_H
#define USER_PROFILE_H

#include "vek.h"

struct user_profile_t {
	char username[64];
	char virtual_username[64];
	int32_t type;
	int32_t access;
	int32_t visibility;
	int32_t lease_time;
	int32_t reauth_time;
	int32_t remote_admin;  /* not 0: may manage the device */
	int32_t remote_access; /* not 0: network access */
	int32_t refCnt;
	uint8_t flag; /* look-up options, on entry */
};
VEK_SIZE(user_profile_t, 164);
VEK_AT(user_profile_t, username, 0);
VEK_AT(user_profile_t, virtual_username, 64);
VEK_AT(user_profile_t, type, 128);
VEK_AT(user_profile_t, access, 132);
VEK_AT(user_profile_t, visibility, 136);
VEK_AT(user_profile_t, lease_time, 140);
VEK_AT(user_profile_t, reauth_time, 144);
VEK_AT(user_profile_t, remote_admin, 148);
VEK_AT(user_profile_t, remote_access, 152);
VEK_AT(user_profile_t, refCnt, 156);
VEK_AT(user_profile_t, flag, 160);

#ifdef __cplusplus
extern "C" {
#endif

/* Fills a zeroed profile with the default rights of a user type (enum user_type_enum). Negative: unknown. */
int get_user_privilege_by_type_id(struct user_profile_t *profile, int type);

/* Fills a zeroed profile from the locally defined account. The daemon ignores the result. */
int get_info_from_local(struct user_profile_t *profile, const char *username, int type);

#ifdef __cplusplus
}
#endif

#endif
