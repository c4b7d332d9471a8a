// terminator.h: ends the processes that still serve a session on this device when the session has ended, and
// reaps the daemon's children. Its start is in init.h.
#ifndef TERMINATOR_H
#define TERMINATOR_H

#include <sys/types.h>

#include <cstddef>

#include "vek.h"

struct vek_socket;

constexpr char CONSOLE_TTY[] = "ttyS0"; // the serial console's name
#define VEK_PSLIST "/var/vek_pslist"    // the latest process listing
constexpr int TTY_CONSOLE_1 = 4;        // major number of the serial console
constexpr char TTY_CONSOLE_2[] = "64";  // its minor number
constexpr int TTY_SSH_TELNET_1 = 136;   // major number of pseudo-terminals
constexpr std::size_t TTY_TEXT = 8;     // bytes for a terminal number and its terminator
constexpr char SSHCON_ENABLE_DEVPTS_FILE[] = "/tmp/sshcon_pts.txt";

constexpr int RET_SUCCESS = 0;
constexpr int RET_GENERAL_ERROR = -1;
constexpr int RET_ERROR_RESOURCE_NOT_FOUND = -2;

// Reaps every child that has ended. A signal handler.
void terminator_child_handler(int);

// The handler of every event that ends a session. Always VEK_CONTINUE_DISPATCH. What it has to end is ended before
// it returns, or deferred when tools have taken long.
int terminator_clear_session(vek_event *event, vek_socket *sock);

// To be called by the main loop in each pass: ends what was deferred, for as long as one turn lasts. True when
// there was something to do, and the next pass should not wait.
bool terminator_run_deferred();

// The same at the end of the daemon, for at most so many milliseconds.
void terminator_finish(int limit_ms);

// Has a process ended through the privileged launcher. The launcher's exit status; -1 when it was not run (as
// for a number that is no process id, and for a while after it had to be killed) or was ended by its limit or
// a signal.
int pidkill(int pid);

// The console's terminal numbers, as text, from the kernel's list of consoles into two buffers of TTY_TEXT
// bytes. What is not found stays as it is.
void get_tty_by_proc(char *tty1, char *tty2);

// The number of the pseudo-terminal whose shell has the sshcon feature on, or RET_ERROR_RESOURCE_NOT_FOUND.
int get_pts_num();

// Whether that terminal is this user's: RET_SUCCESS or RET_GENERAL_ERROR; RET_ERROR_RESOURCE_NOT_FOUND
// without one. The name is quoted and taken literally: users choose it, and the command is run by root.
// The interface is fixed; nothing in the daemon calls this.
int check_sshcon_available(char *pszUserName);

// Takes and gives back semaphore 0 of an existing set. 0, or -1 after a message; taking gives up after about
// one second, and for a while after that sooner. Only a lock that was taken may be given back.
int bsemaphore_p(key_t key);
int bsemaphore_v(key_t key);

// The ftp server's table of clients in shared memory, under its lock: the process of the first client with
// exactly this name and address, and that client's removal (the number of clients left). -1 when there is no
// usable table, and no such client to find.
int ftplogout_shm_getpid(key_t key, const char *username, const char *ipaddr);
int ftplogout_shm_remove(key_t key, const char *username, const char *ipaddr);

#endif
