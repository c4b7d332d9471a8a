/* rrm.h: the platform's local information. */
#ifndef RRM_H
#define RRM_H

#ifdef __cplusplus
extern "C" {
#endif

/* The device's own MAC address as terminated text into `buffer`. The result is ignored. */
int rrm_get_common_mac(char *buffer, int size);

#ifdef __cplusplus
}
#endif

#endif
