/*
 * report_login.c: what a service that logs users in tells vekd. At its start it ends what an earlier run may
 * have left behind; then it reports a login and, when the user leaves, the logout with the same keys.
 */
#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "vek_client.h"

static int report(struct vek_client *vekd, struct vek_event *event, int number)
{
	event->event = number;
	const int status = vek_client_report(vekd, event);
	if (status < 0)
		perror("report_login: vekd");
	return status;
}

int main(void)
{
	const int ended = vek_client_end_service(SERVICE_NAME_SSH, VEK_CLIENT_TIMEOUT_MS);
	struct vek_client *vekd = vek_client_open_notify(VEK_CLIENT_TIMEOUT_MS);
	if (ended < 0 || !vekd) {
		perror("report_login: vekd");
		return 1;
	}
	printf("sessions left over: %d\n", ended);

	struct vek_event event = {.type = ADMIN_TYPE, .ip = inet_addr("192.0.2.7")};
	strcpy(event.service, SERVICE_NAME_SSH);
	strcpy(event.username, "alice");
	strcpy(event.real_username, "alice");
	snprintf(event.unique, sizeof(event.unique), "report_login-%d", (int)getpid());

	const int login = report(vekd, &event, VEK_EVENT_USER_LOGIN);
	printf("login: %s\n", login == VEK_RESPONSE_SUCCESS ? "accepted" : "refused");
	const int logout = report(vekd, &event, VEK_EVENT_USER_LOGOUT);
	printf("logout: %s\n", logout == VEK_RESPONSE_SUCCESS ? "done" : "nobody matched");
	vek_client_close(vekd);
	return login != VEK_RESPONSE_SUCCESS || logout != VEK_RESPONSE_SUCCESS;
}
