/* qzkit.h: the device's management mode. Asked on every event: it must be cheap. */
#ifndef QZKIT_H
#define QZKIT_H

enum whopmode {
	WHOPMODE_UNKNOWN = 0,
	WHOPMODE_STANDALONE = 1,
	WHOPMODE_CONTROLLER = 2,
	WHOPMODE_MANAGED = 3,
	WHOPMODE_BEFORE_FIRMWARE_UPDATE = 4,
	WHOPMODE_CLOUD = 5
};

#ifdef __cplusplus
extern "C" {
#endif

/* One of enum whopmode. */
int qzkit_wlan_get_hybridmode(void);

#ifdef __cplusplus
}

/* Refreshes a module's cloud flag from the mode: cloud sets it, standalone and managed clear it, any other
   mode leaves it as it was. */
inline void vek_refresh_cloud(int &is_cloud)
{
	switch (qzkit_wlan_get_hybridmode()) {
	case WHOPMODE_CLOUD: is_cloud = 1; break;
	case WHOPMODE_STANDALONE:
	case WHOPMODE_MANAGED: is_cloud = 0; break;
	default: break;
	}
}
#endif

#endif
