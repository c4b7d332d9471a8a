// sock_event.h: the select loop. Descriptors 0..127 are registered with a direction and an opaque pointer;
// one pass waits at most one second and calls back for each ready one.
//
// Callbacks may add and delete descriptors, their own included. A descriptor added during a pass is not
// considered before the next one, also when it has the number of one that the pass found ready.
#ifndef SOCK_EVENT_H
#define SOCK_EVENT_H

constexpr int VEK_MAX_FILES = 128;

enum { FD_READ = 0, FD_WRITE = 1 };

struct sock_event {
	void (*write)(int fd, void *data);
	void (*read)(int fd, void *data);
	int (*error)(int result); // the wait failed; its result is the pass's
};

// Forgets every registration.
void vek_init_sock_event();
void vek_fini_sock_event();

// Watches `fd` for FD_READ or FD_WRITE; `data` goes to the callbacks and stays the caller's. -1 when the
// descriptor is outside 0..127 or registered already, or the direction is neither.
int vek_sock_event_add_fd(int fd, int rw, void *data);

// -1 when the descriptor is not registered.
int vek_sock_event_del_fd(int fd);

// The next pass waits no longer than this many milliseconds: there is something else to do.
void vek_sock_event_limit_wait(int ms);

// Was nothing ready in the last pass?
bool vek_sock_event_was_idle();

// One pass. 0, also when a signal interrupted the wait (then no callback runs); otherwise what `error` said.
int vek_sock_event_loop(sock_event *callbacks);

#endif
